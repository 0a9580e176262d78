#include "page.h"

#include <gtest/gtest.h>

namespace {

TEST(PageTest, AlignsRowsByWhatATerminalShows)
{
    Page page({0, false});
    page.add_rows(2, {{"a", {"one", "two"}}, {"ä long one", {"three"}}, {"alone", {""}}});

    EXPECT_EQ(page.text(),
              "  a           one\n"
              "              two\n"
              "  ä long one  three\n"
              "  alone\n");
}

TEST(PageTest, WrapsAtBlanks)
{
    Page page({30, false});
    page.add_rows(2, {{"key", {"words that go on and on until the end"}}});
    page.add_paragraph(10, "a-word-that-is-too-long-for-a-line and more");

    EXPECT_EQ(page.text(),
              "  key  words that go on and on\n"
              "       until the end\n"
              "          a-word-that-is-too-long-for-a-line\n"
              "          and more\n");
}

TEST(PageTest, FillsALineToItsLastColumn)
{
    const std::string ten(10, 'a');
    Page page({24, false});
    page.add_paragraph(0, ten + " " + std::string(13, 'b'));
    page.add_paragraph(0, ten + " " + std::string(14, 'c'));
    page.add_problem(2, ten + " " + std::string(11, 'd'));
    page.add_problem(2, ten + " " + std::string(12, 'e'));

    EXPECT_EQ(page.text(), ten + " " + std::string(13, 'b') + "\n" +  //
                               ten + "\n" + std::string(14, 'c') + "\n" + "  " + ten + " " +
                               std::string(11, 'd') + "\n" + "  " + ten + "\n  " +
                               std::string(12, 'e') + "\n");
}

TEST(PageTest, WrapsNoTextWithoutATerminal)
{
    const std::string text = std::string(100, 'a') + " " + std::string(100, 'b') + " ";
    Page page({0, false});
    page.add_paragraph(2, text);
    page.add_problem(2, text);

    EXPECT_EQ(page.text(), "  " + text + "\n  " + text + "\n");
}

TEST(PageTest, KeepsAProblemReadableOnANarrowTerminal)
{
    Page page({1, false});
    page.add_problem(4, "words that are wrapped late");
    page.add_paragraph(4, "words that are wrapped late");
    page.add_paragraph(4, "words that go so late");  // of 21 columns
    page.add_rows(4, {{"k", {"v"}}});

    EXPECT_EQ(page.text(),
              "    words that are\n"
              "    wrapped late\n"
              "    words that are\n"
              "    wrapped late\n"
              "    words that go so\n"
              "    late\n"
              "    k  v\n");
}

TEST(PageTest, KeepsAColumnReadableOnANarrowTerminal)
{
    Page page({5, false});
    page.add_rows(4, {{"key", {"words that are wrapped late"}}});

    EXPECT_EQ(page.text(),
              "    key  words that are\n"
              "         wrapped late\n");
}

TEST(PageTest, ColoursNamesAndProblems)
{
    Page page({0, true});
    page.add_title(0, "name", "more");
    page.add_problem(4, "wrong");

    EXPECT_EQ(page.text(), "\033[1mname\033[0m  more\n    \033[1;31mwrong\033[0m\n");
}

TEST(PageTest, ShowsNoControlCharacters)
{
    Page page({0, false});
    page.add_title(0, "a\x1B[31m");
    page.add_gap();
    page.add_rows(0, {{"b\n", {"c\a"}}});

    EXPECT_EQ(page.text(), "a\\x1B[31m\n\nb\\x0A  c\\x07\n");
}

}  // namespace
