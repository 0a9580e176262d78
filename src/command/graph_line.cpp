#include "graph_line.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <utility>

namespace {

/// The parts of a list whose parts are parted by ":", without the empty ones.
void split_path(const std::string& list, std::vector<std::string>& directories)
{
    std::size_t begin = 0;
    while (begin <= list.size()) {
        const std::size_t end = std::min(list.find(':', begin), list.size());
        if (end > begin) {
            directories.push_back(list.substr(begin, end - begin));
        }
        begin = end + 1;
    }
}

}  // namespace

std::string status_help()
{
    return "Exit status:\n"
           "  0  done\n"
           "  1  output could not be written, or a helper program is missing\n"
           "  2  wrong use of the command line\n"
           "  3  the graph or a plug-in is wrong\n";
}

GraphLine::GraphLine(CommandLine& line)
{
    line.add_list("--set", assignments_, "PATH.KEY=VALUE",
                  "gives a block another value; may be repeated");
    line.add_list("--plugin-path", plugin_paths_, "DIRS",
                  "look for plug-ins in these directories first, parted by ':'");
}

Quorval::GraphOptions GraphLine::graph_options(std::vector<std::string> files) const
{
    if (files.empty()) {
        throw UsageError("a graph file is missing");
    }
    Quorval::GraphOptions options;
    options.files = std::move(files);
    options.assignments = assignments_;
    options.keeps_plugins = true;
    for (const std::string& list : plugin_paths_) {
        split_path(list, options.plugin_path);
    }
    return options;
}

void add_machine(CommandLine& line, std::string& machine)
{
    line.add_value("--machine", machine, "NAME",
                   "the blocks of this machine alone, of a graph of several");
}

std::unique_ptr<Quorval::Graph> make_graph(const Quorval::GraphOptions& options)
{
    try {
        return std::make_unique<Quorval::Graph>(options);
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    }
}
