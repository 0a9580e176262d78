// Tables of what blocks and links have done.
#pragma once

#include <quorval/runtime/graph.h>

#include <chrono>
#include <string>
#include <vector>

/// "1.50 ms": three digits at least, and the unit that leaves one to three in front of the point.
std::string describe_time(std::chrono::nanoseconds time);

/// A row of a table: a name that is printable, and numbers.
using Row = std::vector<std::string>;

Row block_titles();
Row to_row(const Quorval::BlockStatistics& block);

/// An output that goes out is "a.out ->", one that comes in "-> a.out".
Row link_titles();
Row to_row(const Quorval::LinkStatistics& link);

/// A line for each block, under a line of titles, in columns.
std::string to_table(const std::vector<Quorval::BlockStatistics>& statistics);

/// A line for each output that goes over a link; likewise.
std::string to_link_table(const std::vector<Quorval::LinkStatistics>& statistics);
