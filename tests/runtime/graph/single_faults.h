// All graphs with one fault that come of a right graph, and what has to be found in each.
#pragma once

#include "runtime/graph/written_graph.h"

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace quorval_test {

/// A line that has to be found, at a part of the graph with the fault.
struct ExpectedLine {
    enum class At { Key, Value, Begin };  // the last one: 1:1 of its file

    std::string part;
    At at = At::Value;
    std::string text;  // with "error: " or "warning: "; kWrittenKey stands for the key as written
};

constexpr const char* kWrittenKey = "{key as written}";

struct SingleFault {
    std::string name;
    std::function<void(WrittenGraph&)> make;
    std::vector<ExpectedLine> lines;
};

/// What the generator cannot know of a graph.
struct GraphNotes {
    /// The cycle that there is where a delayed connection is not delayed, by its part: the last
    /// connection of the cycle in the file, and its blocks.
    std::map<std::string, std::pair<std::string, std::string>> cycles;
    /// Where plug-ins are looked for, parted by ":".
    std::string plugin_directories;
    /// The block types of the plug-in of the tests, parted by ", ".
    std::string types;
};

/// Each fault at each place where it can be made. Superblocks are expected to have types without a
/// colon, plain blocks to be `parts:Gain`, `parts:Ports` or `parts:Declared`, which decides what
/// becomes of their settings; names that the graph holds differ by more than two letters.
std::vector<SingleFault> single_faults(const WrittenGraph& right, const GraphNotes& notes);

}  // namespace quorval_test
