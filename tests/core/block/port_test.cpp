#include "quorval/port.h"

#include "fake_updater.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Quorval::Datatype;
using Quorval::FDEvent;
using Quorval::FdPort;
using Quorval::InPort;
using Quorval::InPortInternal;
using Quorval::InPortProvider;
using Quorval::OutPort;
using Quorval::OutPortInternal;
using Quorval::Port;
using quorval_test::expect_throw;
using quorval_test::FakeUpdater;
using Calls = std::vector<std::string>;

constexpr FDEvent::EventMask kNothing{false, false};
constexpr FDEvent::EventMask kReadable{true, false};
constexpr FDEvent::EventMask kWritable{false, true};

static_assert(std::is_base_of_v<Port, OutPortInternal>);
static_assert(std::is_base_of_v<Port, InPortProvider>);
static_assert(std::is_base_of_v<InPortProvider, InPortInternal>);
static_assert(std::is_base_of_v<Port, FdPort>);
static_assert(std::has_virtual_destructor_v<Port>);
static_assert(std::is_abstract_v<InPortProvider>);
static_assert(!std::is_abstract_v<Port> && !std::is_abstract_v<InPortInternal>);
static_assert(!std::is_copy_constructible_v<Port> && !std::is_move_constructible_v<Port>);
static_assert(!std::is_copy_assignable_v<Port> && !std::is_move_assignable_v<Port>);

/// An output whose trigger and value the test decides on.
class FakeOutPort : public OutPortInternal {
public:
    explicit FakeOutPort(const std::string& name = "out") : OutPortInternal(name, Datatype("int"))
    {
    }

    bool is_triggered() const override
    {
        ++questions;
        return answer;
    }

    void set_data(void* data) { data_ = data; }

    bool answer = false;
    mutable int questions = 0;
};

/// An input that leads to another.
class Detour : public InPortProvider {
public:
    explicit Detour(InPortInternal& target)
        : InPortProvider("detour", Datatype("int"), false), target_(target)
    {
    }

    InPortInternal* get_connectable() override { return &target_; }

    void trigger() { triggered_ = true; }

private:
    InPortInternal& target_;
};

/// A port whose destruction is told.
class ToldPort : public Port {
public:
    explicit ToldPort(bool& is_gone) : Port("told", Datatype("int"), true), is_gone_(is_gone) {}
    ~ToldPort() override { is_gone_ = true; }

private:
    bool& is_gone_;
};

void trigger(InPortInternal& port)
{
    FakeOutPort source;
    source.answer = true;
    port.update(source);
}

std::unique_ptr<FDEvent> make_event(FakeUpdater& updater, int fd = 5,
                                    FDEvent::EventMask mask = kReadable)
{
    return std::make_unique<FDEvent>(
        fd, mask, [](bool, bool) {}, updater);
}

TEST(PortTest, KeepsNameAndTypeAndBeginsUntriggered)
{
    const Port port("a name with / and \n", Datatype("/prefix/a/"), true);

    EXPECT_EQ(port.get_name(), "a name with / and \n");
    EXPECT_EQ(port.get_datatype(), Datatype("/prefix/a/"));
    EXPECT_FALSE(port.is_triggered());
}

TEST(PortTest, MayHaveAnEmptyName)
{
    const Port port("", Datatype(""), true);

    EXPECT_EQ(port.get_name(), "");
    EXPECT_EQ(port.get_datatype().get_name(), "");
}

TEST(PortTest, ResetsUntriggeredPortsWithoutEffect)
{
    Port port("p", Datatype("int"), false);

    port.reset(false);
    port.reset(true);

    EXPECT_FALSE(port.is_triggered());
}

TEST(PortTest, IsDestroyedThroughItsBase)
{
    bool is_gone = false;
    std::unique_ptr<Port> port = std::make_unique<ToldPort>(is_gone);

    port.reset();

    EXPECT_TRUE(is_gone);
}

TEST(OutPortInternalTest, BeginsWithoutData)
{
    const OutPortInternal port("out", Datatype("int"));

    EXPECT_EQ(port.get_data(), nullptr);
    EXPECT_FALSE(port.is_triggered());
    EXPECT_EQ(port.get_name(), "out");
    EXPECT_EQ(port.get_datatype(), Datatype("int"));
}

TEST(OutPortInternalTest, ClearsItsTriggerInAnyReset)
{
    for (const bool force : {false, true}) {
        OutPort<int> port("out", Datatype("int"));
        port.trigger();

        port.reset(force);

        EXPECT_FALSE(port.is_triggered()) << force;
        EXPECT_EQ(port.get_data(), &port.value()) << force;
    }
}

TEST(InPortInternalTest, BeginsWithoutData)
{
    const InPortInternal port("in", Datatype("int"), true);

    EXPECT_EQ(port.get_data(), nullptr);
    EXPECT_FALSE(port.is_triggered());
    EXPECT_EQ(port.get_name(), "in");
    EXPECT_EQ(port.get_datatype(), Datatype("int"));
}

TEST(InPortInternalTest, IsItsOwnConnectable)
{
    InPortInternal port("in", Datatype("int"), true);
    InPortProvider& provider = port;

    EXPECT_EQ(provider.get_connectable(), &port);
}

TEST(InPortInternalTest, ClearsItsTriggerByPolicyAndByForce)
{
    for (const bool auto_reset : {false, true}) {
        for (const bool force : {false, true}) {
            InPortInternal port("in", Datatype("int"), auto_reset);
            trigger(port);

            port.reset(force);

            EXPECT_EQ(port.is_triggered(), !force && !auto_reset)
                << "auto_reset " << auto_reset << ", force " << force;
        }
    }
}

TEST(InPortInternalTest, KeepsItsDataInAReset)
{
    int value = 1;
    FakeOutPort source;
    source.set_data(&value);
    InPortInternal port("in", Datatype("int"), true);
    port.update(source);

    port.reset(true);

    EXPECT_EQ(port.get_data(), &value);
}

TEST(InPortProviderTest, CanLeadToAnotherInput)
{
    InPortInternal target("in", Datatype("int"), true);
    Detour detour(target);
    detour.trigger();

    EXPECT_EQ(detour.get_connectable(), &target);
    detour.reset(false);
    EXPECT_TRUE(detour.is_triggered());
    detour.reset(true);
    EXPECT_FALSE(detour.is_triggered());
}

TEST(InPortUpdate, TakesOverTriggerAndData)
{
    int value = 1;
    FakeOutPort source;
    source.answer = true;
    source.set_data(&value);
    InPortInternal port("in", Datatype("int"), true);

    port.update(source);

    EXPECT_TRUE(port.is_triggered());
    EXPECT_EQ(port.get_data(), &value);
    EXPECT_EQ(source.questions, 1);
}

TEST(InPortUpdate, StaysUntriggeredWithAnUntriggeredSourceAndTakesItsData)
{
    int value = 1;
    FakeOutPort source;
    source.set_data(&value);
    InPortInternal port("in", Datatype("int"), true);

    port.update(source);

    EXPECT_FALSE(port.is_triggered());
    EXPECT_EQ(port.get_data(), &value);
}

TEST(InPortUpdate, StaysTriggeredWithAnUntriggeredSourceAndTakesItsData)
{
    int value = 1;
    FakeOutPort source;
    source.set_data(&value);
    InPortInternal port("in", Datatype("int"), true);
    trigger(port);

    port.update(source);

    EXPECT_TRUE(port.is_triggered());
    EXPECT_EQ(port.get_data(), &value);
    EXPECT_EQ(source.questions, 0);
}

TEST(InPortUpdate, TakesANullPointerOver)
{
    int value = 1;
    FakeOutPort source;
    source.set_data(&value);
    InPortInternal port("in", Datatype("int"), true);
    port.update(source);
    source.set_data(nullptr);

    port.update(source);

    EXPECT_EQ(port.get_data(), nullptr);
}

TEST(InPortUpdate, DoesNotCompareTheTypes)
{
    OutPort<int> source("out", Datatype("int"));
    source.write(1);
    InPortInternal port("in", Datatype("double"), true);

    port.update(source);

    EXPECT_TRUE(port.is_triggered());
    EXPECT_EQ(port.get_data(), &source.value());
}

TEST(InPortUpdate, LeavesTheSourceAsItIs)
{
    OutPort<int> source("out", Datatype("int"));
    source.write(1);
    InPortInternal port("in", Datatype("int"), true);

    port.update(source);

    EXPECT_TRUE(source.is_triggered());
    EXPECT_EQ(source.get_data(), &source.value());
}

TEST(TypedPorts, HoldAValueInitialisedValueAtFirst)
{
    const OutPort<int> number("out", Datatype("int"));
    const OutPort<std::vector<int>> list("out", Datatype("int"));

    EXPECT_EQ(number.value(), 0);
    EXPECT_TRUE(list.value().empty());
    EXPECT_EQ(number.get_data(), nullptr);
    EXPECT_FALSE(number.is_triggered());
    EXPECT_EQ(number.get_name(), "out");
    EXPECT_EQ(number.get_datatype(), Datatype("int"));
}

TEST(TypedPorts, PublishNothingWhenTheValueChanges)
{
    OutPort<int> port("out", Datatype("int"));

    port.value() = 5;

    EXPECT_EQ(port.get_data(), nullptr);
    EXPECT_FALSE(port.is_triggered());
    EXPECT_EQ(std::as_const(port).value(), 5);
}

TEST(TypedPorts, PublishTheHeldValueWhenTriggered)
{
    OutPort<int> port("out", Datatype("int"));
    port.value() = 5;

    port.trigger();

    EXPECT_EQ(port.get_data(), &port.value());
    EXPECT_TRUE(port.is_triggered());
}

TEST(TypedPorts, WriteAndPublishInOneStep)
{
    OutPort<std::unique_ptr<int>> port("out", Datatype("int"));

    port.write(std::make_unique<int>(5));

    EXPECT_EQ(*port.value(), 5);
    EXPECT_EQ(port.get_data(), &port.value());
    EXPECT_TRUE(port.is_triggered());
}

TEST(TypedPorts, CarryAValueFromOutputToInputInPlace)
{
    OutPort<std::string> source("out", Datatype("text"));
    InPort<std::string> port("in", Datatype("text"));
    source.write("first");
    port.update(source);

    source.value() = "second";

    EXPECT_EQ(port.get(), &source.value());
    EXPECT_EQ(&port.value(), &source.value());
    EXPECT_EQ(port.value(), "second");
}

TEST(TypedPorts, ResetInputsByDefaultAutomatically)
{
    OutPort<int> source("out", Datatype("int"));
    source.trigger();
    InPort<int> automatic("in", Datatype("int"));
    InPort<int> lasting("in", Datatype("int"), false);
    automatic.update(source);
    lasting.update(source);

    automatic.reset(false);
    lasting.reset(false);

    EXPECT_FALSE(automatic.is_triggered());
    EXPECT_TRUE(lasting.is_triggered());
}

TEST(TypedPorts, HaveNoDataBeforeTheFirst)
{
    OutPort<int> silent("out", Datatype("int"));
    InPort<int> port("left", Datatype("int"));

    port.update(silent);

    EXPECT_EQ(port.get(), nullptr);
    expect_throw<std::runtime_error>([&] { port.value(); }, "InPort left has no data");
}

TEST(FdPortConstruction, KeepsWhatItWasGiven)
{
    const FdPort port("fd", Datatype("socket"), 12, kWritable, true);

    EXPECT_EQ(port.get_name(), "fd");
    EXPECT_EQ(port.get_datatype(), Datatype("socket"));
    EXPECT_EQ(port.get_fd(), 12);
    EXPECT_EQ(port.get_eventmask(), kWritable);
    EXPECT_EQ(port.get_event(), nullptr);
    EXPECT_EQ(port.get_value(), nullptr);
    EXPECT_FALSE(port.is_triggered());
    EXPECT_FALSE(port.is_readable());
    EXPECT_FALSE(port.is_writable());
}

TEST(FdPortConstruction, TakesDescriptorZero)
{
    const FdPort port("fd", Datatype("socket"), 0, kReadable, true);

    EXPECT_EQ(port.get_fd(), 0);
}

TEST(FdPortConstruction, RefusesANegativeDescriptor)
{
    for (const int fd : {-1, -2, INT_MIN}) {
        SCOPED_TRACE(fd);

        expect_throw<std::runtime_error>(
            [&] { FdPort port("fd", Datatype("socket"), fd, kReadable, true); },
            "Invalid fd supplied");
    }
}

TEST(FdPortTrigger, StoresBothFlagsEachTime)
{
    FdPort port("fd", Datatype("socket"), 5, kNothing, true);
    const std::pair<bool, bool> reports[] = {
        {true, false}, {false, true}, {true, true}, {false, false}};

    for (const auto& [readable, writable] : reports) {
        port.trigger(readable, writable);

        EXPECT_TRUE(port.is_triggered());
        EXPECT_EQ(port.is_readable(), readable);
        EXPECT_EQ(port.is_writable(), writable);
    }
}

TEST(FdPortTrigger, KeepsTheReadinessInAReset)
{
    FdPort port("fd", Datatype("socket"), 5, kReadable, true);
    port.trigger(true, true);

    port.reset(false);

    EXPECT_FALSE(port.is_triggered());
    EXPECT_TRUE(port.is_readable());
    EXPECT_TRUE(port.is_writable());
}

TEST(FdPortTrigger, IsClearedByPolicyAndByForce)
{
    for (const bool auto_reset : {false, true}) {
        for (const bool force : {false, true}) {
            FdPort port("fd", Datatype("socket"), 5, kReadable, auto_reset);
            port.trigger(true, false);

            port.reset(force);

            EXPECT_EQ(port.is_triggered(), !force && !auto_reset)
                << "auto_reset " << auto_reset << ", force " << force;
        }
    }
}

TEST(FdPortEventmask, IsStoredAloneWithoutARegistration)
{
    FdPort port("fd", Datatype("socket"), 5, kReadable, true);

    port.set_eventmask(kWritable);

    EXPECT_EQ(port.get_eventmask(), kWritable);
    EXPECT_EQ(port.get_event(), nullptr);
}

TEST(FdPortEventmask, IsStoredAndThenPassedToTheRegistration)
{
    FakeUpdater updater;
    FdPort port("fd", Datatype("socket"), 5, kReadable, true);
    port.set_event(make_event(updater));
    FDEvent::EventMask in_port_at_update = kNothing;
    updater.on_update_mask = [&] { in_port_at_update = port.get_eventmask(); };

    port.set_eventmask(kWritable);

    EXPECT_EQ(updater.calls, Calls{"update_mask 5 r- -> -w"});
    EXPECT_EQ(in_port_at_update, kWritable);
    EXPECT_EQ(port.get_eventmask(), kWritable);
    EXPECT_EQ(port.get_event()->get_mask(), kWritable);
}

TEST(FdPortEventmask, StaysAsItWasWhenTheUpdaterThrows)
{
    FakeUpdater updater;
    FdPort port("fd", Datatype("socket"), 5, kReadable, true);
    port.set_event(make_event(updater));
    updater.refuses = true;

    expect_throw<std::logic_error>([&] { port.set_eventmask(kWritable); }, "no room");

    EXPECT_EQ(port.get_eventmask(), kReadable);
    EXPECT_EQ(port.get_event()->get_mask(), kReadable);
}

TEST(FdPortEventmask, MayBeTakenFromThePortItself)
{
    FakeUpdater updater;
    FdPort port("fd", Datatype("socket"), 5, kWritable, true);
    port.set_event(make_event(updater));

    port.set_eventmask(port.get_eventmask());

    EXPECT_EQ(updater.calls, Calls{"update_mask 5 r- -> -w"});
    EXPECT_EQ(port.get_eventmask(), kWritable);
}

TEST(FdPortEvent, IsHeldWithoutTellingTheUpdater)
{
    FakeUpdater updater;
    FdPort port("fd", Datatype("socket"), 5, kReadable, true);
    auto event = make_event(updater);
    FDEvent* const raw = event.get();

    port.set_event(std::move(event));

    EXPECT_EQ(port.get_event(), raw);
    EXPECT_EQ(updater.calls, Calls{});
}

TEST(FdPortEvent, EndsTheOneBeforeWhenReplaced)
{
    FakeUpdater updater;
    FdPort port("fd", Datatype("socket"), 5, kReadable, true);
    port.set_event(make_event(updater, 5));

    port.set_event(make_event(updater, 6));

    EXPECT_EQ(updater.calls, Calls{"remove 5 r-"});
    EXPECT_EQ(port.get_event()->get_fd(), 6);
}

TEST(FdPortEvent, EndsWithNull)
{
    FakeUpdater updater;
    FdPort port("fd", Datatype("socket"), 5, kReadable, true);
    port.set_event(make_event(updater));

    port.set_event(nullptr);
    port.set_event(nullptr);

    EXPECT_EQ(updater.calls, Calls{"remove 5 r-"});
    EXPECT_EQ(port.get_event(), nullptr);
}

TEST(FdPortEvent, EndsWithThePort)
{
    FakeUpdater updater;
    auto port = std::make_unique<FdPort>("fd", Datatype("socket"), 5, kReadable, true);
    port->set_event(make_event(updater));

    port.reset();

    EXPECT_EQ(updater.calls, Calls{"remove 5 r-"});
}

}  // namespace
