// quorval replay: runs a graph on what was recorded.
#include <quorval/runtime/crash.h>
#include <quorval/runtime/graph.h>
#include "command.h"
#include "command_line.h"
#include "graph_line.h"
#include "running.h"

#include <string>
#include <vector>

namespace {

HelpText help_of_replay()
{
    return {"quorval replay [OPTION...] RECORDING FILE...",
            "Runs the graph of the files, with what was recorded in the place of the blocks that\n"
            "gave it.",
            "Exit status:\n"
            "  0  all that was recorded was replayed, or the graph was stopped\n"
            "  1  a block failed, or output could not be written\n"
            "  2  wrong use of the command line\n"
            "  3  the graph, a plug-in or the recording is wrong\n"
            "\n"
            "Example:\n"
            "  quorval replay --fast monday.rec loudness.toml"};
}

}  // namespace

int replay_command(const Arguments& arguments)
{
    CommandLine line(help_of_replay());
    GraphLine graph_line(line);
    bool is_fast = false;
    std::string state;
    std::string machine;
    bool is_local = false;
    std::string threads;
    Verbosity verbosity;
    line.add_flag("--fast", is_fast, "do not wait for the time of each wave");
    line.add_value("--state", state, "DIR",
                   "keep the state of the blocks below DIR (default: the first of "
                   "$STATE_DIRECTORY, else none)");
    add_machines(line, machine, is_local);
    add_threads(line, threads);
    add_verbosity(line, verbosity);
    auto files = line.read(arguments);
    if (!files.has_value()) {
        return kDone;
    }
    if (files->empty()) {
        throw UsageError("a recording is missing");
    }
    const std::string recording = files->front();
    files->erase(files->begin());
    Quorval::GraphOptions options = graph_line.graph_options(*files);
    options.state_directory = state;
    options.takes_signals = true;
    options.tells_manager = true;
    set_machine(options, machine, is_local);
    options.threads = read_threads(threads);
    options.replay_file = recording;
    options.replays_fast = is_fast;
    Quorval::report_crashes();
    return run_graph(options, to_level(verbosity));
}
