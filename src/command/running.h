// What commands that run graphs have in common.
#pragma once

#include <quorval/log.h>
#include <quorval/runtime/graph.h>
#include "command_line.h"

#include <string>

/// How much is written, as the options -q and -v say.
struct Verbosity {
    bool is_quiet = false;
    int verbose_count = 0;
};

/// Adds the options.
/// @param verbosity  has to live as long as `line` is used
void add_verbosity(CommandLine& line, Verbosity& verbosity);

/// Adds the options --machine and --local.
/// @param machine   has to live as long as `line` is used, and `is_local` too
void add_machines(CommandLine& line, std::string& machine, bool& is_local);

/// @throws UsageError  both were given: "--machine and --local exclude each other"
void set_machine(Quorval::GraphOptions& options, const std::string& machine, bool is_local);

/// Adds the option --threads.
/// @param threads  what was given; has to live as long as `line` is used
void add_threads(CommandLine& line, std::string& threads);

/// @throws UsageError  "--threads has to be a number from 1 to 256, not '<text>'"
unsigned read_threads(const std::string& text);

/// The most verbose level that is shown.
loglevel to_level(const Verbosity& verbosity);

/// Makes a graph and runs it. Shows what is wrong with it, or with its recording, and writes the
/// table of its runs where they are timed.
/// @return the exit status
int run_graph(const Quorval::GraphOptions& options, loglevel level);
