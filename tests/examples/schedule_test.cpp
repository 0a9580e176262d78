#include "host/schedule.h"

#include <quorval/superblock.h>
#include "support/support.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using host::Schedule;
using Quorval::Block;
using Quorval::Container;
using Quorval::Datatype;
using Quorval::InPort;
using Quorval::OutPort;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;
using quorval_test::expect_throw;

using Runs = std::vector<std::string>;

/// Has an input and an output, writes down that it ran, and passes on what it got, plus one.
class Counter : public Block {
public:
    Counter(const std::string& name, Runs& runs, const std::string& intype = "int",
            const std::string& outtype = "int")
        : Block(name), runs_(runs)
    {
        auto in = std::make_unique<InPort<int>>("in", Datatype(intype));
        auto out = std::make_unique<OutPort<int>>("out", Datatype(outtype));
        in_ = in.get();
        out_ = out.get();
        add_inport(std::move(in));
        add_outport(std::move(out));
        make_eventport("event");
    }

    bool run() override
    {
        runs_.push_back(get_name() + (in_->is_triggered() ? "" : "!"));
        if (!is_silent) {
            out_->write((in_->get() == nullptr ? 0 : in_->value()) + 1);
        }
        return goes_on;
    }

    bool is_triggered() { return in_->is_triggered() || get_fdport("event")->is_triggered(); }
    int value() const { return in_->value(); }
    void fire()
    {
        static_cast<Quorval::EventPort*>(get_fdport("event"))->fire();
        get_fdport("event")->trigger(true, false);
    }

    bool goes_on = true;
    bool is_silent = false;

private:
    Runs& runs_;
    InPort<int>* in_ = nullptr;
    OutPort<int>* out_ = nullptr;
};

class ScheduleTest : public testing::Test {
protected:
    Counter& add(const std::string& name, const std::string& intype = "int",
                 const std::string& outtype = "int")
    {
        auto block = std::make_unique<Counter>(name, runs_, intype, outtype);
        Counter& counter = *block;
        graph_.add_block(UniqueDlPtr<Container>(nullptr, std::move(block)));
        return counter;
    }
    void connect(const Container& from, const Container& to)
    {
        graph_.add_connection(from, "out", to, "in");
    }
    static Runs names(const Schedule& schedule)
    {
        Runs names;
        for (const Block* block : schedule.blocks()) {
            names.push_back(block->get_name());
        }
        return names;
    }

    Runs runs_;
    Superblock graph_{"graph"};
};

TEST_F(ScheduleTest, OrdersBlocksBehindThoseThatTheyDependOn)
{
    Counter& a = add("a");
    Counter& b = add("b");
    Counter& c = add("c");
    Counter& d = add("d");
    connect(d, c);
    connect(c, a);
    connect(d, b);
    connect(b, a);

    EXPECT_EQ(names(Schedule(graph_)), (Runs{"d", "b", "c", "a"}));
}

TEST_F(ScheduleTest, RunsWithoutAnyBlock)
{
    Schedule schedule(graph_);

    EXPECT_TRUE(schedule.blocks().empty());
    EXPECT_FALSE(schedule.is_due());
    EXPECT_TRUE(schedule.run());
}

TEST_F(ScheduleTest, PassesDataThroughTheWholeGraphInOneRun)
{
    Counter& a = add("a");
    Counter& b = add("b");
    Counter& c = add("c");
    connect(c, b);
    connect(b, a);
    Schedule schedule(graph_);
    c.fire();

    EXPECT_TRUE(schedule.run());

    EXPECT_EQ(runs_, (Runs{"c!", "b", "a"}));
    EXPECT_EQ(a.value(), 2);
}

TEST_F(ScheduleTest, RunsNoBlockWithoutATrigger)
{
    Counter& a = add("a");
    Counter& b = add("b");
    add("lonely");
    connect(a, b);
    Schedule schedule(graph_);
    a.is_silent = true;
    a.fire();

    schedule.run();

    EXPECT_EQ(runs_, Runs{"a!"});
}

TEST_F(ScheduleTest, ResetsAllPortsAfterARun)
{
    Counter& a = add("a");
    Counter& b = add("b");
    connect(a, b);
    Schedule schedule(graph_);
    a.fire();
    EXPECT_TRUE(schedule.is_due());

    schedule.run();
    EXPECT_FALSE(schedule.is_due());
    EXPECT_FALSE(a.is_triggered());
    EXPECT_FALSE(a.has_triggered_port());
    EXPECT_FALSE(b.is_triggered());
    schedule.run();

    EXPECT_EQ(runs_, (Runs{"a!", "b"}));
}

TEST_F(ScheduleTest, FinishesTheRunInWhichABlockWantsToEnd)
{
    Counter& a = add("a");
    Counter& b = add("b");
    connect(a, b);
    Schedule schedule(graph_);
    a.goes_on = false;
    a.fire();

    EXPECT_FALSE(schedule.run());

    EXPECT_EQ(runs_, (Runs{"a!", "b"}));
}

TEST_F(ScheduleTest, WiresPortsOfAssignableTypes)
{
    Counter& a = add("a", "int", "/prefix/number/whole");
    Counter& b = add("b", "/prefix/number/any", "int");
    connect(a, b);

    EXPECT_EQ(names(Schedule(graph_)), (Runs{"a", "b"}));
}

TEST_F(ScheduleTest, RefusesPortsWhoseTypesDoNotFit)
{
    Counter& a = add("a", "int", "int");
    Counter& b = add("b", "double", "int");
    connect(a, b);

    expect_throw<std::runtime_error>([&] { Schedule schedule(graph_); },
                                     "a.out (int) does not fit b.in (double)");
}

TEST_F(ScheduleTest, RefusesACircle)
{
    Counter& a = add("a");
    Counter& b = add("b");
    connect(a, b);
    connect(b, a);

    expect_throw<std::runtime_error>([&] { Schedule schedule(graph_); },
                                     "the connections make a circle");
}

TEST_F(ScheduleTest, RefusesAConnectionOutOfTheGraph)
{
    Counter& a = add("a");
    const Counter outside("outside", runs_);
    connect(a, outside);

    expect_throw<std::runtime_error>([&] { Schedule schedule(graph_); },
                                     "a connection leads out of the graph to outside");
}

}  // namespace
