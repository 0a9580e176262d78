#include "graph_line.h"

#include <stdexcept>
#include <utility>

std::string status_help()
{
    return "Exit status:\n"
           "  0  done\n"
           "  1  output could not be written, or a helper program is missing\n"
           "  2  wrong use of the command line\n"
           "  3  the graph or a plug-in is wrong\n";
}

GraphLine::GraphLine(CommandLine& line) : plugin_path_(line)
{
    line.add_list("--set", assignments_, "PATH.KEY=VALUE",
                  "gives a block another value; may be repeated");
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
    options.plugin_path = plugin_path_.directories();
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
