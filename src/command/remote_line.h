// What the command lines of all commands for running graphs have in common.
#pragma once

#include <quorval/runtime/bus.h>
#include <quorval/runtime/remote.h>
#include "command_line.h"

#include <memory>
#include <string>
#include <vector>

/// @param text  "user", "system" or "none"
/// @throws UsageError  it is another one
Quorval::Bus read_bus(const std::string& text);

/// The option --bus, and the name of a graph.
class RemoteLine {
public:
    /// Adds the option; both have to live as long as `line` is used.
    explicit RemoteLine(CommandLine& line);

    /// The buses to look on.
    /// @throws UsageError  --bus says something else than "user" or "system"
    std::vector<Quorval::Bus> buses() const;

    /// The graph that the command line names.
    /// @param arguments  what the command line holds beside options, the name first
    /// @throws UsageError   there is no name
    /// @throws RemoteError  there is no such graph
    std::unique_ptr<Quorval::RemoteGraph> find_graph(
        const std::vector<std::string>& arguments) const;

private:
    std::string bus_;
};

/// The part of a help text about the exit status of these commands.
std::string remote_status_help();
