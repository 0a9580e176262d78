// The table of what blocks have done.
#pragma once

#include <quorval/runtime/graph.h>

#include <string>
#include <vector>

/// A line for each block, under a line of titles, in columns.
std::string to_table(const std::vector<Quorval::BlockStatistics>& statistics);
