// What runs in every cycle of an application allocates nothing.

#include <quorval/block.h>
#include <quorval/port.h>
#include "support/allocations.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>

#include <memory>
#include <string>

namespace {

using Quorval::Block;
using Quorval::Datatype;
using Quorval::EventPort;
using Quorval::FDEvent;
using Quorval::FdPort;
using Quorval::InPortInternal;
using Quorval::OutPort;
using quorval_test::allocations_of;

/// A block with several ports of each kind.
class Busy : public Block {
public:
    Busy() : Block("busy")
    {
        for (int i = 0; i < 20; ++i) {
            const std::string name = "a port with a long name, number " + std::to_string(i);
            add_inport(std::make_unique<InPortInternal>(name, Datatype("int"), false));
            add_outport(std::make_unique<OutPort<int>>(name, Datatype("int")));
            make_fdport(name, 0, FDEvent::EventMask{true, true});
        }
        event = static_cast<EventPort*>(make_eventport("event"));
    }

    EventPort* event;
};

TEST(HotPaths, AreCountedAcrossTheBorderOfTheLibrary)
{
    Busy block;

    EXPECT_GE(allocations_of([&] { block.get_fdports(); }), 1U);
    EXPECT_GE(allocations_of([&] { block.get_fdport_names(); }), 20U);
    EXPECT_EQ(allocations_of([] {}), 0U);
}

TEST(HotPaths, AllocateNothingInUpdate)
{
    OutPort<int> source("out", Datatype("int"));
    InPortInternal port("in", Datatype("int"), true);
    source.write(1);

    EXPECT_EQ(allocations_of([&] {
                  port.update(source);
                  port.update(source);
              }),
              0U);
    EXPECT_TRUE(port.is_triggered());
}

TEST(HotPaths, AllocateNothingInResetAndIsTriggered)
{
    OutPort<int> source("out", Datatype("int"));
    source.write(1);
    bool was_triggered = false;

    EXPECT_EQ(allocations_of([&] {
                  was_triggered = source.is_triggered();
                  source.reset(false);
                  source.reset(true);
              }),
              0U);
    EXPECT_TRUE(was_triggered);
    EXPECT_FALSE(source.is_triggered());
}

TEST(HotPaths, AllocateNothingInTheOperationsOfABlock)
{
    Busy block;
    for (FdPort* port : block.get_fdports()) {
        if (port != block.event) {
            port->trigger(true, true);
        }
    }
    bool has_triggered = true;

    EXPECT_EQ(allocations_of([&] {
                  has_triggered = block.has_triggered_port();
                  block.reset_inports(false);
                  block.reset_inports(true);
                  block.reset_fdports(false);
                  block.reset_fdports(true);
              }),
              0U);
    EXPECT_FALSE(has_triggered);
}

TEST(HotPaths, AllocateNothingInTheCycleOfAnEventPort)
{
    EventPort port("wake", true, ::eventfd(0, 0));

    EXPECT_EQ(allocations_of([&] {
                  port.fire();
                  port.trigger(true, false);
                  port.reset(false);
              }),
              0U);
    EXPECT_FALSE(port.is_triggered());
}

TEST(HotPaths, AllocateNothingInTheTriggerOfADescriptorPort)
{
    FdPort port("fd", Datatype("extfd"), 0, FDEvent::EventMask{true, false}, true);

    EXPECT_EQ(allocations_of([&] { port.trigger(true, true); }), 0U);
    EXPECT_TRUE(port.is_writable());
}

}  // namespace
