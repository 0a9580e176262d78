#include "graph/size.h"

#include <gtest/gtest.h>

using Quorval::runtime::CompositeDescription;
using Quorval::runtime::GraphDescription;
using Quorval::runtime::MemberDescription;
using Quorval::runtime::Problems;
using Quorval::runtime::SizeCheck;
using Quorval::runtime::Value;

namespace {

constexpr int kLevels = 18;

MemberDescription member_of(const std::string& type)
{
    MemberDescription member;
    member.type = type;
    member.has_type = true;
    return member;
}

/// A quarter of a million blocks without names, in superblocks without names that hold two each. A
/// path is 19 dots.
GraphDescription many_times(const MemberDescription& block)
{
    GraphDescription description;
    description.kinds["k0"].members = {block};
    for (int level = 1; level <= kLevels; ++level) {
        const MemberDescription inner = member_of("k" + std::to_string(level - 1));
        description.kinds["k" + std::to_string(level)].members = {inner, inner};
    }
    description.graph.members = {member_of("k" + std::to_string(kLevels))};
    return description;
}

/// What is wrong with that many blocks of one element of a configuration each.
std::string complaint(std::size_t key_size, const Value& value)
{
    MemberDescription block = member_of("plugin:Type");
    block.config.resize(1);
    block.config[0].key = std::string(key_size, 'k');
    block.config[0].value = value;
    const GraphDescription description = many_times(block);
    Problems problems;
    const bool is_fine = SizeCheck(description, problems).check();
    EXPECT_EQ(is_fine, problems.sorted().empty());
    return is_fine ? "" : problems.sorted()[0].text;
}

}  // namespace

TEST(SizeCheck, CountsTheBytesOfEachKindOfValue)
{
    // 2 to the power of 30 in all.
    constexpr std::size_t kRoom = 4096 - (kLevels + 1);
    const std::vector<std::pair<Value, std::size_t>> values = {
        {1, 4},
        {true, 1},
        {1.5, 8},
        {std::string("abc"), 3},
        {std::vector<int>{1, 2}, 8},
        {std::vector<double>{1.5}, 8},
        {std::vector<double>{}, 0},
        {std::vector<std::string>{"ab", "", "c"}, 3},
        {std::vector<bool>{true, false}, 2},
    };
    for (const auto& [value, size] : values) {
        EXPECT_EQ(complaint(kRoom - size, value), "") << value.index();
        EXPECT_EQ(complaint(kRoom - size + 1, value),
                  "the paths and configurations of the blocks take more than 1 GiB")
            << value.index();
    }
}

namespace {

/// Members of one type, numbered from 0.
std::vector<MemberDescription> members_of(const std::string& type, std::size_t count)
{
    return {count, member_of(type)};
}

std::string complaint(const GraphDescription& description)
{
    Problems problems;
    SizeCheck(description, problems).check();
    return problems.sorted().empty() ? "" : problems.sorted()[0].text;
}

}  // namespace

TEST(SizeCheck, LetsAMillionBlocksPass)
{
    GraphDescription description;
    description.kinds["k"].members = members_of("p:T", 1000);
    description.graph.members = members_of("k", 1000);
    EXPECT_EQ(complaint(description), "");

    description.graph.members.push_back(member_of("p:T"));
    EXPECT_EQ(complaint(description), "the graph has more than 1000000 blocks");
}

TEST(SizeCheck, LetsAMillionSuperblocksPass)
{
    GraphDescription description;
    description.kinds["empty"] = {};
    description.kinds["k"].members = members_of("empty", 999);
    description.graph.members = members_of("k", 1000);
    EXPECT_EQ(complaint(description), "");

    description.graph.members.push_back(member_of("empty"));
    EXPECT_EQ(complaint(description), "the graph has more than 1000000 superblocks");
}

TEST(SizeCheck, LetsTenMillionConnectionsAndExposedPortsPass)
{
    GraphDescription description;
    CompositeDescription& kind = description.kinds["k"];
    kind.connections.resize(9'000);
    kind.inports.resize(2);
    kind.inports[0].ends.resize(300);
    kind.inports[1].ends.resize(200);
    kind.outports.resize(1);
    kind.outports[0].ends.resize(500);
    description.graph.members = members_of("k", 1000);
    EXPECT_EQ(complaint(description), "");

    kind.outports[0].ends.resize(501);
    EXPECT_EQ(complaint(description), "the graph has more than 10000000 connections");
}

TEST(SizeCheck, LetsAThousandLevelsPass)
{
    constexpr int kMostDeep = 1000;
    const auto chain_of = [](int count) {
        GraphDescription description;
        description.kinds["k1"] = {};
        for (int level = 2; level <= count; ++level) {
            description.kinds["k" + std::to_string(level)].members =
                members_of("k" + std::to_string(level - 1), 1);
        }
        description.graph.members = members_of("k" + std::to_string(count), 1);
        return description;
    };
    const std::string too_deep = "superblocks stand in each other more than 1000 levels deep";

    EXPECT_EQ(complaint(chain_of(kMostDeep)), "");
    EXPECT_EQ(complaint(chain_of(kMostDeep + 1)), too_deep);

    // What was measured already, further in.
    GraphDescription known = chain_of(kMostDeep);
    known.kinds["outer"].members = members_of("k999", 1);
    known.graph.members.push_back(member_of("outer"));
    EXPECT_EQ(complaint(known), "");
    known.kinds["outer"].members = members_of("k1000", 1);
    EXPECT_EQ(complaint(known), too_deep);
    known.kinds["outer"].members = members_of("k1", 1);
    known.kinds["outer"].members.push_back(member_of("k999"));
    known.kinds["outer"].members.push_back(member_of("k2"));
    known.kinds["outermost"].members = members_of("outer", 1);
    known.graph.members.push_back(member_of("outermost"));
    EXPECT_EQ(complaint(known), too_deep);
}

TEST(SizeCheck, CountsPathsFromTheGraphOn)
{
    // A block's path has its own name and each superblock's, with "/" between.
    constexpr std::size_t kBlocks = 1024;
    constexpr std::size_t kEach = (std::size_t{1} << 30U) / kBlocks;
    const auto graph_with = [](std::size_t name, std::size_t inner_name, std::size_t text) {
        GraphDescription description;
        std::vector<MemberDescription> blocks = members_of("p:T", 1);
        blocks[0].name = std::string(inner_name, 'b');
        description.kinds["k"].members = blocks;
        description.graph.members = members_of("k", kBlocks);
        for (MemberDescription& member : description.graph.members) {
            member.name = std::string(name, 's');
        }
        description.graph.members[0].config.resize(1);
        description.graph.members[0].config[0].value = std::string(text, 't');
        return description;
    };
    const std::string too_many = "the paths and configurations of the blocks take more than 1 GiB";

    EXPECT_EQ(complaint(graph_with(10, kEach - 11, 0)), "");
    EXPECT_EQ(complaint(graph_with(10, kEach - 10, 0)), too_many);
    EXPECT_EQ(complaint(graph_with(9, kEach - 11, kBlocks)), "");
    EXPECT_EQ(complaint(graph_with(9, kEach - 11, kBlocks + 1)), too_many);
}

TEST(SizeCheck, LeavesOutWhatCannotBeMade)
{
    GraphDescription description;
    description.kinds["k"].members = members_of("p:T", 1000);
    description.graph.members = members_of("k", 1000);
    MemberDescription untyped = member_of("k");
    untyped.has_type = false;
    description.graph.members.push_back(untyped);
    description.graph.members.push_back(member_of("unknown"));

    EXPECT_EQ(complaint(description), "");
}
