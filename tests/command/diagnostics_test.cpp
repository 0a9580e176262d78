#include "diagnostics.h"

#include <quorval/runtime/diagnostic.h>
#include "command/terminal.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <optional>
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

/// What a terminal gets, of an error with a place and a warning without one.
std::string show_on_terminal(const std::string& kind, const std::optional<std::string>& no_color)
{
    const quorval_test::ScopedEnvironment term("TERM", kind);
    const quorval_test::ScopedEnvironment colours("NO_COLOR", no_color);
    Diagnostic error = at(3, "a error: = 1");
    error.text = "wrong: error: twice";
    quorval_test::TerminalStreams terminal({STDERR_FILENO});
    show_diagnostics({error, {"--set a.b", 0, 0, false, "unused", ""}});
    return terminal.end();
}

TEST(ShowDiagnostics, ColoursTheKindOfAFinding)
{
    EXPECT_EQ(show_on_terminal("xterm", std::nullopt),
              "a.toml:1:3: \033[1;31merror:\033[0m wrong: error: twice\n"
              "a error: = 1\n"
              "  ^\n"
              "--set a.b: \033[1;35mwarning:\033[0m unused\n");
}

TEST(ShowDiagnostics, HasNoColoursWhereTheyAreNotWanted)
{
    const std::string plain =
        "a.toml:1:3: error: wrong: error: twice\n"
        "a error: = 1\n"
        "  ^\n"
        "--set a.b: warning: unused\n";

    EXPECT_EQ(show_on_terminal("xterm", "1"), plain);
    EXPECT_EQ(show_on_terminal("dumb", std::nullopt), plain);
    EXPECT_NE(show_on_terminal("xterm", ""), plain);
}

}  // namespace
