#include "control/objects.h"

#include "control/connection.h"
#include "loop/loop.h"
#include "runtime/control/fake_bus.h"
#include "runtime/control/work_watch.h"
#include "runtime/support/fake_world.h"
#include "runtime/support/fakes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::expect_throw;
using quorval_test::FakeBlock;
using quorval_test::FakeBus;
using quorval_test::FakeGraph;
using quorval_test::FakeWorld;
using quorval_test::LogRecorder;
using quorval_test::WorkWatch;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// What lies in a block, and is read and written on its behalf.
struct Values {
    Values() = default;
    Values(const Values&) = delete;
    Values& operator=(const Values&) = delete;
    ~Values() { std::free(text); }  // NOLINT(cppcoreguidelines-no-malloc)

    std::int32_t level = 3;
    char* text = nullptr;
    char* object = nullptr;
    char** list = nullptr;
    std::int32_t even = 2;
};

int set_even(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
             const char* /*property*/, sd_bus_message* value, void* even, sd_bus_error* /*error*/)
{
    std::int32_t number = 0;
    const int result = sd_bus_message_read(value, "i", &number);
    if (number % 2 != 0) {
        throw std::invalid_argument("odd");
    }
    *static_cast<std::int32_t*>(even) = number;
    return result;
}

// NOLINTBEGIN(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)
const sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_WRITABLE_PROPERTY("Level", "i", nullptr, nullptr, offsetof(Values, level),
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_WRITABLE_PROPERTY("Text", "s", nullptr, nullptr, offsetof(Values, text),
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Object", "o", nullptr, offsetof(Values, object), 0),
    SD_BUS_PROPERTY("List", "as", nullptr, offsetof(Values, list), 0),
    SD_BUS_WRITABLE_PROPERTY("Even", "i", nullptr, set_even, offsetof(Values, even),
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

/// Adds what it is called with to the number that it belongs to.
int add(sd_bus_message* message, void* number, sd_bus_error* /*error*/)
{
    std::int32_t more = 0;
    sd_bus_message_read(message, "i", &more);
    if (more < 0) {
        throw std::invalid_argument("less");
    }
    auto& sum = *static_cast<std::int32_t*>(number);
    sum += more;
    return sd_bus_reply_method_return(message, "i", sum);
}

int get_twice(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
              const char* /*property*/, sd_bus_message* reply, void* number,
              sd_bus_error* /*error*/)
{
    return sd_bus_message_append(reply, "i", 2 * *static_cast<std::int32_t*>(number));
}

/// Answers with what was recorded, as a number.
int get_record(sd_bus_message* message, void* record, sd_bus_error* /*error*/)
{
    return sd_bus_reply_method_return(message, "t", reinterpret_cast<std::uint64_t>(record));
}

const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_OFFSET("AddToLevel", "i", "i", add, offsetof(Values, level),
                              SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_OFFSET("AddToEven", "i", "i", add, offsetof(Values, even),
                              SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_OFFSET("Record", "", "t", get_record, 17,
                              SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_ABSOLUTE_OFFSET),
    SD_BUS_METHOD("Nothing", "", "", nullptr, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Twice", "i", get_twice, offsetof(Values, even), 0),
    SD_BUS_VTABLE_END};

int trigger(sd_bus_message* message, void* output, sd_bus_error* /*error*/)
{
    static_cast<OutPort<int>*>(output)->write(5);
    return sd_bus_reply_method_return(message, "");
}

const sd_bus_vtable kTrigger[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Trigger", "", "", trigger, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

/// As a table is compiled with a version whose entries are larger.
struct LargeEntry {
    sd_bus_vtable entry;
    std::array<char, 32> more;
};
const LargeEntry kLargeTable[] = {
    {SD_BUS_VTABLE_START(0), {}},
    {SD_BUS_METHOD_WITH_OFFSET("AddToLevel", "i", "i", add, offsetof(Values, level),
                               SD_BUS_VTABLE_UNPRIVILEGED),
     {}},
    {SD_BUS_PROPERTY("Twice", "i", get_twice, offsetof(Values, even), 0), {}},
    {SD_BUS_VTABLE_END, {}}};
// NOLINTEND(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)

class BlockObjectsTest : public testing::Test {
protected:
    /// Publishes the table for the block "b", and has it called.
    /// @return the answers
    std::vector<std::string> call(const std::vector<FakeBus::Call>& calls)
    {
        block_.add_dbus("/object", "test.Object", kTable, &values_);
        Life life(graph_.arrange(), world_, nullptr, nullptr);
        life.start();
        const BlockObjects objects(graph_.network(), life, loop_);
        runtime::Connection connection(Bus::User, "org.quorval.graph.g", [&](sd_bus* bus) {
            std::vector<SlotHandle> slots;
            objects.publish(bus, slots);
            return slots;
        });
        std::atomic<bool> is_over{false};
        bus_.will_call(calls, [&] {
            is_over = true;
            loop_.waker()->wake();
        });
        EXPECT_EQ(connection.open(), "");
        connection.attach(loop_.event());
        const WorkWatch watch(loop_.event(), life);
        while (!is_over) {
            loop_.wait(std::nullopt);
            life.step();
        }
        EXPECT_FALSE(watch.has_seen_work());
        return bus_.stop();
    }

    static FakeBus::Call get(const char* property, const char* path = "/object")
    {
        return {":1.17", path, "org.freedesktop.DBus.Properties", "Get", [property](auto* message) {
                    return sd_bus_message_append(message, "ss", "test.Object", property);
                }};
    }

    static FakeBus::Call call_method(const char* path, const char* method)
    {
        return {":1.17", path, "test.Object", method};
    }

    static FakeBus::Call call_method(const char* path, const char* method, std::int32_t number)
    {
        return {":1.17", path, "test.Object", method,
                [number](auto* message) { return sd_bus_message_append(message, "i", number); }};
    }

    template <class Value>
    static FakeBus::Call set(const char* property, const char* type, Value value)
    {
        return {":1.17", "/object", "org.freedesktop.DBus.Properties", "Set", [=](auto* message) {
                    return sd_bus_message_append(message, "ssv", "test.Object", property, type,
                                                 value);
                }};
    }

    LogRecorder log_{LOGLEVEL_INFO};
    FakeBus bus_;
    Loop loop_;
    FakeWorld world_;
    Values values_;
    FakeGraph graph_;
    FakeBlock& block_ = graph_.add("b");
};

TEST_F(BlockObjectsTest, HaveTextsThatAreNotThere)
{
    EXPECT_THAT(call({get("Text"), get("Object"), get("List")}), ElementsAre("()", "(/)", "(())"));
}

TEST_F(BlockObjectsTest, HaveTheTextsOfTheBlock)
{
    std::string path = "/a/b";
    std::string first = "one";
    std::string second = "two";
    std::array<char*, 3> list = {first.data(), second.data(), nullptr};
    values_.text = ::strdup("some text");
    values_.object = path.data();
    values_.list = list.data();

    EXPECT_THAT(call({get("Text"), get("Object"), get("List")}),
                ElementsAre("(some text)", "(/a/b)", "((one two))"));
}

TEST_F(BlockObjectsTest, TakeNewValues)
{
    EXPECT_THAT(call({set("Level", "i", 7), set("Text", "s", "first"), set("Text", "s", "second"),
                      get("Level"), get("Text")}),
                ElementsAre("", "", "", "(7)", "(second)"));

    EXPECT_EQ(values_.level, 7);
    EXPECT_STREQ(values_.text, "second");
}

TEST_F(BlockObjectsTest, LetTheBlockRefuseANewValue)
{
    EXPECT_THAT(call({set("Even", "i", 4), set("Even", "i", 5), get("Even")}),
                ElementsAre("", "org.quorval.Error.Refused: odd", "(4)"));

    EXPECT_THAT(log_.texts(), ElementsAre("block 'b' failed in D-Bus call: odd"));
}

TEST_F(BlockObjectsTest, AreCalledWithWhatTheBlockRecorded)
{
    block_.add_dbus("/methods", "test.Object", kMethods, &values_);
    // A block has one object for each table.
    const std::vector<sd_bus_vtable> same(std::begin(kMethods), std::end(kMethods));
    block_.add_dbus("/nobody", "test.Object", same.data(), nullptr);

    EXPECT_THAT(
        call({call_method("/methods", "AddToLevel", 4), call_method("/methods", "AddToEven", 5),
              get("Twice", "/methods"), call_method("/methods", "Record"),
              call_method("/methods", "Nothing"), call_method("/nobody", "Record")}),
        ElementsAre("7", "7", "(14)", "17", "", "17"));

    EXPECT_EQ(values_.level, 7);
    EXPECT_EQ(values_.even, 7);
}

TEST_F(BlockObjectsTest, AreCalledWithTablesOfAnotherVersion)
{
    std::vector<LargeEntry> table(std::begin(kLargeTable), std::end(kLargeTable));
    table[0].entry.x.start.element_size = sizeof(LargeEntry);
    block_.add_dbus("/large", "test.Object", &table[0].entry, &values_);

    EXPECT_THAT(call({call_method("/large", "AddToLevel", 1), get("Twice", "/large")}),
                ElementsAre("4", "(4)"));
}

TEST_F(BlockObjectsTest, LeadToAWaveWhereTheyTriggerAnOutput)
{
    FakeBlock& reader = graph_.add("reader");
    reader.input("in");
    OutPort<int>& output = block_.output("out");
    graph_.connect(block_, "out", reader, "in");
    block_.add_dbus("/trigger", "test.Object", kTrigger, &output);

    EXPECT_THAT(call({get("Even"), call_method("/trigger", "Trigger")}), ElementsAre("(2)", ""));

    EXPECT_EQ(reader.runs, 1);
}

TEST_F(BlockObjectsTest, LeaveNothingBehind)
{
    constexpr int kTimes = 200;
    constexpr std::size_t kMost = 100'000;  // bytes; a connection has more than a thousand
    block_.add_dbus("/object", "test.Object", kTable, &values_);
    Life life(graph_.arrange(), world_, nullptr, nullptr);
    const BlockObjects objects(graph_.network(), life, loop_);
    const auto open = [&] {
        return runtime::Connection(Bus::User, "org.quorval.graph.g",
                                   [&](sd_bus* bus) {
                                       std::vector<SlotHandle> slots;
                                       objects.publish(bus, slots);
                                       return slots;
                                   })
            .open();
    };
    for (int warm = 0; warm < 10; ++warm) {
        ASSERT_EQ(open(), "");
    }

    const std::size_t before = quorval_test::used_memory();
    for (int count = 0; count < kTimes; ++count) {
        ASSERT_EQ(open(), "");
    }

    EXPECT_LT(quorval_test::used_memory(), before + kMost);
}

TEST_F(BlockObjectsTest, AnswerForTheBlockThatFails)
{
    FakeBlock& other = graph_.add("other");
    other.add_dbus("/methods", "test.Object", kMethods, &values_);

    EXPECT_THAT(call({call_method("/methods", "AddToLevel", -1)}),
                ElementsAre("org.quorval.Error.Refused: less"));

    EXPECT_EQ(values_.level, 3);
    EXPECT_THAT(log_.texts(), ElementsAre("block 'other' failed in D-Bus call: less"));
}

TEST_F(BlockObjectsTest, NameTheBlocksThatOfferTheSame)
{
    for (const auto& [path, interface, problem] : std::vector<std::array<std::string, 3>>{
             {"/object", "test.Other", ""},
             {"/other", "test.Object", ""},
             {"/object", "test.Object",
              "block 'b' and block 'other' both offer the object /object with the interface "
              "test.Object"}}) {
        FakeGraph graph;
        graph.add("b").add_dbus("/object", "test.Object", kTable, &values_);
        graph.add("other").add_dbus(path, interface, kTable, &values_);
        Life life(graph.arrange(), world_, nullptr, nullptr);

        EXPECT_EQ(BlockObjects(graph.network(), life, loop_).find_problem(), problem)
            << path << " " << interface;
    }
}

TEST_F(BlockObjectsTest, DoNotStandInForTheGraph)
{
    for (const char* interface : {"org.quorval.Graph1", "org.quorval.Links1"}) {
        FakeGraph graph;
        graph.add("b").add_dbus("/org/quorval/graph", interface, kTable, &values_);
        Life life(graph.arrange(), world_, nullptr, nullptr);

        EXPECT_EQ(BlockObjects(graph.network(), life, loop_).find_problem(),
                  "the graph itself and block 'b' both offer the object /org/quorval/graph with "
                  "the interface " +
                      std::string(interface));
    }
}

TEST_F(BlockObjectsTest, AreRefusedWithATableThatIsNone)
{
    std::vector<sd_bus_vtable> no_start(std::begin(kTable), std::end(kTable));
    no_start[0].type = 0;
    std::vector<sd_bus_vtable> no_size(std::begin(kTable), std::end(kTable));
    no_size[0].x.start.element_size = 0;
    for (const auto& table : {no_start, no_size}) {
        FakeGraph graph;
        graph.add("b").add_dbus("/object", "test.Object", table.data(), nullptr);
        Life life(graph.arrange(), world_, nullptr, nullptr);
        const BlockObjects objects(graph.network(), life, loop_);
        std::vector<SlotHandle> slots;

        expect_throw<RefusedObject>([&] { objects.publish(nullptr, slots); },
                                    "block 'b': the object /object with the interface test.Object "
                                    "cannot be published: Invalid argument");
        EXPECT_THAT(slots, IsEmpty());
    }
}

}  // namespace
