// What `quorval top` shows.
#pragma once

#include <quorval/runtime/graph.h>

#include <chrono>
#include <string>
#include <vector>

/// A block, and how long it ran of late.
struct TopRow {
    Quorval::BlockStatistics block;
    std::chrono::nanoseconds recent{};  ///< since the look before; 0 at the first one
};

/// The terminal that the table is drawn on.
struct TopStyle {
    unsigned width = 0;  ///< in columns
    unsigned height = 0;
    bool has_colours = false;
    bool has_unicode = false;
};

/// The blocks by their time since the look before, then by their time in all; else in their order.
/// @param before  what they had done then; empty: there was no look before
std::vector<TopRow> to_rows(const std::vector<Quorval::BlockStatistics>& before,
                            const std::vector<Quorval::BlockStatistics>& now);

/// Tables as large as the terminal at most: a title, names of columns, and as many blocks as there
/// is room for; below them the links, on the lower half of the terminal, or more where the blocks
/// leave it. A narrow one has fewer columns; the beginning of a long path is left out. A bar shows
/// the load of a block, the longest one that of the first.
/// @param interval  since the look before
/// @return the lines, without ends of line
std::vector<std::string> draw_top(const std::string& title, const std::vector<TopRow>& rows,
                                  const std::vector<Quorval::LinkStatistics>& links,
                                  std::chrono::nanoseconds interval, const TopStyle& style);
