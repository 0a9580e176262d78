#include "quorval/block.h"

#include <quorval/pstore.h>
#include "fake_updater.h"
#include "runtime_tools.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Connection;
using Quorval::Container;
using Quorval::Datatype;
using Quorval::DBusMeta;
using Quorval::EventPort;
using Quorval::FDEvent;
using Quorval::FdPort;
using Quorval::InPortInternal;
using Quorval::InPortProvider;
using Quorval::OutPort;
using Quorval::OutPortInternal;
using Quorval::RuntimeTools;
using quorval_test::expect_throw;
using quorval_test::LogLine;
using quorval_test::LogRecorder;
using quorval_test::NoDescriptors;
using quorval_test::open_descriptors;
using Info = std::unordered_map<std::string, Datatype>;

constexpr FDEvent::EventMask kReadable{true, false};
constexpr FDEvent::EventMask kBoth{true, true};

static_assert(std::is_base_of_v<Container, Block>);
static_assert(std::is_abstract_v<Container> && !std::is_abstract_v<Block>);
static_assert(!std::is_copy_constructible_v<Block> && !std::is_move_constructible_v<Block>);
static_assert(!std::is_copy_assignable_v<Block> && !std::is_move_assignable_v<Block>);
static_assert(sizeof(Block) == 2 * sizeof(void*), "virtual table and record");
static_assert(
    std::is_same_v<Connection, std::tuple<Block const&, std::string, Block const&, std::string>>);
static_assert(std::is_same_v<decltype(std::declval<Container&>().get_connections()),
                             std::vector<Connection>>);
static_assert(
    std::is_same_v<decltype(std::declval<Container&>().get_blocks()), std::vector<Block*>>);

int answer(sd_bus_message* /*message*/, void* /*userdata*/, sd_bus_error* /*error*/)
{
    return 0;
}

// Without their start, which would take the library of systemd: nobody reads the tables here.
const sd_bus_vtable kTable[] = {SD_BUS_METHOD("Answer", "s", "s", answer, 0), SD_BUS_VTABLE_END};
const sd_bus_vtable kOtherTable[] = {SD_BUS_VTABLE_END};

std::unique_ptr<InPortInternal> make_inport(const std::string& name, const char* type = "int")
{
    return std::make_unique<InPortInternal>(name, Datatype(type), true);
}

std::unique_ptr<OutPort<int>> make_outport(const std::string& name, const char* type = "int")
{
    return std::make_unique<OutPort<int>>(name, Datatype(type));
}

std::unique_ptr<FdPort> make_fdport(const std::string& name, const char* type = "socket")
{
    return std::make_unique<FdPort>(name, Datatype(type), 0, kReadable, true);
}

/// Counts the destructions of ports of the kind Base.
template <class Base>
class Told : public Base {
public:
    template <class... Arguments>
    explicit Told(int& destroyed, Arguments&&... arguments)
        : Base(std::forward<Arguments>(arguments)...), destroyed_(destroyed)
    {
    }
    ~Told() override { ++destroyed_; }

private:
    int& destroyed_;
};

/// A block that reconfigures itself by a function of the test.
class Reconfigured : public Block {
public:
    using Function = std::function<void(const BlockConfiguration&, const BlockConfiguration&)>;

    Reconfigured(Function function, const BlockConfiguration& config = {})
        : Block("gain", config), function_(std::move(function))
    {
    }

    void reconfigure(const BlockConfiguration& merged, const BlockConfiguration& override) override
    {
        function_(merged, override);
    }

private:
    Function function_;
};

const LogLine kWarning = {LOGLEVEL_WARNING,
                          "Block gain possibly did not consume all of (Re-)Configuration\n", 62};

// --- Construction ---------------------------------------------------------------------------

TEST(BlockConstruction, MakesAnEmptyBlock)
{
    Block block("gain");

    EXPECT_EQ(block.get_name(), "gain");
    EXPECT_EQ(block.pstore().get_path(), "");
    EXPECT_EQ(block.get_inports_info(), Info{});
    EXPECT_EQ(block.get_outports_info(), Info{});
    EXPECT_EQ(block.get_fdports_info(), Info{});
    EXPECT_TRUE(block.get_fdports().empty());
    EXPECT_TRUE(block.get_fdport_names().empty());
    EXPECT_TRUE(block.get_dbus_meta().empty());
    EXPECT_FALSE(block.has_triggered_port());
    EXPECT_FALSE(block.has_external_port());
    EXPECT_FALSE(block.has_external_trigger());
}

TEST(BlockConstruction, TakesThePathOfTheStoreFromTheConfiguration)
{
    const BlockConfiguration config{{"pstore_path", "/var/lib/gain/"}};

    Block block("gain", config);

    EXPECT_EQ(block.pstore().get_path(), "/var/lib/gain/");
    EXPECT_TRUE(config.is_consumed());
}

TEST(BlockConstruction, ReadsNothingButThePathOfTheStore)
{
    const BlockConfiguration config{{"pstore_path", "/x/"}, {"factor", 2}};

    const Block block("gain", config);

    EXPECT_FALSE(config.is_consumed());
    config.getInt("factor");
    EXPECT_TRUE(config.is_consumed());
}

TEST(BlockConstruction, LeavesTheStoreWithoutAPathWhenNoneIsGiven)
{
    Block block("gain", BlockConfiguration{{"factor", 2}});

    EXPECT_EQ(block.pstore().get_path(), "");
}

TEST(BlockConstruction, RefusesAStorePathThatIsNoString)
{
    const BlockConfiguration config{{"pstore_path", 5}};

    expect_throw<std::runtime_error>(
        [&] { Block block("gain", config); },
        "BlockConfiguration::getString failed, the parameter 'pstore_path' is type: int");
    EXPECT_FALSE(config.is_consumed());
}

TEST(BlockConstruction, LogsNothing)
{
    const LogRecorder log;
    const BlockConfiguration config{{"factor", 2}};

    Block block("gain", config);
    block.setup(config);

    EXPECT_EQ(log.lines(), std::vector<LogLine>{});
}

TEST(BlockConstruction, KeepsACopyOfTheConfiguration)
{
    BlockConfiguration config{{"factor", 2}};
    BlockConfiguration seen;
    Reconfigured block([&](const auto& merged, const auto&) { seen = merged; }, config);
    config.set("factor", 3);

    block.override_config({});

    EXPECT_EQ(seen, (BlockConfiguration{{"factor", 2}}));
}

TEST(BlockName, CanBeReplaced)
{
    Block block("gain");

    block.set_name("");
    EXPECT_EQ(block.get_name(), "");
    block.set_name(std::string(1000, 'x'));
    EXPECT_EQ(block.get_name(), std::string(1000, 'x'));
}

TEST(BlockName, IsHandedOutByReference)
{
    const Block block("gain");

    EXPECT_EQ(&block.get_name(), &block.get_name());
}

TEST(BlockName, MayBeTheBlocksOwn)
{
    Block block("gain");

    block.set_name(block.get_name());

    EXPECT_EQ(block.get_name(), "gain");
}

// --- Life cycle -----------------------------------------------------------------------------

TEST(BlockLifeCycle, DoesNothingByDefault)
{
    const BlockConfiguration config{{"factor", 2}};
    Block block("gain", config);

    const BlockConfiguration returned = block.setup(config);
    block.start();
    block.reconfigure(config, config);
    block.stop();

    EXPECT_EQ(returned, BlockConfiguration());
    EXPECT_TRUE(block.run());
    EXPECT_FALSE(config.is_consumed());
}

TEST(BlockLifeCycle, StandsForItselfAmongBlocks)
{
    Block block("gain");

    EXPECT_EQ(block.get_blocks(), std::vector<Block*>{&block});
    EXPECT_EQ(block.get_connections().size(), 0U);
}

// --- Inputs and outputs ---------------------------------------------------------------------

TEST(BlockInports, AreOwnedAndFoundByName)
{
    Block block("gain");
    auto port = make_inport("in");
    InPortProvider* const raw = port.get();

    InPortProvider* const added = block.add_inport(std::move(port));
    const auto found = block.get_inport("in");

    EXPECT_EQ(added, raw);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(&found[0].first, &block);
    EXPECT_EQ(&found[0].second, raw);
}

TEST(BlockInports, AreRefusedWhenTheNameIsTaken)
{
    Block block("gain");
    InPortProvider* const first = block.add_inport(make_inport("in", "int"));
    int destroyed = 0;

    expect_throw<std::runtime_error>(
        [&] {
            block.add_inport(
                std::make_unique<Told<InPortInternal>>(destroyed, "in", Datatype("double"), true));
        },
        "Failed to add inport 'in', probably duplicate.");

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(&block.get_inport("in")[0].second, first);
    EXPECT_EQ(block.get_inports_info(), (Info{{"in", Datatype("int")}}));
}

TEST(BlockInports, AreRefusedWhenNull)
{
    Block block("gain");

    expect_throw<std::invalid_argument>([&] { block.add_inport(nullptr); },
                                        "Failed to add inport due to nullptr input.");

    EXPECT_EQ(block.get_inports_info(), Info{});
}

TEST(BlockInports, ThrowForAnUnknownNameAndNameTheBlock)
{
    Block block("gain");
    block.add_inport(make_inport("in"));
    block.add_outport(make_outport("out"));

    for (const std::string name : {"", "i", "in2", "out"}) {
        expect_throw<std::out_of_range>([&] { block.get_inport(name); },
                                        "The InPort " + name + " does not exist in block gain");
    }
    block.set_name("renamed");
    expect_throw<std::out_of_range>([&] { block.get_inport("x"); },
                                    "The InPort x does not exist in block renamed");
}

TEST(BlockOutports, AreOwnedAndFoundByName)
{
    Block block("gain");
    auto port = make_outport("out");
    OutPortInternal* const raw = port.get();

    OutPortInternal* const added = block.add_outport(std::move(port));
    const auto found = block.get_outport("out");

    EXPECT_EQ(added, raw);
    EXPECT_EQ(&found.first, &block);
    EXPECT_EQ(&found.second, raw);
}

TEST(BlockOutports, AreRefusedWhenTheNameIsTaken)
{
    Block block("gain");
    OutPortInternal* const first = block.add_outport(make_outport("out", "int"));
    int destroyed = 0;

    expect_throw<std::runtime_error>(
        [&] {
            block.add_outport(
                std::make_unique<Told<OutPortInternal>>(destroyed, "out", Datatype("double")));
        },
        "Failed to add outport 'out', probably duplicate.");

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(&block.get_outport("out").second, first);
    EXPECT_EQ(block.get_outports_info(), (Info{{"out", Datatype("int")}}));
}

TEST(BlockOutports, AreRefusedWhenNull)
{
    Block block("gain");

    expect_throw<std::invalid_argument>([&] { block.add_outport(nullptr); },
                                        "Failed to add outport due to nullptr input.");

    EXPECT_EQ(block.get_outports_info(), Info{});
}

TEST(BlockOutports, ThrowForAnUnknownNameAndNameTheBlock)
{
    Block block("gain");
    block.add_outport(make_outport("out"));
    block.add_inport(make_inport("in"));

    for (const std::string name : {"", "ou", "out2", "in"}) {
        expect_throw<std::out_of_range>([&] { block.get_outport(name); },
                                        "The OutPort " + name + " does not exist in block gain");
    }
}

TEST(BlockPorts, OfDifferentKindsMayShareAName)
{
    Block block("gain");

    block.add_inport(make_inport("x", "in"));
    block.add_outport(make_outport("x", "out"));
    block.add_fdport(make_fdport("x", "fd"));

    EXPECT_EQ(block.get_inports_info(), (Info{{"x", Datatype("in")}}));
    EXPECT_EQ(block.get_outports_info(), (Info{{"x", Datatype("out")}}));
    EXPECT_EQ(block.get_fdports_info(), (Info{{"x", Datatype("fd")}}));
}

TEST(BlockPorts, AreAllListedWithTheirTypes)
{
    Block block("gain");
    Info expected;
    for (const std::string name : {"m", "a", "", "z", "10", "9", "b c"}) {
        const std::string type = "t" + std::to_string(name.size());
        block.add_inport(make_inport(name, type.c_str()));
        block.add_outport(make_outport(name, type.c_str()));
        block.add_fdport(make_fdport(name, type.c_str()));
        expected.emplace(name, Datatype(type));
    }

    EXPECT_EQ(block.get_inports_info(), expected);
    EXPECT_EQ(block.get_outports_info(), expected);
    EXPECT_EQ(block.get_fdports_info(), expected);
    for (const auto& [name, type] : expected) {
        EXPECT_EQ(block.get_inport(name)[0].second.get_name(), name);
        EXPECT_EQ(block.get_outport(name).second.get_name(), name);
        EXPECT_EQ(block.get_fdport(name)->get_name(), name);
    }
}

TEST(BlockPorts, StayWhereTheyAreWhenOthersAreAdded)
{
    Block block("gain");
    std::vector<InPortProvider*> added;
    for (int i = 0; i < 300; ++i) {
        added.push_back(block.add_inport(make_inport("port" + std::to_string(i * 7 % 300))));
    }

    for (InPortProvider* port : added) {
        EXPECT_EQ(&block.get_inport(port->get_name())[0].second, port);
    }
}

/// A port of the kind Base that can change its name.
template <class Base>
class Renamed : public Base {
public:
    using Base::Base;

    void rename(const std::string& name) { this->name_ = name; }
};

TEST(BlockPorts, StayUnderTheNameThatTheyHadWhenTheyWereAdded)
{
    Block block("gain");
    auto& input = static_cast<Renamed<InPortInternal>&>(
        *block.add_inport(std::make_unique<Renamed<InPortInternal>>("m", Datatype("int"), true)));
    auto& output = static_cast<Renamed<OutPort<int>>&>(
        *block.add_outport(std::make_unique<Renamed<OutPort<int>>>("m", Datatype("int"))));
    for (const char* name : {"a", "c"}) {
        block.add_inport(make_inport(name));
        block.add_outport(make_outport(name));
    }

    input.rename("0");
    output.rename("0");

    EXPECT_EQ(&block.get_inport("m")[0].second, &input);
    EXPECT_EQ(&block.get_outport("m").second, &output);
    for (const std::string name : {"a", "c"}) {
        EXPECT_EQ(block.get_inport(name)[0].second.get_name(), name);
        EXPECT_EQ(block.get_outport(name).second.get_name(), name);
        expect_throw<std::runtime_error>(
            [&] { block.add_inport(make_inport(name)); },
            "Failed to add inport '" + name + "', probably duplicate.");
    }
    expect_throw<std::out_of_range>([&] { block.get_inport("0"); },
                                    "The InPort 0 does not exist in block gain");
    const Info info{{"a", Datatype("int")}, {"c", Datatype("int")}, {"m", Datatype("int")}};
    EXPECT_EQ(block.get_inports_info(), info);
    EXPECT_EQ(block.get_outports_info(), info);
}

TEST(BlockPorts, GiveTheNameOfARenamedOneToNoOther)
{
    Block block("gain");
    auto& port = static_cast<Renamed<InPortInternal>&>(
        *block.add_inport(std::make_unique<Renamed<InPortInternal>>("a", Datatype("int"), true)));

    port.rename("b");

    expect_throw<std::runtime_error>([&] { block.add_inport(make_inport("a")); },
                                     "Failed to add inport 'a', probably duplicate.");
    block.add_inport(make_inport("b"));
    EXPECT_EQ(&block.get_inport("a")[0].second, &port);
    EXPECT_NE(&block.get_inport("b")[0].second, &port);
}

TEST(BlockPorts, AreDestroyedWithTheBlock)
{
    int destroyed = 0;
    auto block = std::make_unique<Block>("gain");
    block->add_inport(
        std::make_unique<Told<InPortInternal>>(destroyed, "p", Datatype("int"), true));
    block->add_outport(std::make_unique<Told<OutPortInternal>>(destroyed, "p", Datatype("int")));
    block->add_fdport(
        std::make_unique<Told<FdPort>>(destroyed, "p", Datatype("int"), 0, kReadable, true));

    block.reset();

    EXPECT_EQ(destroyed, 3);
}

/// An output that counts how often it is asked.
class AskedPort : public OutPortInternal {
public:
    AskedPort(const std::string& name, bool answer, int& questions)
        : OutPortInternal(name, Datatype("int")), answer_(answer), questions_(questions)
    {
    }

    bool is_triggered() const override
    {
        ++questions_;
        return answer_;
    }

private:
    bool answer_;
    int& questions_;
};

TEST(BlockHasTriggeredPort, FindsATriggeredOutputAmongMany)
{
    Block block("gain");
    std::vector<OutPort<int>*> ports;
    for (const char* name : {"a", "b", "c"}) {
        ports.push_back(static_cast<OutPort<int>*>(block.add_outport(make_outport(name))));
    }
    EXPECT_FALSE(block.has_triggered_port());

    for (OutPort<int>* port : ports) {
        port->trigger();
        EXPECT_TRUE(block.has_triggered_port()) << port->get_name();
        port->reset(false);
        EXPECT_FALSE(block.has_triggered_port()) << port->get_name();
    }
}

TEST(BlockHasTriggeredPort, StopsAtTheFirst)
{
    Block block("gain");
    int questions = 0;
    block.add_outport(std::make_unique<AskedPort>("a", true, questions));
    block.add_outport(std::make_unique<AskedPort>("b", true, questions));

    EXPECT_TRUE(block.has_triggered_port());

    EXPECT_EQ(questions, 1);
}

TEST(BlockHasTriggeredPort, AsksEachOutputOnce)
{
    Block block("gain");
    int questions = 0;
    block.add_outport(std::make_unique<AskedPort>("a", false, questions));
    block.add_outport(std::make_unique<AskedPort>("b", false, questions));

    EXPECT_FALSE(block.has_triggered_port());

    EXPECT_EQ(questions, 2);
}

TEST(BlockHasTriggeredPort, LooksAtOutputsAlone)
{
    Block block("gain");
    OutPort<int> source("out", Datatype("int"));
    source.trigger();
    static_cast<InPortInternal*>(block.add_inport(make_inport("in")))->update(source);
    block.add_fdport(make_fdport("fd"))->trigger(true, true);

    EXPECT_FALSE(block.has_triggered_port());
}

/// Records the resets of ports of the kind Base.
template <class Base>
class ResetPort : public Base {
public:
    template <class... Arguments>
    explicit ResetPort(std::vector<bool>& resets, Arguments&&... arguments)
        : Base(std::forward<Arguments>(arguments)...), resets_(resets)
    {
    }

    void reset(bool force) override { resets_.push_back(force); }

private:
    std::vector<bool>& resets_;
};

TEST(BlockReset, ReachesEveryInputAndNothingElse)
{
    Block block("gain");
    std::vector<bool> inputs;
    std::vector<bool> others;
    for (const char* name : {"a", "b"}) {
        block.add_inport(
            std::make_unique<ResetPort<InPortInternal>>(inputs, name, Datatype("int"), true));
        block.add_outport(
            std::make_unique<ResetPort<OutPortInternal>>(others, name, Datatype("int")));
        block.add_fdport(
            std::make_unique<ResetPort<FdPort>>(others, name, Datatype("int"), 0, kReadable, true));
    }

    block.reset_inports(false);
    block.reset_inports(true);

    EXPECT_EQ(inputs, (std::vector<bool>{false, false, true, true}));
    EXPECT_EQ(others, std::vector<bool>{});
}

TEST(BlockReset, ReachesEveryDescriptorPortAndNothingElse)
{
    Block block("gain");
    std::vector<bool> descriptors;
    std::vector<bool> others;
    for (const char* name : {"a", "b"}) {
        block.add_inport(
            std::make_unique<ResetPort<InPortInternal>>(others, name, Datatype("int"), true));
        block.add_outport(
            std::make_unique<ResetPort<OutPortInternal>>(others, name, Datatype("int")));
        block.add_fdport(std::make_unique<ResetPort<FdPort>>(descriptors, name, Datatype("int"), 0,
                                                             kReadable, true));
    }

    block.reset_fdports(true);
    block.reset_fdports(false);

    EXPECT_EQ(descriptors, (std::vector<bool>{true, true, false, false}));
    EXPECT_EQ(others, std::vector<bool>{});
}

/// A port of the kind Base that calls a function of the test when it is reset.
template <class Base>
class CallingPort : public Base {
public:
    template <class... Arguments>
    explicit CallingPort(std::function<void()> call, Arguments&&... arguments)
        : Base(std::forward<Arguments>(arguments)...), call_(std::move(call))
    {
    }

    void reset(bool /*force*/) override { call_(); }

private:
    std::function<void()> call_;
};

TEST(BlockReset, ReachesEachPresentPortOnceWhenOneAddsOthers)
{
    Block block("gain");
    std::vector<bool> present;
    std::vector<bool> added;
    const auto add_recorded = [&block](const std::string& name, std::vector<bool>& resets) {
        block.add_inport(
            std::make_unique<ResetPort<InPortInternal>>(resets, name, Datatype("int"), true));
        block.add_fdport(
            std::make_unique<ResetPort<FdPort>>(resets, name, Datatype("int"), 0, kReadable, true));
    };
    int calls = 0;
    const auto add_many = [&] {
        ++calls;
        for (int i = 0; i < 100; ++i) {
            add_recorded(std::to_string(calls) + "." + std::to_string(i), added);
            add_recorded("z" + std::to_string(calls) + "." + std::to_string(i), added);
        }
    };
    add_recorded("a", present);
    block.add_inport(
        std::make_unique<CallingPort<InPortInternal>>(add_many, "m", Datatype("int"), true));
    block.add_fdport(
        std::make_unique<CallingPort<FdPort>>(add_many, "m", Datatype("int"), 0, kReadable, true));
    add_recorded("n", present);

    block.reset_inports(false);
    EXPECT_EQ(present, (std::vector<bool>{false, false}));
    EXPECT_EQ(added, std::vector<bool>{});

    block.reset_fdports(true);
    EXPECT_EQ(present, (std::vector<bool>{false, false, true, true}));
    EXPECT_EQ(added, std::vector<bool>(200, true));  // those that reset_inports() added
    EXPECT_EQ(calls, 2);
}

TEST(BlockReset, LeavesLastingInputsTriggeredWithoutForce)
{
    Block block("gain");
    OutPort<int> source("out", Datatype("int"));
    source.trigger();
    auto* lasting = static_cast<InPortInternal*>(
        block.add_inport(std::make_unique<InPortInternal>("in", Datatype("int"), false)));
    lasting->update(source);

    block.reset_inports(false);
    EXPECT_TRUE(lasting->is_triggered());
    block.reset_inports(true);
    EXPECT_FALSE(lasting->is_triggered());
}

TEST(BlockReset, DoesNothingWithoutPorts)
{
    Block block("gain");

    EXPECT_NO_THROW(block.reset_inports(true));
    EXPECT_NO_THROW(block.reset_fdports(true));
}

// --- Descriptor ports -----------------------------------------------------------------------

TEST(BlockFdPorts, AreOwnedAndFoundByName)
{
    Block block("gain");
    auto port = make_fdport("fd");
    FdPort* const raw = port.get();

    EXPECT_EQ(block.add_fdport(std::move(port)), raw);

    EXPECT_EQ(block.get_fdport("fd"), raw);
    EXPECT_EQ(block.get_fdports(), std::vector<FdPort*>{raw});
    EXPECT_EQ(block.get_fdport_names(), std::vector<std::string>{"fd"});
}

TEST(BlockFdPorts, AreRefusedWhenTheNameIsTaken)
{
    Block block("gain");
    FdPort* const first = block.add_fdport(make_fdport("fd"));
    int destroyed = 0;

    expect_throw<std::runtime_error>(
        [&] {
            block.add_fdport(std::make_unique<Told<FdPort>>(destroyed, "fd", Datatype("int"), 0,
                                                            kReadable, true));
        },
        "Failed to add fdport 'fd', probably duplicate.");

    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(block.get_fdports(), std::vector<FdPort*>{first});
}

TEST(BlockFdPorts, AreRefusedWhenNull)
{
    Block block("gain");

    expect_throw<std::invalid_argument>([&] { block.add_fdport(nullptr); },
                                        "Failed to add fdport due to nullptr input.");

    EXPECT_FALSE(block.has_external_port());
}

TEST(BlockFdPorts, ThrowsTheTextOfTheStandardMapForAnUnknownName)
{
    Block block("gain");
    block.add_fdport(make_fdport("fd"));

    expect_throw<std::out_of_range>([&] { block.get_fdport("x"); }, "unordered_map::at");
    expect_throw<std::out_of_range>([&] { block.get_fdport(""); }, "unordered_map::at");
}

TEST(BlockFdPorts, ListPortsAndNamesInTheSameOrder)
{
    Block block("gain");
    for (const char* name : {"m", "a", "z", "b"}) {
        block.add_fdport(make_fdport(name));
    }

    const auto ports = block.get_fdports();
    const auto names = block.get_fdport_names();

    ASSERT_EQ(ports.size(), 4U);
    ASSERT_EQ(names.size(), 4U);
    for (std::size_t i = 0; i < ports.size(); ++i) {
        EXPECT_EQ(ports[i]->get_name(), names[i]);
    }
    EXPECT_TRUE(std::is_permutation(names.begin(), names.end(),
                                    std::vector<std::string>{"a", "b", "m", "z"}.begin()));
}

TEST(BlockFdPorts, StayUnderTheNameThatTheyHadWhenTheyWereAdded)
{
    Block block("gain");
    auto& port = static_cast<Renamed<FdPort>&>(*block.add_fdport(
        std::make_unique<Renamed<FdPort>>("m", Datatype("socket"), 0, kReadable, true)));
    FdPort* const other = block.add_fdport(make_fdport("c"));

    port.rename("a");

    EXPECT_EQ(block.get_fdport("m"), &port);
    EXPECT_EQ(block.get_fdport("c"), other);
    EXPECT_EQ(block.get_fdport_names(), (std::vector<std::string>{"c", "m"}));
    EXPECT_EQ(block.get_fdports(), (std::vector<FdPort*>{other, &port}));
    EXPECT_EQ(block.get_fdports_info(),
              (Info{{"c", Datatype("socket")}, {"m", Datatype("socket")}}));
}

TEST(BlockFdPorts, AreListedInSnapshots)
{
    Block block("gain");
    const auto before = block.get_fdports();

    block.add_fdport(make_fdport("fd"));

    EXPECT_TRUE(before.empty());
    EXPECT_EQ(block.get_fdports().size(), 1U);
}

TEST(BlockFdPorts, TakeTheBlockOutOfTheEventLoopWhenItGoes)
{
    quorval_test::FakeUpdater updater;
    auto block = std::make_unique<Block>("gain");
    FdPort* const port = block->make_fdport("fd", 5, kReadable);
    port->set_event(std::make_unique<FDEvent>(5, kReadable, nullptr, updater));

    block.reset();

    EXPECT_EQ(updater.calls, std::vector<std::string>{"remove 5 r-"});
}

TEST(BlockMakeFdport, MakesAnAutomaticallyResettingPort)
{
    Block block("gain");

    FdPort* const port = block.make_fdport("fd", 5, kBoth);

    EXPECT_EQ(block.get_fdport("fd"), port);
    EXPECT_EQ(typeid(*port), typeid(FdPort));
    EXPECT_EQ(port->get_name(), "fd");
    EXPECT_EQ(port->get_datatype(), Datatype("extfd"));
    EXPECT_EQ(port->get_fd(), 5);
    EXPECT_EQ(port->get_eventmask(), kBoth);
    port->trigger(true, true);
    port->reset(false);
    EXPECT_FALSE(port->is_triggered());
}

TEST(BlockMakeFdport, RefusesANegativeDescriptor)
{
    Block block("gain");

    expect_throw<std::runtime_error>([&] { block.make_fdport("fd", -1, kReadable); },
                                     "Invalid fd supplied");

    EXPECT_FALSE(block.has_external_port());
}

TEST(BlockMakeFdport, RefusesATakenNameAndLeavesTheDescriptorOpen)
{
    Block block("gain");
    const int fd = ::open("/dev/null", O_RDONLY);
    FdPort* const first = block.make_fdport("fd", 0, kReadable);

    expect_throw<std::runtime_error>([&] { block.make_fdport("fd", fd, kReadable); },
                                     "Failed to add fdport 'fd', probably duplicate.");

    EXPECT_EQ(block.get_fdports(), std::vector<FdPort*>{first});
    EXPECT_EQ(::close(fd), 0);
}

TEST(BlockMakeFdport, ChecksTheDescriptorBeforeTheName)
{
    Block block("gain");
    block.make_fdport("fd", 0, kReadable);

    expect_throw<std::runtime_error>([&] { block.make_fdport("fd", -1, kReadable); },
                                     "Invalid fd supplied");
}

bool is_ready_to_read(int fd)
{
    pollfd request{fd, POLLIN, 0};
    return ::poll(&request, 1, 0) == 1;
}

TEST(BlockMakeEventport, MakesAPortOnANewEventDescriptor)
{
    Block block("gain");

    FdPort* const port = block.make_eventport("wake");

    EXPECT_EQ(block.get_fdport("wake"), port);
    EXPECT_EQ(typeid(*port), typeid(EventPort));
    EXPECT_EQ(port->get_datatype(), Datatype("extfd"));
    EXPECT_EQ(port->get_eventmask(), kReadable);
    EXPECT_FALSE(is_ready_to_read(port->get_fd()));
    dynamic_cast<EventPort&>(*port).fire();
    EXPECT_TRUE(is_ready_to_read(port->get_fd()));
}

TEST(BlockMakeEventport, MakesABlockingDescriptorWithoutFlags)
{
    Block block("gain");

    const int fd = block.make_eventport("wake")->get_fd();

    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST(BlockMakeEventport, ClosesTheDescriptorWithTheBlock)
{
    const auto before = open_descriptors();
    auto block = std::make_unique<Block>("gain");
    block->make_eventport("wake");
    block->make_eventport("sleep");
    ASSERT_EQ(open_descriptors().size(), before.size() + 2);

    block.reset();

    EXPECT_EQ(open_descriptors(), before);
}

TEST(BlockMakeEventport, RefusesATakenNameAndLeavesNoDescriptorOpen)
{
    Block block("gain");
    FdPort* const first = block.make_eventport("wake");
    const auto before = open_descriptors();

    expect_throw<std::runtime_error>([&] { block.make_eventport("wake"); },
                                     "Failed to add fdport 'wake', probably duplicate.");

    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(block.get_fdports(), std::vector<FdPort*>{first});
}

TEST(BlockMakeEventport, FailsWhenThereAreNoDescriptorsLeft)
{
    // One without a descriptor first, and what is thrown is looked at later: the sanitizer takes
    // descriptors of its own to look at objects of a class that it has not met before.
    EXPECT_THROW(EventPort("wake", true, -1), std::runtime_error);
    Block block("gain");
    const auto before = open_descriptors();

    std::exception_ptr error;
    {
        const NoDescriptors none;
        try {
            block.make_eventport("wake");
        } catch (...) {
            error = std::current_exception();
        }
    }

    expect_throw<std::runtime_error>([&] { std::rethrow_exception(error); }, "Invalid fd supplied");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(block.has_external_port());
    EXPECT_NO_THROW(block.make_eventport("wake"));
}

TEST(BlockMakeEventport, IsDrainedByAResetOfTheBlock)
{
    Block block("gain");
    auto& port = dynamic_cast<EventPort&>(*block.make_eventport("wake"));
    port.fire();
    port.fire();
    port.trigger(true, false);

    block.reset_fdports(false);

    EXPECT_FALSE(port.is_triggered());
    EXPECT_FALSE(is_ready_to_read(port.get_fd()));
}

// --- What drives a block --------------------------------------------------------------------

TEST(BlockExternal, PortsMakeAnExternalTrigger)
{
    Block block("gain");
    block.add_inport(make_inport("in"));
    block.add_outport(make_outport("out"));
    EXPECT_FALSE(block.has_external_port());
    EXPECT_FALSE(block.has_external_trigger());

    block.add_fdport(make_fdport("fd"));

    EXPECT_TRUE(block.has_external_port());
    EXPECT_TRUE(block.has_external_trigger());
}

TEST(BlockExternal, ObjectsMakeAnExternalTriggerWithoutAPort)
{
    Block block("gain");

    block.add_dbus("/gain", "gain.Control", kTable, nullptr);

    EXPECT_FALSE(block.has_external_port());
    EXPECT_TRUE(block.has_external_trigger());
}

// --- Services -------------------------------------------------------------------------------

TEST(BlockTools, AreHandedOutWhileAttached)
{
    Block block("gain");
    auto tools = std::make_shared<RuntimeTools>();

    block.set_tools(tools);

    EXPECT_EQ(&block.get_tools(), tools.get());
    EXPECT_EQ(tools.use_count(), 2);
}

TEST(BlockTools, AreMissingUntilAttachedAndAfterDetaching)
{
    Block block("gain");
    auto tools = std::make_shared<RuntimeTools>();

    expect_throw<std::runtime_error>([&] { block.get_tools(); }, "gain has no RuntimeTools set");
    block.set_tools(tools);
    block.set_tools(nullptr);
    block.set_name("");

    expect_throw<std::runtime_error>([&] { block.get_tools(); }, " has no RuntimeTools set");
    EXPECT_EQ(tools.use_count(), 1);
}

TEST(BlockTools, AreLetGoWhenReplacedAndWithTheBlock)
{
    auto first = std::make_shared<RuntimeTools>();
    auto second = std::make_shared<RuntimeTools>();
    {
        Block block("gain");
        block.set_tools(first);

        block.set_tools(second);

        EXPECT_EQ(first.use_count(), 1);
        EXPECT_EQ(&block.get_tools(), second.get());
    }
    EXPECT_EQ(second.use_count(), 1);
}

TEST(BlockDbus, RecordsAnObject)
{
    Block block("gain");
    int userdata = 0;

    block.add_dbus("/gain", "gain.Control", kTable, &userdata);

    const std::vector<DBusMeta*> records = block.get_dbus_meta();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0]->path, "/gain");
    EXPECT_EQ(records[0]->interface, "gain.Control");
    EXPECT_EQ(records[0]->userdata, &userdata);
    EXPECT_EQ(records[0]->vtable, kTable);
}

TEST(BlockDbus, ReplacesTheRecordOfTheSameTable)
{
    Block block("gain");
    int userdata = 0;
    block.add_dbus("/old", "gain.Old", kTable, nullptr);
    block.add_dbus("/other", "gain.Other", kOtherTable, nullptr);

    block.add_dbus("/new", "gain.New", kTable, &userdata);

    auto records = block.get_dbus_meta();
    ASSERT_EQ(records.size(), 2U);
    if (records[0]->vtable != kTable) {
        std::swap(records[0], records[1]);
    }
    EXPECT_EQ(records[0]->path, "/new");
    EXPECT_EQ(records[0]->interface, "gain.New");
    EXPECT_EQ(records[0]->userdata, &userdata);
    EXPECT_EQ(records[1]->path, "/other");
    EXPECT_EQ(records[1]->vtable, kOtherTable);
}

TEST(BlockDbus, ReplacesARecordByItsOwnTexts)
{
    Block block("gain");
    block.add_dbus("/a/path/that/is/longer/than/a/short/string", "gain.Control", kTable, nullptr);
    const DBusMeta& record = *block.get_dbus_meta()[0];

    block.add_dbus(record.path, record.interface, record.vtable, record.userdata);

    ASSERT_EQ(block.get_dbus_meta().size(), 1U);
    EXPECT_EQ(block.get_dbus_meta()[0]->path, "/a/path/that/is/longer/than/a/short/string");
}

TEST(BlockDbus, FindsARecordByTheTableThatItWasAddedFor)
{
    Block block("gain");
    block.add_dbus("/gain", "gain.Control", kTable, nullptr);
    block.get_dbus_meta()[0]->vtable = kOtherTable;

    block.add_dbus("/other", "gain.Other", kOtherTable, nullptr);
    block.add_dbus("/new", "gain.New", kTable, nullptr);

    const std::vector<DBusMeta*> records = block.get_dbus_meta();
    ASSERT_EQ(records.size(), 2U);
    const std::set<std::string> paths{records[0]->path, records[1]->path};
    EXPECT_EQ(paths, (std::set<std::string>{"/new", "/other"}));
}

TEST(BlockDbus, TakesEmptyNames)
{
    Block block("gain");

    block.add_dbus("", "", kTable, nullptr);

    EXPECT_EQ(block.get_dbus_meta().at(0)->path, "");
    EXPECT_EQ(block.get_dbus_meta().at(0)->userdata, nullptr);
}

TEST(BlockDbus, RefusesANullTableWhateverTheState)
{
    Block block("gain");

    for (const auto& tools : {std::shared_ptr<RuntimeTools>(), std::make_shared<RuntimeTools>()}) {
        block.set_tools(tools);
        expect_throw<std::runtime_error>([&] { block.add_dbus("/gain", "i", nullptr, nullptr); },
                                         "Block failed to add dbus due to nullptr vtable");
    }

    EXPECT_TRUE(block.get_dbus_meta().empty());
    EXPECT_FALSE(block.has_external_trigger());
}

TEST(BlockDbus, RefusesAnObjectWhileServicesAreAttached)
{
    Block block("gain");
    block.add_dbus("/old", "gain.Old", kTable, nullptr);
    block.set_tools(std::make_shared<RuntimeTools>());

    for (const sd_bus_vtable* table : {kTable, kOtherTable}) {
        expect_throw<std::runtime_error>(
            [&] { block.add_dbus("/new", "i", table, nullptr); },
            "Block failed to add dbus. Must be done in detached state");
    }

    ASSERT_EQ(block.get_dbus_meta().size(), 1U);
    EXPECT_EQ(block.get_dbus_meta()[0]->path, "/old");
}

TEST(BlockDbus, TakesObjectsAgainOnceDetached)
{
    Block block("gain");
    block.set_tools(std::make_shared<RuntimeTools>());
    block.set_tools(nullptr);

    block.add_dbus("/gain", "gain.Control", kTable, nullptr);

    EXPECT_EQ(block.get_dbus_meta().size(), 1U);
}

TEST(BlockStore, IsTheBlocksOwn)
{
    Block block("gain");

    block.pstore().set_path("/x/");

    EXPECT_EQ(&block.pstore(), &block.pstore());
    EXPECT_EQ(block.pstore().get_path(), "/x/");
}

// --- Reconfiguration ------------------------------------------------------------------------

TEST(BlockOverride, MergesTheOverrideOverTheConfiguration)
{
    BlockConfiguration seen_merged;
    BlockConfiguration seen_override;
    Reconfigured block(
        [&](const auto& merged, const auto& override) {
            seen_merged = merged;
            seen_override = override;
        },
        {{"a", 1}, {"b", 2}});

    block.override_config({{"b", 3}, {"c", 4}});

    EXPECT_EQ(seen_merged, (BlockConfiguration{{"a", 1}, {"b", 3}, {"c", 4}}));
    EXPECT_EQ(seen_override, (BlockConfiguration{{"b", 3}, {"c", 4}}));
}

TEST(BlockOverride, HandsOnTheCallersOverrideItself)
{
    const BlockConfiguration* seen = nullptr;
    Reconfigured block([&](const auto&, const auto& override) { seen = &override; });
    const BlockConfiguration override{{"a", 1}};

    block.override_config(override);

    EXPECT_EQ(seen, &override);
}

TEST(BlockOverride, ReconfiguresOnce)
{
    int calls = 0;
    Reconfigured block([&](const auto&, const auto&) { ++calls; });

    block.override_config({});

    EXPECT_EQ(calls, 1);
}

TEST(BlockOverride, LeavesTheKeptConfigurationAsItIs)
{
    std::vector<BlockConfiguration> seen;
    Reconfigured block([&](const auto& merged, const auto&) { seen.push_back(merged); },
                       {{"a", 1}});

    block.override_config({{"a", 2}, {"b", 3}});
    block.override_config({});

    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen[1], (BlockConfiguration{{"a", 1}}));
}

TEST(BlockOverride, WarnsOfAKeyThatNothingReads)
{
    const LogRecorder log;
    Block block("gain");

    block.override_config({{"a", 1}});

    EXPECT_EQ(log.lines(), std::vector<LogLine>{kWarning});
}

TEST(BlockOverride, WarnsOnlyWhenBothConfigurationsHaveUnreadKeys)
{
    using Configuration = const BlockConfiguration&;
    struct {
        const char* what;
        BlockConfiguration config;
        BlockConfiguration override;
        Reconfigured::Function function;
        bool warns;
    } const cases[] = {
        {"nothing at all", {}, {}, [](Configuration, Configuration) {}, false},
        {"nothing read", {{"a", 1}}, {{"b", 2}}, [](Configuration, Configuration) {}, true},
        {"nothing in the override", {{"a", 1}}, {}, [](Configuration, Configuration) {}, false},
        {"override read",
         {{"a", 1}},
         {{"b", 2}},
         [](Configuration, Configuration override) { override.getInt("b"); },
         false},
        {"merged read",
         {{"a", 1}},
         {{"b", 2}},
         [](Configuration merged, Configuration) {
             merged.getInt("a");
             merged.getInt("b");
         },
         false},
        {"merged read in part",
         {{"a", 1}},
         {{"b", 2}},
         [](Configuration merged, Configuration) { merged.getInt("b"); },
         true},
        {"override read in part",
         {},
         {{"b", 2}, {"c", 3}},
         [](Configuration, Configuration override) { override.getInt("b"); },
         true},
        {"half of each read",
         {},
         {{"b", 2}, {"c", 3}},
         [](Configuration merged, Configuration override) {
             merged.getInt("b");
             override.getInt("c");
         },
         true},
        {"type asked alone",
         {},
         {{"b", 2}},
         [](Configuration merged, Configuration) { merged.getTypeName("b"); },
         true},
        {"kept store path unread",
         {{"pstore_path", "/x/"}},
         {{"b", 2}},
         [](Configuration merged, Configuration) { merged.getInt("b"); },
         true},
        {"kept store path read",
         {{"pstore_path", "/x/"}},
         {{"b", 2}},
         [](Configuration merged, Configuration) {
             merged.getInt("b");
             merged.getString("pstore_path");
         },
         false},
    };

    for (const auto& test : cases) {
        const LogRecorder log;
        Reconfigured block(test.function, test.config);

        block.override_config(BlockConfiguration(test.override));

        EXPECT_EQ(log.lines(), test.warns ? std::vector<LogLine>{kWarning} : std::vector<LogLine>{})
            << test.what;
    }
}

TEST(BlockOverride, CountsWhatTheCallerReadBefore)
{
    const LogRecorder log;
    const BlockConfiguration config{{"a", 1}};
    config.getInt("a");
    Block block("gain", config);
    const BlockConfiguration override{{"b", 2}};
    override.getInt("b");

    block.override_config(override);
    EXPECT_EQ(log.lines(), std::vector<LogLine>{});

    block.override_config({{"b", 2}});
    EXPECT_EQ(log.lines(), std::vector<LogLine>{kWarning});
}

TEST(BlockOverride, DoesNotTakeOverWhatAnEarlierOverrideRead)
{
    const LogRecorder log;
    bool reads = true;
    Reconfigured block(
        [&](const auto& merged, const auto&) {
            if (reads) {
                merged.getInt("a");
                merged.getInt("b");
            }
        },
        {{"a", 1}});
    block.override_config({{"b", 2}});
    ASSERT_EQ(log.lines(), std::vector<LogLine>{});
    reads = false;

    block.override_config({{"b", 2}});

    EXPECT_EQ(log.lines(), std::vector<LogLine>{kWarning});
}

TEST(BlockOverride, WarnsEachTimeWithTheNameThatTheBlockHasThen)
{
    const LogRecorder log;
    Block block("gain");

    block.override_config({{"a", 1}});
    block.set_name("100%s");
    block.override_config({{"a", 1}});

    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{
                  "Block gain possibly did not consume all of (Re-)Configuration\n",
                  "Block 100%s possibly did not consume all of (Re-)Configuration\n"}));
}

TEST(BlockOverride, WarnsWithTheNameThatReconfigureGives)
{
    const LogRecorder log;
    Block* renamed = nullptr;
    Reconfigured block([&renamed](const auto&, const auto&) { renamed->set_name("louder"); });
    renamed = &block;

    block.override_config({{"a", 1}});

    EXPECT_EQ(log.texts(),
              std::vector<std::string>{
                  "Block louder possibly did not consume all of (Re-)Configuration\n"});
}

TEST(BlockOverride, PassesTheExceptionOfReconfigureOn)
{
    const LogRecorder log;
    bool fails = true;
    BlockConfiguration seen;
    Reconfigured block(
        [&](const auto& merged, const auto&) {
            if (fails) {
                throw std::logic_error("not now");
            }
            seen = merged;
        },
        {{"a", 1}});

    expect_throw<std::logic_error>([&] { block.override_config({{"a", 2}}); }, "not now");

    EXPECT_EQ(log.lines(), std::vector<LogLine>{});
    fails = false;
    block.override_config({});
    EXPECT_EQ(seen, (BlockConfiguration{{"a", 1}}));
}

// --- Threads --------------------------------------------------------------------------------

TEST(BlockThreads, MayEachHaveBlocksOfTheirOwn)
{
    auto tools = std::make_shared<RuntimeTools>();
    std::function<void()> work = [tools] {
        for (int i = 0; i < 50; ++i) {
            Block block("gain", {{"a", i}});
            block.add_inport(make_inport("in"));
            block.add_outport(make_outport("out"));
            block.make_eventport("wake");
            block.set_tools(tools);
            block.reset_fdports(true);
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(work);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    work = {};
    EXPECT_EQ(tools.use_count(), 1);
}

}  // namespace
