// What is wrong with a graph, and where.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// A place in what the user wrote: a character of a file, or an assignment as a whole.
struct Place {
    /// Where files and assignments stand in the order in which problems are reported: an index
    /// into the list of sources. An included file stands directly behind the one that names it
    /// first, assignments stand behind all files.
    std::uint32_t source = 0;
    std::uint32_t line = 0;    ///< from 1; 0 in an assignment
    std::uint32_t column = 0;  ///< from 1, in characters; 0 in an assignment

    bool operator==(const Place& other) const
    {
        return source == other.source && line == other.line && column == other.column;
    }
    bool operator<(const Place& other) const
    {
        return source != other.source ? source < other.source
               : line != other.line   ? line < other.line
                                      : column < other.column;
    }
};

enum class Severity { Warning, Error };

/// One finding. The text is one line, without position and severity.
struct Problem {
    Place place;
    Severity severity = Severity::Error;
    std::string text;
};

/// What was found so far, in any order. A value.
class Problems {
public:
    void add_error(const Place& place, std::string text);
    void add_warning(const Place& place, std::string text);
    bool has_errors() const { return error_count_ > 0; }

    /// All findings by place, those at the same place in the order in which they were added; what
    /// would be printed twice is there once.
    std::vector<Problem> sorted() const;

private:
    std::vector<Problem> problems_;
    std::size_t error_count_ = 0;
};

}  // namespace Quorval::runtime
