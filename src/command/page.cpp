#include "page.h"

#include "text.h"

#include <algorithm>
#include <cstddef>
#include <sstream>

namespace {

constexpr const char* kBold = "\033[1m";
constexpr const char* kRed = "\033[1;31m";
constexpr const char* kPlain = "\033[0m";
constexpr unsigned kGap = 2;
/// A column is not made narrower than this, whatever the terminal.
constexpr unsigned kNarrowest = 20;

unsigned width_of(const std::string& text)
{
    unsigned width = 0;
    for (const Cell& cell : lay_out(text)) {
        width += cell.width;
    }
    return width;
}

/// The lines of a paragraph, parted at blanks. A word that is too long has a line of its own.
std::vector<std::string> wrap(const std::string& paragraph, unsigned width)
{
    if (width == 0) {
        return {paragraph};
    }
    std::vector<std::string> lines;
    std::istringstream words(paragraph);
    for (std::string word; std::getline(words, word, ' ');) {
        if (lines.empty() || width_of(lines.back()) + 1 + width_of(word) > width) {
            lines.push_back(word);
        } else {
            lines.back() += " " + word;
        }
    }
    return lines;
}

}  // namespace

void Page::add_title(unsigned indent, const std::string& name, const std::string& more)
{
    std::string line = coloured(kBold, to_printable(name));
    if (!more.empty()) {
        line += std::string(kGap, ' ') + to_printable(more);
    }
    add_line(indent, line);
}

void Page::add_paragraph(unsigned indent, const std::string& text)
{
    add_rows(indent, {{"", {text}}});
}

void Page::add_problem(unsigned indent, const std::string& text)
{
    const unsigned width = style_.width == 0 ? 0 : std::max(style_.width, indent + kNarrowest);
    for (const std::string& line : wrap(to_printable(text), width == 0 ? 0 : width - indent)) {
        add_line(indent, coloured(kRed, line));
    }
}

void Page::add_rows(unsigned indent, const std::vector<Row>& rows)
{
    unsigned name_width = 0;
    for (const Row& row : rows) {
        name_width = std::max(name_width, width_of(to_printable(row.first)));
    }
    const unsigned begin = indent + name_width + (name_width > 0 ? kGap : 0);
    const unsigned width =
        style_.width == 0 ? 0 : std::max(style_.width, begin + kNarrowest) - begin;
    for (const Row& row : rows) {
        std::string left = to_printable(row.first);
        for (const std::string& paragraph : row.second) {
            if (paragraph.empty()) {
                continue;
            }
            for (const std::string& line : wrap(to_printable(paragraph), width)) {
                left.append(begin - indent - width_of(left), ' ').append(line);
                add_line(indent, left);
                left.clear();
            }
        }
        if (!left.empty()) {
            add_line(indent, left);
        }
    }
}

void Page::add_gap()
{
    if (!text_.empty()) {
        text_ += "\n";
    }
}

void Page::add_line(unsigned indent, const std::string& line)
{
    text_ += std::string(indent, ' ') + line + "\n";
}

std::string Page::coloured(const char* colour, const std::string& text) const
{
    return style_.has_colours ? colour + text + kPlain : text;
}
