// How deeply texts may be nested, and where what is too much begins.
#include "description/toml.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Quorval::runtime::merge_toml;
using Quorval::runtime::parse_toml;
using Quorval::runtime::Place;
using Quorval::runtime::place_of;
using Quorval::runtime::Problem;
using Quorval::runtime::Problems;

namespace {

constexpr std::size_t kMostLevels = 256;
constexpr const char* kTooDeep = "more than 256 levels of keys and brackets";

std::string repeat(const std::string& text, std::size_t count)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

/// What is wrong with a text.
std::string problem_of(const std::string& text)
{
    Problems problems;
    const bool is_there = parse_toml(text, 0, problems).has_value();
    EXPECT_EQ(is_there, problems.sorted().empty());
    return is_there ? "" : problems.sorted().at(0).text;
}

Place place_of_problem(const std::string& text, std::uint32_t source = 0)
{
    Problems problems;
    parse_toml(text, source, problems);
    return problems.sorted().at(0).place;
}

TEST(Depth, IsThatOfKeysAndBrackets)
{
    for (const std::string& text :
         {repeat("a.", kMostLevels - 1) + "a = 1", "[" + repeat("a.", kMostLevels - 2) + "a]",
          "a = " + repeat("[", kMostLevels - 1) + repeat("]", kMostLevels - 1),
          "a = " + repeat("{a=", kMostLevels - 1) + "1" + repeat("}", kMostLevels - 1),
          "a.a = " + repeat("[", kMostLevels - 2) + repeat("]", kMostLevels - 2)}) {
        EXPECT_EQ(problem_of(text), "") << text;
    }
    for (const std::string& text :
         {repeat("a.", kMostLevels) + "a = 1", "[" + repeat("a.", kMostLevels - 1) + "a]",
          "a = " + repeat("[", kMostLevels) + repeat("]", kMostLevels),
          "a = " + repeat("{a=", kMostLevels) + "1" + repeat("}", kMostLevels),
          "a.a = " + repeat("[", kMostLevels - 1) + repeat("]", kMostLevels - 1)}) {
        EXPECT_EQ(problem_of(text), kTooDeep) << text;
    }
}

TEST(Depth, IsLessAgainBehindWhatEnds)
{
    std::string lines;
    for (std::size_t i = 0; i < 2 * kMostLevels; ++i) {
        const std::string key = "k" + std::to_string(i);
        lines += key + "a.b = [[1.5], [2]]\n" + key + "c = { d.e = 1, f = { g = 2 } }\n";
        lines += key + "h = [\n1,\n2]\n[" + key + "t.u]\n[[" + key + "v.w]]\n";
    }
    EXPECT_EQ(problem_of(lines), "");
    EXPECT_EQ(problem_of("a = [" + repeat("[1.5], ", 2 * kMostLevels) + "]"), "");
    EXPECT_EQ(
        problem_of("a = [" + repeat("{ b = { c.d = 1 }, e.f = 2 },\n", 2 * kMostLevels) + "]"), "");
}

TEST(Depth, IsNotThatOfTextsAndComments)
{
    const std::string deep = repeat("[.{", kMostLevels);
    for (const std::string& text :
         {"a = \"" + deep + "\"", "a = '" + deep + "'", "a = \"\\\"" + deep + "\"",
          "a = \"\"\"\n\"\"" + deep + "\"\"\"", "a = '''\n''" + deep + "'''",
          "a = \"\"\"\\\"\"\"" + deep + "\"\"\"", "# \"\"\"" + deep + "\na = 1",
          "a = 1 # '" + deep}) {
        EXPECT_EQ(problem_of(text), "") << text;
    }
}

TEST(Depth, CountsOnBehindTextsAndComments)
{
    const std::string deep = repeat("[", kMostLevels);
    for (const std::string text : {"\"\"",
                                   "''",
                                   "\"a\"",
                                   "'a'",
                                   "\"\\\\\"",
                                   "\"\\\"\"",
                                   "'\\'",
                                   "\"\\u0041\"",
                                   "\"'\"",
                                   "'\"'",
                                   "\"\"\"\"\"\"",
                                   "''''''",
                                   "\"\"\"a\"\"\"",
                                   "'''a'''",
                                   "\"\"\"a\"\"\"\"",
                                   "'''a''''",
                                   "\"\"\"a\"\"\"\"\"",
                                   "'''a'''''",
                                   "\"\"\"a\"b\"\"c\"\"\"",
                                   "'''a'b''c'''",
                                   "\"\"\"\\\"\"\"\"",
                                   "\"\"\"\\\\\"\"\"",
                                   "'''\\'''"}) {
        const std::string begin = "a = [" + text + ", ";
        // The problem stands behind the last bracket that is allowed.
        EXPECT_EQ(place_of_problem(begin + deep),
                  (Place{0, 1, static_cast<std::uint32_t>(begin.size() + kMostLevels)}))
            << text;
        EXPECT_EQ(problem_of(begin + deep), kTooDeep) << text;
    }
    for (const std::string comment : {"#", "# it's", "# \"\"\"", "# '''", "# [[", "# {.\\"}) {
        EXPECT_EQ(problem_of(comment + "\na = " + deep + "["), kTooDeep) << comment;
    }
    EXPECT_EQ(problem_of(repeat("\"a\".", kMostLevels) + "a = 1"), kTooDeep);
    EXPECT_EQ(problem_of(repeat("'a'.", kMostLevels) + "a = 1"), kTooDeep);
}

TEST(Depth, StandsAtACharacter)
{
    EXPECT_EQ(place_of_problem("# \xC3\xA4\n\n\"\xE2\x82\xAC\" = " + repeat("[", 300), 7),
              (Place{7, 3, 6 + 1 + kMostLevels}));
    EXPECT_EQ(place_of_problem(repeat("a.", 300), 1), (Place{1, 1, 1 + 2 * kMostLevels}));
}

TEST(Depth, LeavesToTheParserWhatIsNoToml)
{
    for (const std::string& text :
         {repeat("a.b = \"x\n", 2 * kMostLevels), repeat("]}", 2 * kMostLevels),
          "a = [\"\"\"a\"\"\"\"\"\", " + repeat("[", 2 * kMostLevels), std::string("a = \"\\"),
          std::string("a = \"\"\"b\"\""), std::string("a = '''b")}) {
        const std::string problem = problem_of(text);
        EXPECT_NE(problem, "") << text;
        EXPECT_NE(problem, kTooDeep) << text;
    }
}

TEST(Toml, KnowsItsSource)
{
    for (const std::uint32_t source : {0U, 1U, 2U, 12U}) {
        Problems problems;
        const auto tree = parse_toml("a = 1\n  b = \"\xC3\xA4\"", source, problems);

        ASSERT_TRUE(tree) << source;
        EXPECT_EQ(place_of(*tree->get("a")), (Place{source, 1, 5}));
        EXPECT_EQ(place_of(tree->find("b")->first), (Place{source, 2, 3}));
        EXPECT_EQ(place_of_problem("a = 1\nb = =", source), (Place{source, 2, 5}));
    }
}

/// The list of integers under a key.
std::vector<std::int64_t> integers(const toml::table& tree, const char* path)
{
    std::vector<std::int64_t> numbers;
    for (const toml::node& item : *tree.at_path(path).as_array()) {
        numbers.push_back(**item.as_integer());
    }
    return numbers;
}

TEST(MergedToml, AppendsListsOfConnectionsAlone)
{
    const auto text = [](int number) {
        const std::string list = " = [" + std::to_string(number) + "]\n";
        return "connections" + list + "superblocks.s.connections" + list + "include" + list +
               "superblocks.s.other" + list + "superblocks.connections" + list +
               "blocks.superblocks.s.connections" + list + "blocks.connections" + list;
    };
    Problems problems;
    toml::table former = *parse_toml(text(1), 0, problems);

    merge_toml(former, *parse_toml(text(2), 1, problems));

    using Numbers = std::vector<std::int64_t>;
    EXPECT_EQ(integers(former, "connections"), (Numbers{1, 2}));
    EXPECT_EQ(integers(former, "superblocks.s.connections"), (Numbers{1, 2}));
    for (const char* path : {"include", "superblocks.s.other", "superblocks.connections",
                             "blocks.superblocks.s.connections", "blocks.connections"}) {
        EXPECT_EQ(integers(former, path), Numbers{2}) << path;
    }
}

TEST(MergedToml, ReplacesWhatIsOfAnotherKind)
{
    Problems problems;
    toml::table former =
        *parse_toml("connections = 1\na = 1\nb.c = 1\nd = [1]\ne = 1", 0, problems);

    merge_toml(former, *parse_toml("connections = [2]\na.x = 2\nb = 2\nd = 2\ne = 2", 1, problems));
    EXPECT_EQ(integers(former, "connections"), std::vector<std::int64_t>{2});
    EXPECT_EQ(former.at_path("a.x").value<int>(), 2);
    EXPECT_EQ(former["b"].value<int>(), 2);
    EXPECT_EQ(former["d"].value<int>(), 2);
    EXPECT_EQ(place_of(former.find("e")->first), (Place{1, 5, 1}));

    merge_toml(former, *parse_toml("connections = 3", 2, problems));
    EXPECT_EQ(former["connections"].value<int>(), 3);
}

}  // namespace
