// What the commands of `quorval` have in common.
#pragma once

#include <string>
#include <vector>

/// The exit status of every command.
enum ExitStatus : int {
    kDone = 0,
    kFailed = 1,      ///< while running; output that was not written; a missing helper program
    kWrongUse = 2,    ///< of the command line
    kWrongGraph = 3,  ///< or a plug-in, or a store file
};

/// What stands behind the name of the command on the command line.
using Arguments = std::vector<std::string>;

/// Each gives the exit status.
/// @throws UsageError  the command line is wrong
int check_command(const Arguments& arguments);
int config_command(const Arguments& arguments);
int describe_command(const Arguments& arguments);
int get_command(const Arguments& arguments);
int graph_command(const Arguments& arguments);
int inspect_command(const Arguments& arguments);
int list_command(const Arguments& arguments);
int new_command(const Arguments& arguments);
int recording_command(const Arguments& arguments);
int replay_command(const Arguments& arguments);
int run_command(const Arguments& arguments);
int schema_command(const Arguments& arguments);
int set_command(const Arguments& arguments);
int stop_command(const Arguments& arguments);
int top_command(const Arguments& arguments);
