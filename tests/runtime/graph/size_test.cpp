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
