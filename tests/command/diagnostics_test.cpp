#include "diagnostics.h"

#include <quorval/runtime/diagnostic.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using Quorval::Diagnostic;

Diagnostic at(unsigned column, const std::string& line)
{
    Diagnostic diagnostic;
    diagnostic.file = "a.toml";
    diagnostic.line = 1;
    diagnostic.column = column;
    diagnostic.source_line = line;
    return diagnostic;
}

TEST(ShowPlace, PutsACaretBelowTheColumn)
{
    EXPECT_EQ(show_place(at(1, "name = 1")), "name = 1\n^\n");
    EXPECT_EQ(show_place(at(8, "name = 1")), "name = 1\n       ^\n");
    EXPECT_EQ(show_place(at(9, "name = 1")), "name = 1\n        ^\n");
    EXPECT_EQ(show_place(at(100, "name = 1")), "name = 1\n        ^\n");
}

TEST(ShowPlace, MindsTabsAndWideCharacters)
{
    EXPECT_EQ(show_place(at(2, "\tx")), "        x\n        ^\n");
    EXPECT_EQ(show_place(at(3, "漢字x")), "漢字x\n    ^\n");
    EXPECT_EQ(show_place(at(2, "\x01x")), "\\x01x\n    ^\n");
    EXPECT_EQ(show_place(at(3, "e\xcc\x81x")), "e\xcc\x81x\n ^\n");
}

TEST(ShowPlace, ShowsThePartOfALongLineAroundTheColumn)
{
    const std::string line = std::string(100, 'a') + "X" + std::string(100, 'b');

    EXPECT_EQ(show_place(at(101, line)), std::string(60, 'a') + "X" + std::string(59, 'b') + "\n" +
                                             std::string(60, ' ') + "^\n");
}

TEST(ShowPlace, ShowsNothingWhereThereIsNoLine)
{
    EXPECT_EQ(show_place(at(1, "")), "");
    Diagnostic assignment = at(0, "x");
    assignment.line = 0;
    EXPECT_EQ(show_place(assignment), "");
}

TEST(DiagnosticsToJson, KeepsItsFormWhateverTheTextsHold)
{
    Diagnostic diagnostic = at(2, "");
    diagnostic.file = "\xff\"";
    diagnostic.text = "\n";

    EXPECT_EQ(to_json({diagnostic}),
              "[\n  {\n    \"column\": 2,\n    \"file\": \"\xef\xbf\xbd\\\"\",\n    \"line\": 1,\n"
              "    \"severity\": \"error\",\n    \"text\": \"\\n\"\n  }\n]\n");
}

}  // namespace
