#include "quorval/superblock.h"

#include <quorval/pstore.h>
#include "fake_container.h"
#include "support/allocations.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Connection;
using Quorval::Container;
using Quorval::Datatype;
using Quorval::FDEvent;
using Quorval::FdPort;
using Quorval::InPort;
using Quorval::OutPort;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;
using quorval_test::expect_throw;
using quorval_test::FakeContainer;
using quorval_test::live_bytes;
using quorval_test::ToldBlock;
using Info = std::unordered_map<std::string, Datatype>;
using Inputs = FakeContainer::Inputs;
using Output = FakeContainer::Output;
using Texts = std::vector<std::string>;

static_assert(std::is_base_of_v<Container, Superblock>);
static_assert(!std::is_copy_constructible_v<Superblock> && !std::is_copy_assignable_v<Superblock>);
static_assert(!std::is_move_constructible_v<Superblock> && !std::is_move_assignable_v<Superblock>);
static_assert(sizeof(Superblock) == 2 * sizeof(void*), "virtual table and record");

UniqueDlPtr<Container> owned(std::unique_ptr<Container> container)
{
    return {nullptr, std::move(container)};
}

template <class T, class... Arguments>
T& add(Superblock& superblock, Arguments&&... arguments)
{
    return static_cast<T&>(
        superblock.add_block(owned(std::make_unique<T>(std::forward<Arguments>(arguments)...))));
}

/// A block with the inputs `in` and `in2` and the outputs `out` and `out2`.
class Filter : public Block {
public:
    explicit Filter(const std::string& name, const char* type = "int") : Block(name)
    {
        for (const char* port : {"in", "in2"}) {
            add_inport(std::make_unique<InPort<int>>(port, Datatype(type)));
        }
        for (const char* port : {"out", "out2"}) {
            add_outport(std::make_unique<OutPort<int>>(port, Datatype(type)));
        }
    }
};

std::unique_ptr<Block> with_fdport(const std::string& name, const std::string& port,
                                   const char* type)
{
    auto block = std::make_unique<Block>(name);
    block->add_fdport(
        std::make_unique<FdPort>(port, Datatype(type), 0, FDEvent::EventMask{true, false}, true));
    return block;
}

/// A connection as text: `source.out -> destination.in`.
std::string to_text(const Connection& connection)
{
    return std::get<0>(connection).get_name() + "." + std::get<1>(connection) + " -> " +
           std::get<2>(connection).get_name() + "." + std::get<3>(connection);
}

Texts connections_of(Container& container)
{
    Texts texts;
    for (const Connection& connection : container.get_connections()) {
        texts.push_back(to_text(connection));
    }
    return texts;
}

Texts blocks_of(Container& container)
{
    Texts names;
    for (const Block* block : container.get_blocks()) {
        names.push_back(block->get_name());
    }
    return names;
}

Texts inputs_of(const Container& container, const std::string& name)
{
    Texts texts;
    for (const auto& [block, port] : container.get_inport(name)) {
        texts.push_back(block.get_name() + "." + port.get_name());
    }
    return texts;
}

const std::string kNoMember = "Failed to add superblock due to nullptr input.";

// --- Construction ---------------------------------------------------------------------------

TEST(SuperblockConstruction, MakesAnEmptySuperblock)
{
    Superblock superblock("graph");

    EXPECT_EQ(superblock.get_name(), "graph");
    EXPECT_EQ(superblock.pstore().get_path(), "");
    EXPECT_TRUE(superblock.get_blocks().empty());
    EXPECT_TRUE(superblock.get_connections().empty());
    EXPECT_EQ(superblock.get_inports_info(), Info{});
    EXPECT_EQ(superblock.get_outports_info(), Info{});
    EXPECT_EQ(superblock.get_fdports_info(), Info{});
    for (const std::string name : {"", "graph", "x"}) {
        expect_throw<std::out_of_range>(
            [&] { superblock.get_inport(name); },
            "Get for unknown inport \"" + name + "\" on superblock \"graph\"");
        expect_throw<std::out_of_range>(
            [&] { superblock.get_outport(name); },
            "Get for unknown outport \"" + name + "\" on superblock \"graph\"");
        expect_throw<std::invalid_argument>(
            [&] { superblock.get_block(name); },
            "Superblock graph does not contain block of name " + name);
    }
}

TEST(SuperblockConstruction, TakesThePathOfTheStoreFromTheConfigurationAndNothingElse)
{
    const BlockConfiguration config{{"pstore_path", "/var/lib/graph/"}, {"other", 1}};

    Superblock superblock("graph", config);

    EXPECT_EQ(superblock.pstore().get_path(), "/var/lib/graph/");
    EXPECT_FALSE(config.is_consumed());
    config.getInt("other");
    EXPECT_TRUE(config.is_consumed());
}

TEST(SuperblockConstruction, LeavesTheStoreWithoutAPathWhenNoneIsGiven)
{
    Superblock superblock("graph", BlockConfiguration{{"other", 1}});

    EXPECT_EQ(superblock.get_name(), "graph");
    EXPECT_EQ(superblock.pstore().get_path(), "");
}

TEST(SuperblockConstruction, RefusesAStorePathThatIsNoString)
{
    const BlockConfiguration config{{"pstore_path", true}};

    expect_throw<std::runtime_error>(
        [&] { Superblock superblock("graph", config); },
        "BlockConfiguration::getString failed, the parameter 'pstore_path' is type: bool");
    EXPECT_FALSE(config.is_consumed());
}

TEST(SuperblockSetup, ReturnsAnEmptyConfigurationAndReadsNothing)
{
    Texts calls;
    Superblock superblock("graph");
    add<FakeContainer>(superblock, "member", calls);
    calls.clear();
    const BlockConfiguration config{{"a", 1}};

    EXPECT_EQ(superblock.setup(config), BlockConfiguration());

    EXPECT_FALSE(config.is_consumed());
    EXPECT_EQ(calls, Texts{});
}

TEST(SuperblockName, ChangesAloneWhenItIsSet)
{
    Superblock outer("outer");
    auto& inner = add<Superblock>(outer, "inner");
    add<Filter>(inner, "a");

    inner.set_name("renamed");

    EXPECT_EQ(inner.get_name(), "renamed");
    EXPECT_EQ(&outer.get_block("inner"), &inner);
    EXPECT_EQ(inner.get_block("a").get_name(), "a");
    expect_throw<std::invalid_argument>([&] { outer.get_block("renamed"); },
                                        "Superblock outer does not contain block of name renamed");
    expect_throw<std::invalid_argument>([&] { inner.get_block("x"); },
                                        "Superblock renamed does not contain block of name x");
}

TEST(SuperblockStore, IsItsOwn)
{
    Superblock superblock("graph");

    superblock.pstore().set_path("/x/");

    EXPECT_EQ(superblock.pstore().get_path(), "/x/");
}

// --- Members --------------------------------------------------------------------------------

TEST(SuperblockAddBlock, TakesAMemberUnderItsName)
{
    Superblock superblock("graph");
    auto member = std::make_unique<Filter>("a");
    Block* const raw = member.get();
    UniqueDlPtr<Container> pointer = owned(std::move(member));

    Container& added = superblock.add_block(std::move(pointer));

    EXPECT_EQ(&added, raw);
    EXPECT_EQ(&superblock.get_block("a"), raw);
    EXPECT_FALSE(pointer);
}

TEST(SuperblockAddBlock, TakesTheTupleOfALoaderAndLeavesTheConfiguration)
{
    Superblock superblock("graph");
    auto member = std::make_unique<Filter>("a");
    Block* const raw = member.get();
    std::tuple<UniqueDlPtr<Container>, BlockConfiguration> created(owned(std::move(member)),
                                                                   BlockConfiguration{{"k", 1}});

    Container& added = superblock.add_block(std::move(created));

    EXPECT_EQ(&added, raw);
    EXPECT_EQ(&superblock.get_block("a"), raw);
    EXPECT_FALSE(std::get<0>(created));
    EXPECT_EQ(std::get<1>(created), (BlockConfiguration{{"k", 1}}));
    EXPECT_FALSE(std::get<1>(created).is_consumed());
}

TEST(SuperblockAddBlock, NamesASuperblockWhenThereIsNoObject)
{
    Superblock superblock("graph");

    expect_throw<std::runtime_error>([&] { superblock.add_block(UniqueDlPtr<Container>()); },
                                     kNoMember);
    expect_throw<std::runtime_error>(
        [&] { superblock.add_block(std::tuple<UniqueDlPtr<Container>, BlockConfiguration>()); },
        kNoMember);

    EXPECT_TRUE(superblock.get_blocks().empty());
}

TEST(SuperblockAddBlock, KeepsTheFirstMemberWhenANameIsTaken)
{
    Texts events;
    Superblock superblock("graph");
    auto& first = add<ToldBlock>(superblock, "a", events);
    UniqueDlPtr<Container> second = owned(std::make_unique<ToldBlock>("a", events));

    expect_throw<std::runtime_error>(
        [&] { superblock.add_block(std::move(second)); },
        "Failed to add block: a block with the same name already exists: a");

    EXPECT_EQ(events, Texts{"destroy a"});
    EXPECT_FALSE(second);
    EXPECT_EQ(&superblock.get_block("a"), &first);
    EXPECT_EQ(superblock.get_blocks(), std::vector<Block*>{&first});
}

TEST(SuperblockAddBlock, DestroysARefusedMemberOfATupleToo)
{
    Texts events;
    Superblock superblock("graph");
    add<Filter>(superblock, "a");
    std::tuple<UniqueDlPtr<Container>, BlockConfiguration> created(
        owned(std::make_unique<ToldBlock>("a", events)), BlockConfiguration{{"k", 1}});

    expect_throw<std::runtime_error>(
        [&] { superblock.add_block(std::move(created)); },
        "Failed to add block: a block with the same name already exists: a");

    EXPECT_EQ(events, Texts{"destroy a"});
    EXPECT_FALSE(std::get<0>(created));
    EXPECT_EQ(std::get<1>(created), (BlockConfiguration{{"k", 1}}));
}

TEST(SuperblockAddBlock, TakesAnEmptyNameLikeAnyOther)
{
    Superblock superblock("graph");

    auto& member = add<Filter>(superblock, "");

    EXPECT_EQ(&superblock.get_block(""), &member);
    expect_throw<std::runtime_error>(
        [&] { add<Filter>(superblock, ""); },
        "Failed to add block: a block with the same name already exists: ");
}

TEST(SuperblockAddBlock, KeepsTheKeyOfAMemberThatIsRenamed)
{
    Superblock superblock("graph");
    auto& member = add<Filter>(superblock, "a");

    member.set_name("b");
    auto& other = add<Filter>(superblock, "b");

    EXPECT_EQ(&superblock.get_block("a"), &member);
    EXPECT_EQ(&superblock.get_block("b"), &other);
    expect_throw<std::runtime_error>(
        [&] { add<Filter>(superblock, "a"); },
        "Failed to add block: a block with the same name already exists: a");
}

TEST(SuperblockAddBlock, AsksTheMemberForItsNameAlone)
{
    Texts calls;
    Superblock superblock("graph");

    add<FakeContainer>(superblock, "a", calls);

    EXPECT_EQ(calls, Texts{"a.get_name"});
}

TEST(SuperblockAddBlock, TakesAnotherMembersNameInAnotherSuperblock)
{
    Superblock outer("outer");
    add<Filter>(outer, "a");
    auto& inner = add<Superblock>(outer, "inner");

    auto& nested = add<Filter>(inner, "a");

    EXPECT_EQ(&inner.get_block("a"), &nested);
    EXPECT_NE(&outer.get_block("a"), &nested);
}

TEST(SuperblockAddBlock, PassesOnWhatTheMemberThrows)
{
    class Nameless : public Superblock {
    public:
        using Superblock::Superblock;
        const std::string& get_name() const override { throw std::logic_error("nameless"); }
    };
    Superblock superblock("graph");
    UniqueDlPtr<Container> member = owned(std::make_unique<Nameless>("x"));

    expect_throw<std::logic_error>([&] { superblock.add_block(std::move(member)); }, "nameless");

    EXPECT_TRUE(member);
    EXPECT_TRUE(superblock.get_blocks().empty());
}

TEST(SuperblockGetBlock, FindsMembersAndNoNestedOnes)
{
    Superblock outer("outer");
    auto& inner = add<Superblock>(outer, "inner");
    add<Filter>(inner, "a");

    EXPECT_EQ(&std::as_const(outer).get_block("inner"), &inner);
    expect_throw<std::invalid_argument>([&] { outer.get_block("a"); },
                                        "Superblock outer does not contain block of name a");
}

TEST(SuperblockGetBlock, NamesTheSuperblockAsItIsCalledNow)
{
    Superblock superblock("old");
    superblock.set_name("new");

    expect_throw<std::invalid_argument>([&] { superblock.get_block("a"); },
                                        "Superblock new does not contain block of name a");
}

/// A superblock that gives itself a name.
class Named : public Superblock {
public:
    using Superblock::Superblock;

    const std::string& get_name() const override { return shown_; }

private:
    std::string shown_ = "shown";
};

TEST(SuperblockGetBlock, NamesADerivedSuperblockAsItCallsItself)
{
    const Named superblock("kept");

    expect_throw<std::invalid_argument>([&] { superblock.get_block("a"); },
                                        "Superblock shown does not contain block of name a");
}

TEST(SuperblockDestruction, DestroysMembersFromTheLastNameToTheFirst)
{
    Texts events;
    {
        Superblock superblock("graph");
        for (const char* name : {"b", "10", "a", "2", "B", "\xc3\xa4"}) {
            add<ToldBlock>(superblock, name, events);
        }
    }
    EXPECT_EQ(events, (Texts{"destroy \xc3\xa4", "destroy b", "destroy a", "destroy B", "destroy 2",
                             "destroy 10"}));
}

TEST(SuperblockDestruction, GoesByTheKeysAndNotByTheNames)
{
    Texts events;
    {
        Superblock superblock("graph");
        auto& first = add<ToldBlock>(superblock, "a", events);
        add<ToldBlock>(superblock, "b", events);
        first.set_name("z");
    }
    EXPECT_EQ(events, (Texts{"destroy b", "destroy a"}));
}

TEST(SuperblockDestruction, DestroysNestedMembersInTheirPlace)
{
    Texts events;
    {
        Superblock outer("outer");
        auto& inner = add<Superblock>(outer, "m");
        add<ToldBlock>(inner, "x", events);
        add<ToldBlock>(inner, "y", events);
        add<ToldBlock>(outer, "a", events);
        add<ToldBlock>(outer, "z", events);
    }
    EXPECT_EQ(events, (Texts{"destroy z", "destroy y", "destroy x", "destroy a"}));
}

/// A block that tells how much the process holds when it is destroyed.
class WeighingBlock : public Filter {
public:
    WeighingBlock(const std::string& name, std::size_t& bytes) : Filter(name), bytes_(bytes) {}
    ~WeighingBlock() override { bytes_ = live_bytes(); }

private:
    std::size_t& bytes_;
};

TEST(SuperblockDestruction, LetsGoOfTheConnectionsBeforeTheMembers)
{
    constexpr std::size_t kConnections = 1000;
    std::size_t bytes = 0;
    auto superblock = std::make_unique<Superblock>("graph");
    auto& member = add<WeighingBlock>(*superblock, "a", bytes);
    const std::size_t without = live_bytes();
    for (std::size_t i = 0; i < kConnections; ++i) {
        superblock->add_connection(member, "out", member, "in");
    }
    ASSERT_GE(live_bytes(), without + kConnections * sizeof(Connection));

    superblock.reset();

    EXPECT_LE(bytes, without);
}

// --- Blocks ---------------------------------------------------------------------------------

TEST(SuperblockGetBlocks, ListsMembersInTheOrderOfTheBytesOfTheirNames)
{
    Superblock superblock("graph");
    for (const char* name : {"b", "a-", "a", "10", "2", "B", "\xc3\xa4"}) {
        add<Filter>(superblock, name);
    }

    EXPECT_EQ(blocks_of(superblock), (Texts{"10", "2", "B", "a", "a-", "b", "\xc3\xa4"}));
}

TEST(SuperblockGetBlocks, ListsTheLeavesOfThreeLevelsDepthFirst)
{
    Superblock outer("outer");
    auto& middle = add<Superblock>(outer, "m");
    auto& inner = add<Superblock>(middle, "m");
    add<Filter>(outer, "z");
    add<Filter>(outer, "a");
    add<Filter>(middle, "z2");
    add<Filter>(middle, "a2");
    add<Filter>(inner, "z3");
    add<Filter>(inner, "a3");
    add<Superblock>(inner, "empty");

    EXPECT_EQ(blocks_of(outer), (Texts{"a", "a2", "a3", "z3", "z2", "z"}));
    EXPECT_EQ(blocks_of(middle), (Texts{"a2", "a3", "z3", "z2"}));
    EXPECT_EQ(blocks_of(inner), (Texts{"a3", "z3"}));
}

/// A superblock that answers for itself.
class Guarded : public Superblock {
public:
    using Superblock::Superblock;

    std::vector<Block*> get_blocks() override { return {shown}; }
    std::vector<Connection> get_connections() override
    {
        return {{*shown, "guarded", *shown, "guarded"}};
    }

    Block* shown = nullptr;
};

TEST(SuperblockGetBlocks, AsksMembersOfDerivedAndForeignClasses)
{
    Texts calls;
    Superblock outer("outer");
    auto& guarded = add<Guarded>(outer, "guarded");
    auto& hidden = add<Filter>(guarded, "hidden");
    auto& fake = add<FakeContainer>(outer, "fake", calls);
    Filter shown("shown");
    guarded.shown = &shown;
    fake.blocks = {&hidden, &shown, &hidden};
    calls.clear();

    EXPECT_EQ(blocks_of(outer), (Texts{"hidden", "shown", "hidden", "shown"}));
    EXPECT_EQ(calls, Texts{"fake.get_blocks"});
}

TEST(SuperblockGetBlocks, AsksDerivedMembersOfNestedSuperblocks)
{
    Superblock outer("outer");
    auto& inner = add<Superblock>(outer, "inner");
    auto& guarded = add<Guarded>(inner, "guarded");
    add<Filter>(guarded, "hidden");
    Filter shown("shown");
    guarded.shown = &shown;

    EXPECT_EQ(blocks_of(outer), Texts{"shown"});
    EXPECT_EQ(connections_of(outer), Texts{"shown.guarded -> shown.guarded"});
}

// --- Exposed inputs -------------------------------------------------------------------------

TEST(SuperblockAddInport, ExposesAnInputOfAMember)
{
    Superblock superblock("graph");
    auto& member = add<Filter>(superblock, "a");

    superblock.add_inport("left", member, "in");

    const Inputs found = superblock.get_inport("left");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(&found[0].first, &member);
    EXPECT_EQ(&found[0].second, &member.get_inport("in")[0].second);
}

TEST(SuperblockAddInport, RefusesAnEmptyNameBeforeItAsks)
{
    Texts calls;
    FakeContainer member("a", calls);
    Superblock superblock("graph");

    expect_throw<std::runtime_error>([&] { superblock.add_inport("", member, "in"); },
                                     "Failed to add inport due to empty string input.");

    EXPECT_EQ(calls, Texts{});
    EXPECT_EQ(superblock.get_inports_info(), Info{});
}

TEST(SuperblockAddInport, PassesOnWhatTheMemberThrows)
{
    Superblock superblock("graph");
    auto& member = add<Filter>(superblock, "a");
    auto& inner = add<Superblock>(superblock, "inner");
    superblock.add_inport("left", member, "in");

    expect_throw<std::out_of_range>([&] { superblock.add_inport("left", member, "x"); },
                                    "The InPort x does not exist in block a");
    expect_throw<std::out_of_range>([&] { superblock.add_inport("right", inner, "x"); },
                                    "Get for unknown inport \"x\" on superblock \"inner\"");

    EXPECT_EQ(inputs_of(superblock, "left"), Texts{"a.in"});
    EXPECT_EQ(superblock.get_inports_info(), (Info{{"left", Datatype("int")}}));
}

TEST(SuperblockAddInport, FeedsSeveralInputsUnderOneNameInTheOrderOfAdding)
{
    Superblock superblock("graph");
    auto& z = add<Filter>(superblock, "z");
    auto& a = add<Filter>(superblock, "a");

    superblock.add_inport("left", z, "in2");
    superblock.add_inport("left", a, "in");
    superblock.add_inport("left", z, "in");
    superblock.add_inport("left", z, "in");

    EXPECT_EQ(inputs_of(superblock, "left"), (Texts{"z.in2", "a.in", "z.in", "z.in"}));
}

TEST(SuperblockAddInport, TakesTheWholeListOfANestedSuperblock)
{
    Superblock outer("outer");
    auto& inner = add<Superblock>(outer, "inner");
    auto& a = add<Filter>(inner, "a");
    auto& b = add<Filter>(inner, "b");
    auto& c = add<Filter>(outer, "c");
    inner.add_inport("both", b, "in");
    inner.add_inport("both", a, "in2");

    outer.add_inport("all", c, "in");
    outer.add_inport("all", inner, "both");
    inner.add_inport("both", a, "in");

    EXPECT_EQ(inputs_of(outer, "all"), (Texts{"c.in", "b.in", "a.in2"}));
    EXPECT_EQ(inputs_of(inner, "both"), (Texts{"b.in", "a.in2", "a.in"}));
    EXPECT_EQ(&outer.get_inport("all")[1].first, &b);
}

TEST(SuperblockAddInport, AddsNothingForAnEmptyList)
{
    Texts calls;
    Superblock superblock("graph");
    auto& member = add<FakeContainer>(superblock, "a", calls);
    member.inport = [](const std::string&) { return Inputs{}; };
    calls.clear();

    superblock.add_inport("left", member, "in");

    EXPECT_EQ(calls, Texts{"a.get_inport in"});
    EXPECT_EQ(superblock.get_inports_info(), Info{});
    expect_throw<std::out_of_range>([&] { superblock.get_inport("left"); },
                                    "Get for unknown inport \"left\" on superblock \"graph\"");
}

TEST(SuperblockAddInport, LeavesAPresentNameAsItIsForAnEmptyList)
{
    Texts calls;
    Superblock superblock("graph");
    auto& filter = add<Filter>(superblock, "b");
    auto& member = add<FakeContainer>(superblock, "a", calls);
    member.inport = [](const std::string&) { return Inputs{}; };
    superblock.add_inport("left", filter, "in");

    superblock.add_inport("left", member, "in");

    EXPECT_EQ(inputs_of(superblock, "left"), Texts{"b.in"});
}

TEST(SuperblockAddInport, DoublesTheListWhenItIsExposedUnderItsOwnName)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    superblock.add_inport("left", a, "in");
    superblock.add_inport("left", a, "in2");

    superblock.add_inport("left", superblock, "left");

    EXPECT_EQ(inputs_of(superblock, "left"), (Texts{"a.in", "a.in2", "a.in", "a.in2"}));
}

TEST(SuperblockAddInport, TakesContainersThatAreNoMembers)
{
    Filter foreign("foreign");
    Superblock superblock("graph");

    superblock.add_inport("left", foreign, "in");

    EXPECT_EQ(inputs_of(superblock, "left"), Texts{"foreign.in"});
    EXPECT_TRUE(superblock.get_blocks().empty());
}

TEST(SuperblockGetInport, HandsOutCopiesOfTheList)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    superblock.add_inport("left", a, "in");

    Inputs copy = superblock.get_inport("left");
    copy.clear();

    EXPECT_EQ(inputs_of(superblock, "left"), Texts{"a.in"});
}

TEST(SuperblockGetInport, NamesTheSuperblockAsItIsCalledNow)
{
    Superblock superblock("graph");
    superblock.set_name("a \"b\"");

    expect_throw<std::out_of_range>([&] { superblock.get_inport("x"); },
                                    "Get for unknown inport \"x\" on superblock \"a \"b\"\"");
}

// --- Exposed outputs ------------------------------------------------------------------------

TEST(SuperblockAddOutport, ExposesAnOutputOfAMember)
{
    Superblock superblock("graph");
    auto& member = add<Filter>(superblock, "a");

    superblock.add_outport("right", member, "out");

    const Output found = superblock.get_outport("right");
    EXPECT_EQ(&found.first, &member);
    EXPECT_EQ(&found.second, &member.get_outport("out").second);
}

TEST(SuperblockAddOutport, ResolvesTheOutputOfANestedSuperblock)
{
    Superblock outer("outer");
    auto& middle = add<Superblock>(outer, "middle");
    auto& inner = add<Superblock>(middle, "inner");
    auto& leaf = add<Filter>(inner, "leaf");
    inner.add_outport("one", leaf, "out2");
    middle.add_outport("two", inner, "one");

    outer.add_outport("three", middle, "two");

    EXPECT_EQ(&outer.get_outport("three").first, &leaf);
    EXPECT_EQ(&outer.get_outport("three").second, &leaf.get_outport("out2").second);
}

TEST(SuperblockAddOutport, RefusesAnEmptyNameBeforeItAsks)
{
    Texts calls;
    FakeContainer member("a", calls);
    Superblock superblock("graph");

    expect_throw<std::runtime_error>([&] { superblock.add_outport("", member, "out"); },
                                     "Failed to add outport due to empty string input.");

    EXPECT_EQ(calls, Texts{});
    EXPECT_EQ(superblock.get_outports_info(), Info{});
}

TEST(SuperblockAddOutport, KeepsTheFirstOutputWhenANameIsTaken)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    auto& b = add<Filter>(superblock, "b");
    superblock.add_outport("right", a, "out");

    for (const Filter* block : {&b, &a}) {
        expect_throw<std::runtime_error>([&] { superblock.add_outport("right", *block, "out"); },
                                         "Failed to add outport 'right', probably duplicate.");
    }

    EXPECT_EQ(&superblock.get_outport("right").first, &a);
}

TEST(SuperblockAddOutport, LooksThePortUpBeforeItTestsTheName)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    superblock.add_outport("right", a, "out");

    expect_throw<std::out_of_range>([&] { superblock.add_outport("right", a, "x"); },
                                    "The OutPort x does not exist in block a");
    expect_throw<std::out_of_range>([&] { superblock.add_outport("new", superblock, "x"); },
                                    "Get for unknown outport \"x\" on superblock \"graph\"");

    EXPECT_EQ(superblock.get_outports_info(), (Info{{"right", Datatype("int")}}));
}

TEST(SuperblockAddOutport, AsksOnce)
{
    Texts calls;
    Filter leaf("leaf");
    FakeContainer member("a", calls);
    member.outport = [&](const std::string& name) { return leaf.get_outport(name); };
    Superblock superblock("graph");

    superblock.add_outport("right", member, "out");

    EXPECT_EQ(calls, Texts{"a.get_outport out"});
}

TEST(SuperblockPorts, OfBothKindsMayShareAName)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");

    superblock.add_inport("x", a, "in");
    superblock.add_outport("x", a, "out");

    EXPECT_EQ(inputs_of(superblock, "x"), Texts{"a.in"});
    EXPECT_EQ(superblock.get_outport("x").second.get_name(), "out");
}

// --- Information on ports -------------------------------------------------------------------

TEST(SuperblockPortsInfo, ListsExposedPortsAlone)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a", "int");
    auto& b = add<Filter>(superblock, "b", "double");

    superblock.add_inport("left", a, "in");
    superblock.add_outport("right", b, "out");
    superblock.add_outport("right2", a, "out");

    EXPECT_EQ(superblock.get_inports_info(), (Info{{"left", Datatype("int")}}));
    EXPECT_EQ(superblock.get_outports_info(),
              (Info{{"right", Datatype("double")}, {"right2", Datatype("int")}}));
}

TEST(SuperblockPortsInfo, GivesTheTypeOfTheFirstInputBehindAName)
{
    Superblock superblock("graph");
    auto& z = add<Filter>(superblock, "z", "first");
    auto& a = add<Filter>(superblock, "a", "second");

    superblock.add_inport("left", z, "in");
    superblock.add_inport("left", a, "in");

    EXPECT_EQ(superblock.get_inports_info(), (Info{{"left", Datatype("first")}}));
}

TEST(SuperblockFdPortsInfo, ListsThePortOfTheFirstMemberWhereNamesAgree)
{
    Superblock superblock("S");
    superblock.add_block(owned(with_fdport("b", "P", "second")));
    superblock.add_block(owned(with_fdport("a", "P", "first")));
    superblock.add_block(owned(with_fdport("c", "P", "third")));

    EXPECT_EQ(superblock.get_fdports_info(), (Info{{"S::P", Datatype("first")}}));
}

TEST(SuperblockFdPortsInfo, GoesByTheKeysAndNotByTheNames)
{
    Superblock superblock("S");
    superblock.add_block(owned(with_fdport("a", "P", "first"))).set_name("z");
    superblock.add_block(owned(with_fdport("b", "P", "second"))).set_name("a");

    EXPECT_EQ(superblock.get_fdports_info(), (Info{{"S::P", Datatype("first")}}));
}

TEST(SuperblockFdPortsInfo, PutsTheNameOfEachLevelInFront)
{
    Superblock outer("O");
    auto& middle = add<Superblock>(outer, "M");
    auto& inner = add<Superblock>(middle, "I");
    outer.add_block(owned(with_fdport("a", "P", "outer")));
    middle.add_block(owned(with_fdport("a", "P", "middle")));
    inner.add_block(owned(with_fdport("a", "P", "inner")));

    EXPECT_EQ(outer.get_fdports_info(), (Info{{"O::P", Datatype("outer")},
                                              {"O::M::P", Datatype("middle")},
                                              {"O::M::I::P", Datatype("inner")}}));
}

TEST(SuperblockFdPortsInfo, UsesTheNamesThatTheSuperblocksHaveNow)
{
    Superblock outer("O");
    auto& inner = add<Superblock>(outer, "I");
    inner.add_block(owned(with_fdport("a", "P", "extfd")));

    outer.set_name("o");
    inner.set_name("i");

    EXPECT_EQ(outer.get_fdports_info(), (Info{{"o::i::P", Datatype("extfd")}}));
}

TEST(SuperblockFdPortsInfo, KeepsTheFirstOfKeysThatComeOutEqual)
{
    Texts calls;
    Superblock outer("O");
    auto& fake = add<FakeContainer>(outer, "a", calls);
    fake.fdports = {{"I::P", Datatype("fake")}};
    auto& inner = add<Superblock>(outer, "I");
    inner.add_block(owned(with_fdport("x", "P", "inner")));
    calls.clear();

    EXPECT_EQ(outer.get_fdports_info(), (Info{{"O::I::P", Datatype("inner")}}));
    EXPECT_EQ(calls, Texts{"a.get_fdports_info"});
}

// --- Connections ----------------------------------------------------------------------------

TEST(SuperblockAddConnection, RecordsBlocksAndPortNames)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    auto& b = add<Filter>(superblock, "b");

    superblock.add_connection(a, "out", b, "in2");

    const auto connections = superblock.get_connections();
    ASSERT_EQ(connections.size(), 1U);
    EXPECT_EQ(&std::get<0>(connections[0]), &a);
    EXPECT_EQ(std::get<1>(connections[0]), "out");
    EXPECT_EQ(&std::get<2>(connections[0]), &b);
    EXPECT_EQ(std::get<3>(connections[0]), "in2");
}

TEST(SuperblockAddConnection, ResolvesExposedPortsOfNestedSuperblocks)
{
    Superblock outer("outer");
    auto& left = add<Superblock>(outer, "left");
    auto& right = add<Superblock>(outer, "right");
    auto& source = add<Filter>(left, "source");
    auto& target = add<Filter>(right, "target");
    left.add_outport("exposed", source, "out2");
    right.add_inport("exposed", target, "in2");

    outer.add_connection(left, "exposed", right, "exposed");

    EXPECT_EQ(connections_of(outer), Texts{"source.out2 -> target.in2"});
    EXPECT_EQ(&std::get<0>(outer.get_connections()[0]), &source);
    EXPECT_EQ(&std::get<2>(outer.get_connections()[0]), &target);
}

TEST(SuperblockAddConnection, FansOutToEveryInputBehindAName)
{
    Superblock outer("outer");
    auto& source = add<Filter>(outer, "source");
    auto& inner = add<Superblock>(outer, "inner");
    auto& b = add<Filter>(inner, "b");
    auto& a = add<Filter>(inner, "a");
    inner.add_inport("all", b, "in2");
    inner.add_inport("all", a, "in");
    inner.add_inport("all", b, "in");

    outer.add_connection(source, "out", inner, "all");
    outer.add_connection(source, "out2", a, "in2");

    EXPECT_EQ(connections_of(outer), (Texts{"source.out -> b.in2", "source.out -> a.in",
                                            "source.out -> b.in", "source.out2 -> a.in2"}));
}

TEST(SuperblockAddConnection, RecordsNothingForAnEmptyList)
{
    Texts calls;
    Superblock superblock("graph");
    auto& source = add<Filter>(superblock, "source");
    auto& member = add<FakeContainer>(superblock, "a", calls);
    member.inport = [](const std::string&) { return Inputs{}; };

    superblock.add_connection(source, "out", member, "in");

    EXPECT_EQ(connections_of(superblock), Texts{});
}

TEST(SuperblockAddConnection, ProbesBothEndsAndThenLooksThemUp)
{
    Texts calls;
    Filter leaf("leaf");
    FakeContainer from("from", calls);
    FakeContainer to("to", calls);
    from.outport = [&](const std::string& /*name*/) { return leaf.get_outport("out"); };
    to.inport = [&](const std::string& /*name*/) { return leaf.get_inport("in"); };
    Superblock superblock("graph");

    superblock.add_connection(from, "x", to, "y");

    EXPECT_EQ(calls, (Texts{"from.get_outport x", "to.get_inport y", "from.get_outport x",
                            "to.get_inport y"}));
    EXPECT_EQ(connections_of(superblock), Texts{"leaf.out -> leaf.in"});
}

TEST(SuperblockAddConnection, RecordsTheAnswersOfTheSecondLookUp)
{
    Texts calls;
    Filter first("first");
    Filter second("second");
    FakeContainer from("from", calls);
    FakeContainer to("to", calls);
    int outputs = 0;
    int inputs = 0;
    from.outport = [&](const std::string& name) {
        return (outputs++ == 0 ? first : second).get_outport(name);
    };
    to.inport = [&](const std::string& name) {
        return (inputs++ == 0 ? first : second).get_inport(name);
    };
    Superblock superblock("graph");

    superblock.add_connection(from, "out", to, "in");

    EXPECT_EQ(connections_of(superblock), Texts{"second.out -> second.in"});
}

TEST(SuperblockAddConnection, NamesAMissingOutport)
{
    Texts calls;
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    auto& inner = add<Superblock>(superblock, "inner");
    FakeContainer to("to", calls);
    superblock.add_connection(a, "out", a, "in");

    expect_throw<std::runtime_error>([&] { superblock.add_connection(a, "x", to, "in"); },
                                     "Failed to add connection due to missing outport: a::x");
    expect_throw<std::runtime_error>([&] { superblock.add_connection(inner, "out", to, "in"); },
                                     "Failed to add connection due to missing outport: inner::out");
    expect_throw<std::runtime_error>([&] { superblock.add_connection(a, "", to, "in"); },
                                     "Failed to add connection due to missing outport: a::");

    EXPECT_EQ(calls, Texts{});
    EXPECT_EQ(connections_of(superblock), Texts{"a.out -> a.in"});
}

TEST(SuperblockAddConnection, NamesAMissingInport)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    auto& inner = add<Superblock>(superblock, "inner");

    expect_throw<std::runtime_error>([&] { superblock.add_connection(a, "out", a, "x"); },
                                     "Failed to add connection due to missing inport: a::x");
    expect_throw<std::runtime_error>([&] { superblock.add_connection(a, "out", inner, "in"); },
                                     "Failed to add connection due to missing inport: inner::in");

    EXPECT_EQ(connections_of(superblock), Texts{});
}

TEST(SuperblockAddConnection, NamesTheOutportFirstWhenBothAreMissing)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");

    expect_throw<std::runtime_error>([&] { superblock.add_connection(a, "x", a, "y"); },
                                     "Failed to add connection due to missing outport: a::x");
}

TEST(SuperblockAddConnection, AsksForTheNameOnlyWhenALookUpFails)
{
    Texts calls;
    Filter leaf("leaf");
    FakeContainer from("from", calls);
    FakeContainer to("to", calls);
    from.outport = [&](const std::string& name) { return leaf.get_outport(name); };
    to.inport = [&](const std::string& name) { return leaf.get_inport(name); };
    Superblock superblock("graph");

    expect_throw<std::runtime_error>([&] { superblock.add_connection(from, "x", to, "in"); },
                                     "Failed to add connection due to missing outport: from::x");
    expect_throw<std::runtime_error>([&] { superblock.add_connection(from, "out", to, "x"); },
                                     "Failed to add connection due to missing inport: to::x");

    EXPECT_EQ(calls, (Texts{"from.get_outport x", "from.get_name", "from.get_outport out",
                            "to.get_inport x", "to.get_name"}));
}

TEST(SuperblockAddConnection, TakesAClassDerivedFromOutOfRangeForAMissingPort)
{
    class Missing : public std::out_of_range {
        using std::out_of_range::out_of_range;
    };
    Texts calls;
    Filter leaf("leaf");
    FakeContainer from("from", calls);
    from.outport = [](const std::string&) -> Output { throw Missing("x"); };
    Superblock superblock("graph");

    expect_throw<std::runtime_error>([&] { superblock.add_connection(from, "x", leaf, "in"); },
                                     "Failed to add connection due to missing outport: from::x");
}

TEST(SuperblockAddConnection, PassesOtherExceptionsOfTheProbesOn)
{
    Texts calls;
    Filter leaf("leaf");
    FakeContainer fake("fake", calls);
    fake.outport = [](const std::string&) -> Output { throw std::logic_error("no outputs"); };
    fake.inport = [](const std::string&) -> Inputs { throw std::invalid_argument("no inputs"); };
    Superblock superblock("graph");

    expect_throw<std::logic_error>([&] { superblock.add_connection(fake, "x", leaf, "in"); },
                                   "no outputs");
    expect_throw<std::invalid_argument>([&] { superblock.add_connection(leaf, "out", fake, "x"); },
                                        "no inputs");

    EXPECT_EQ(calls, (Texts{"fake.get_outport x", "fake.get_inport x"}));
    EXPECT_EQ(connections_of(superblock), Texts{});
}

TEST(SuperblockAddConnection, PassesExceptionsOfTheSecondLookUpOnAsTheyAre)
{
    Texts calls;
    Filter leaf("leaf");
    FakeContainer fake("fake", calls);
    int looked_up = 0;
    fake.inport = [&](const std::string& name) {
        if (++looked_up == 2) {
            throw std::out_of_range("gone meanwhile");
        }
        return leaf.get_inport(name);
    };
    Superblock superblock("graph");

    expect_throw<std::out_of_range>([&] { superblock.add_connection(leaf, "out", fake, "in"); },
                                    "gone meanwhile");

    EXPECT_EQ(connections_of(superblock), Texts{});
}

TEST(SuperblockAddConnection, ConnectsABlockWithItself)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");

    superblock.add_connection(a, "out", a, "in");

    EXPECT_EQ(connections_of(superblock), Texts{"a.out -> a.in"});
}

TEST(SuperblockAddConnection, ConnectsASuperblockWithItself)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    superblock.add_inport("left", a, "in");
    superblock.add_outport("right", a, "out");

    superblock.add_connection(superblock, "right", superblock, "left");

    EXPECT_EQ(connections_of(superblock), Texts{"a.out -> a.in"});
}

TEST(SuperblockAddConnection, ChecksNeitherRepetitionNorTypesNorMembership)
{
    Filter foreign("foreign", "double");
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a", "int");

    superblock.add_connection(a, "out", foreign, "in");
    superblock.add_connection(a, "out", foreign, "in");
    superblock.add_connection(foreign, "out", a, "in");

    EXPECT_EQ(connections_of(superblock),
              (Texts{"a.out -> foreign.in", "a.out -> foreign.in", "foreign.out -> a.in"}));
}

TEST(SuperblockAddConnection, TakesNamesOutOfTheListThatItReads)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    superblock.add_connection(a, "out", a, "in");

    for (const Connection& connection : superblock.get_connections()) {
        superblock.add_connection(std::get<0>(connection), std::get<1>(connection),
                                  std::get<2>(connection), std::get<3>(connection));
    }

    EXPECT_EQ(connections_of(superblock), (Texts{"a.out -> a.in", "a.out -> a.in"}));
}

TEST(SuperblockGetConnections, ListsThoseOfMembersFirstAndItsOwnAsTheyWereMade)
{
    Superblock outer("outer");
    auto& z = add<Superblock>(outer, "z");
    auto& m = add<Superblock>(outer, "m");
    auto& deep = add<Superblock>(m, "deep");
    auto& o = add<Filter>(outer, "o");
    auto& in_z = add<Filter>(z, "in_z");
    auto& in_m = add<Filter>(m, "in_m");
    auto& in_deep = add<Filter>(deep, "in_deep");

    outer.add_connection(o, "out2", o, "in2");
    outer.add_connection(o, "out", o, "in");
    z.add_connection(in_z, "out", in_z, "in");
    m.add_connection(in_m, "out", in_m, "in");
    deep.add_connection(in_deep, "out2", in_deep, "in2");
    deep.add_connection(in_deep, "out", in_deep, "in");

    EXPECT_EQ(
        connections_of(outer),
        (Texts{"in_deep.out2 -> in_deep.in2", "in_deep.out -> in_deep.in", "in_m.out -> in_m.in",
               "in_z.out -> in_z.in", "o.out2 -> o.in2", "o.out -> o.in"}));
    EXPECT_EQ(connections_of(z), Texts{"in_z.out -> in_z.in"});
}

TEST(SuperblockGetConnections, AsksMembersOfDerivedAndForeignClasses)
{
    Texts calls;
    Superblock outer("outer");
    auto& guarded = add<Guarded>(outer, "guarded");
    auto& hidden = add<Filter>(guarded, "hidden");
    guarded.add_connection(hidden, "out", hidden, "in");
    auto& fake = add<FakeContainer>(outer, "fake", calls);
    Filter shown("shown");
    guarded.shown = &shown;
    fake.connections.emplace_back(hidden, "fake", shown, "fake");
    outer.add_connection(shown, "out", shown, "in");
    calls.clear();

    EXPECT_EQ(connections_of(outer),
              (Texts{"hidden.fake -> shown.fake", "shown.guarded -> shown.guarded",
                     "shown.out -> shown.in"}));
    EXPECT_EQ(calls, Texts{"fake.get_connections"});
}

TEST(SuperblockGetConnections, HandsOutCopiesOfItsOwn)
{
    Superblock superblock("graph");
    auto& a = add<Filter>(superblock, "a");
    superblock.add_connection(a, "out", a, "in");

    std::get<1>(superblock.get_connections()[0]) = "changed";
    superblock.get_connections().clear();

    EXPECT_EQ(connections_of(superblock), Texts{"a.out -> a.in"});
}

TEST(SuperblockGetConnections, GrowsToManyWithoutLosingOne)
{
    Superblock superblock("graph");
    std::vector<Filter*> members;
    for (int i = 0; i < 200; ++i) {
        members.push_back(&add<Filter>(superblock, std::to_string(i)));
    }
    Texts expected;
    for (int i = 0; i < 1000; ++i) {
        const Filter& from = *members[static_cast<std::size_t>(i * 7 % 200)];
        const Filter& to = *members[static_cast<std::size_t>(i * 13 % 200)];

        superblock.add_connection(from, "out", to, "in");
        expected.push_back(from.get_name() + ".out -> " + to.get_name() + ".in");
    }

    EXPECT_EQ(connections_of(superblock), expected);
}

TEST(SuperblockNesting, IsNotLimited)
{
    Superblock outermost("0");
    Superblock* level = &outermost;
    for (int i = 1; i < 300; ++i) {
        level = &add<Superblock>(*level, std::to_string(i));
    }
    auto& leaf = add<Filter>(*level, "leaf");
    level->add_connection(leaf, "out", leaf, "in");

    EXPECT_EQ(blocks_of(outermost), Texts{"leaf"});
    EXPECT_EQ(connections_of(outermost), Texts{"leaf.out -> leaf.in"});
}

TEST(SuperblockThreads, MayEachHaveGraphsOfTheirOwn)
{
    std::vector<Texts> results(4);
    std::vector<std::thread> threads;

    for (Texts& result : results) {
        threads.emplace_back([&result] {
            for (int i = 0; i < 50; ++i) {
                Superblock superblock("graph", {{"pstore_path", "/x/"}});
                auto& a = add<Filter>(superblock, "a");
                superblock.add_inport("left", a, "in");
                superblock.add_connection(a, "out", superblock, "left");
                result = connections_of(superblock);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(results, std::vector<Texts>(4, Texts{"a.out -> a.in"}));
}

}  // namespace
