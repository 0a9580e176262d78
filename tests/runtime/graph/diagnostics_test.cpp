// Findings with the lines that they are shown with.
#include "graph/diagnostics.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using Quorval::Diagnostic;
using Quorval::runtime::Problems;
using Quorval::runtime::Source;
using Quorval::runtime::to_diagnostics;

using Lines = std::vector<std::string>;

namespace {

/// The lines that are shown with findings in these lines of a text.
Lines lines_of(const std::string& text, const std::vector<std::uint32_t>& lines)
{
    Problems problems;
    for (const std::uint32_t line : lines) {
        problems.add_error({0, line, 1}, "wrong");
    }
    Lines shown;
    for (const Diagnostic& diagnostic : to_diagnostics(problems, {{"g.toml", text, false}})) {
        shown.push_back(diagnostic.source_line);
    }
    return shown;
}

TEST(Diagnostics, ShowTheirLines)
{
    EXPECT_EQ(lines_of("one\ntwo\n\nfour", {1, 2, 3, 4}), (Lines{"one", "two", "", "four"}));
    EXPECT_EQ(lines_of("one\ntwo\n", {2}), (Lines{"two"}));
    EXPECT_EQ(lines_of("one\r\n\r\nthree\r\n", {1, 2, 3}), (Lines{"one", "", "three"}));
    EXPECT_EQ(lines_of("one\rone\r\r\n", {1}), (Lines{"one\rone\r"}));
    EXPECT_EQ(lines_of("", {1}), (Lines{""}));
    EXPECT_EQ(lines_of("one", {1, 2, 3, 7}), (Lines{"one", "", "", ""}));
    EXPECT_EQ(lines_of("one\n", {2, 3, 4}), (Lines{"", "", ""}));
}

TEST(Diagnostics, ShowNoLineThatIsLong)
{
    constexpr std::size_t kLongest = 1000;
    const std::string longest(kLongest, 'x');

    EXPECT_EQ(lines_of(longest + "\n" + longest + "x\n" + longest, {1, 2, 3}),
              (Lines{longest, "", longest}));
    EXPECT_EQ(lines_of("one\n" + longest + "x", {1, 2}), (Lines{"one", ""}));
}

TEST(Diagnostics, SayWhatIsWrongAndWhere)
{
    Problems problems;
    problems.add_warning({1, 0, 0}, "no line\n");
    problems.add_error({0, 2, 3}, "a line");
    problems.add_error({2, 1, 1}, "a line");
    problems.add_error({3, 1, 1}, "a line");

    const std::vector<Diagnostic> diagnostics =
        to_diagnostics(problems, {{"g\x1B.toml", "a\nb", false},
                                  {"--set a.b", "", true},
                                  {"h.toml", "c", false},
                                  {"h.toml", "d", false}});

    ASSERT_EQ(diagnostics.size(), 3U);
    EXPECT_EQ(diagnostics[0].file, "g\x1B.toml");
    EXPECT_EQ(diagnostics[0].line, 2U);
    EXPECT_EQ(diagnostics[0].column, 3U);
    EXPECT_TRUE(diagnostics[0].is_error);
    EXPECT_EQ(diagnostics[0].source_line, "b");
    EXPECT_EQ(to_string(diagnostics[0]), "g\\x1B.toml:2:3: error: a line");
    EXPECT_EQ(diagnostics[1].line, 0U);
    EXPECT_FALSE(diagnostics[1].is_error);
    EXPECT_EQ(diagnostics[1].source_line, "");
    EXPECT_EQ(to_string(diagnostics[1]), "--set a.b: warning: no line\\x0A");
    EXPECT_EQ(to_string(diagnostics[2]), "h.toml:1:1: error: a line");
    EXPECT_EQ(diagnostics[2].source_line, "c");
}

TEST(GraphErrorTest, HasALineForEachFinding)
{
    Problems problems;
    problems.add_error({0, 1, 1}, "one");
    problems.add_warning({0, 2, 1}, "two");
    const Quorval::GraphError error(to_diagnostics(problems, {{"g", "a", false}}));

    EXPECT_STREQ(error.what(), "g:1:1: error: one\ng:2:1: warning: two");
    EXPECT_EQ(error.diagnostics().size(), 2U);
    EXPECT_STREQ(Quorval::GraphError({}).what(), "");
}

}  // namespace
