// Tables of what blocks and links have done.
#pragma once

#include <quorval/runtime/graph.h>

#include <chrono>
#include <string>
#include <vector>

/// "1.50 ms": three digits at least, and the unit that leaves one to three in front of the point.
std::string describe_time(std::chrono::nanoseconds time);

/// A line for each block, under a line of titles, in columns.
std::string to_table(const std::vector<Quorval::BlockStatistics>& statistics);

/// A line for each output that goes out, "a.out ->", or comes in, "-> a.out"; likewise.
std::string to_link_table(const std::vector<Quorval::LinkStatistics>& statistics);
