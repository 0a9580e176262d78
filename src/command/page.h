// Text for people: indented, aligned, wrapped, coloured.
#pragma once

#include <string>
#include <utility>
#include <vector>

/// What the text is written on.
struct PageStyle {
    unsigned width = 0;  ///< in columns; 0: lines are as long as they are
    bool has_colours = false;
};

/// A text that grows from the top down. Control characters of what is added appear as \xHH.
class Page {
public:
    explicit Page(PageStyle style) : style_(style) {}

    /// The name of what follows, in bold, with something behind it.
    void add_title(unsigned indent, const std::string& name, const std::string& more = "");

    void add_paragraph(unsigned indent, const std::string& text);

    /// A paragraph in red.
    void add_problem(unsigned indent, const std::string& text);

    /// A name, and the paragraphs that stand beside it.
    using Row = std::pair<std::string, std::vector<std::string>>;

    /// The paragraphs of all rows begin in the same column.
    void add_rows(unsigned indent, const std::vector<Row>& rows);

    /// One empty line, but not at the top.
    void add_gap();

    const std::string& text() const { return text_; }

private:
    void add_line(unsigned indent, const std::string& line);
    std::string coloured(const char* colour, const std::string& text) const;

    PageStyle style_;
    std::string text_;
};
