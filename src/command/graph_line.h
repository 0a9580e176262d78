// What the command lines of all commands that read graphs have in common.
#pragma once

#include <quorval/runtime/graph.h>
#include "command_line.h"
#include "plugin_path.h"

#include <memory>
#include <string>
#include <vector>

/// The options --set and --plugin-path, and the names of the graph files.
class GraphLine {
public:
    /// Adds the options; both have to live as long as `line` is used.
    explicit GraphLine(CommandLine& line);

    /// What the graph is made of.
    /// @param files  what the command line holds beside options
    /// @throws UsageError  there is no file
    Quorval::GraphOptions graph_options(std::vector<std::string> files) const;

private:
    std::vector<std::string> assignments_;
    PluginPathOption plugin_path_;
};

/// Adds the option --machine.
void add_machine(CommandLine& line, std::string& machine);

/// Makes the graph.
/// @throws GraphError  something is wrong with the files
/// @throws UsageError  an assignment is not of the form PATH.KEY=VALUE:
///     "'<text>' is not of the form PATH.KEY=VALUE"; or the machine is none of the graph, or
///     missing
std::unique_ptr<Quorval::Graph> make_graph(const Quorval::GraphOptions& options);

/// The part of a help text about the exit status of a command that runs nothing.
std::string status_help();
