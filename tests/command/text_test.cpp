#include "text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

/// The texts of the cells, each in brackets with its width.
std::string show(const std::vector<Cell>& cells)
{
    std::string shown;
    for (const Cell& cell : cells) {
        shown += "[" + cell.text + "]" + std::to_string(cell.width);
    }
    return shown;
}

TEST(EscapeControls, NamesControlCharactersByTheirNumber)
{
    EXPECT_EQ(escape_controls("a\tb\n\x1b\x7f"), "a\\x09b\\x0A\\x1B\\x7F");
    EXPECT_EQ(escape_controls(std::string(1, '\0')), "\\x00");
    EXPECT_EQ(escape_controls("\xC2\x80\xC2\x9Fx"), "\\xC2\\x80\\xC2\\x9Fx");
    EXPECT_EQ(escape_controls("\xC2\x9F"), "\\xC2\\x9F");
    EXPECT_EQ(escape_controls(std::string_view("\xC2\x85").substr(0, 1)), "\xC2");
    EXPECT_EQ(escape_controls("Größe 'x' \xC2\xA0 \xC2"), "Größe 'x' \xC2\xA0 \xC2");
}

TEST(ToPrintable, NamesBytesThatAreNoUtf8)
{
    EXPECT_EQ(to_printable("Größe\n"), "Größe\\x0A");
    EXPECT_EQ(to_printable("a\xff\xc3"), "a\\xFF\\xC3");
    EXPECT_EQ(to_printable(std::string(1, '\0')), "\\x00");
}

TEST(LayOut, KnowsHowWideCharactersAre)
{
    EXPECT_EQ(show(lay_out("aö")), "[a]1[ö]1");
    EXPECT_EQ(show(lay_out("漢")), "[漢]2");
    EXPECT_EQ(show(lay_out("e\xcc\x81")), "[e]1[\xcc\x81]0");
    EXPECT_EQ(show(lay_out("")), "");
}

TEST(LayOut, FillsTabsUpToTheNextMultipleOfEightColumns)
{
    EXPECT_EQ(show(lay_out("\t")), "[        ]8");
    EXPECT_EQ(show(lay_out("ab\tc")), "[a]1[b]1[      ]6[c]1");
    EXPECT_EQ(show(lay_out("漢\t")), "[漢]2[      ]6");
}

TEST(LayOut, NamesWhatCannotBeShownByItsNumber)
{
    EXPECT_EQ(show(lay_out("\x1b[")), "[\\x1B]4[[]1");
    EXPECT_EQ(show(lay_out("\xff")), "[\\xFF]4");
    EXPECT_EQ(show(lay_out("\\x1B")), "[\\]1[x]1[1]1[B]1");
    EXPECT_EQ(show(lay_out(std::string(1, '\0'))), "[\\x00]4");
}

}  // namespace
