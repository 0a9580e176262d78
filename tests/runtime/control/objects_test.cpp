#include "control/objects.h"

#include "control/connection.h"
#include "loop/loop.h"
#include "runtime/control/fake_bus.h"
#include "runtime/support/fakes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::expect_throw;
using quorval_test::FakeBlock;
using quorval_test::FakeBus;
using quorval_test::FakeGraph;
using quorval_test::LogRecorder;
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
// NOLINTEND(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)

class FakeWorld final : public IWorld {
public:
    std::chrono::nanoseconds now() override { return std::chrono::nanoseconds(0); }
    bool must_stop() override { return false; }
    void progress(const std::string& /*path*/, std::uint64_t /*done*/,
                  std::uint64_t /*total*/) override
    {
    }
    sd_event* loop() override { return nullptr; }
    sd_bus* bus() override { return nullptr; }
};

class BlockObjectsTest : public testing::Test {
protected:
    /// Publishes the table for the block "b", and has it called.
    /// @return the answers
    std::vector<std::string> call(const std::vector<FakeBus::Call>& calls)
    {
        block_.add_dbus("/object", "test.Object", kTable, &values_);
        Life life(graph_.arrange(), world_, nullptr, nullptr);
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
        while (!is_over) {
            loop_.wait(std::nullopt);
        }
        return bus_.stop();
    }

    static FakeBus::Call get(const char* property)
    {
        return {":1.17", "/object", "org.freedesktop.DBus.Properties", "Get",
                [property](auto* message) {
                    return sd_bus_message_append(message, "ss", "test.Object", property);
                }};
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

TEST_F(BlockObjectsTest, AreRefusedWithATableThatIsNone)
{
    const std::array<sd_bus_vtable, 1> table = {};
    block_.add_dbus("/object", "test.Object", table.data(), nullptr);
    Life life(graph_.arrange(), world_, nullptr, nullptr);
    const BlockObjects objects(graph_.network(), life, loop_);
    std::vector<SlotHandle> slots;

    expect_throw<std::runtime_error>([&] { objects.publish(nullptr, slots); },
                                     "block 'b': the object /object with the interface test.Object "
                                     "cannot be published: Invalid argument");
    EXPECT_THAT(slots, IsEmpty());
}

}  // namespace
