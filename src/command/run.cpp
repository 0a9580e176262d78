// quorval run: runs a graph.
#include <quorval/runtime/crash.h>
#include <quorval/runtime/graph.h>
#include "command.h"
#include "command_line.h"
#include "duration.h"
#include "graph_line.h"
#include "output.h"
#include "progress.h"
#include "remote_line.h"
#include "running.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

std::chrono::nanoseconds read_duration(const std::string& text)
{
    const auto duration = parse_duration(text);
    if (!duration.has_value() || duration->count() == 0) {
        throw UsageError("--for has to be a duration such as 500ms, 10s or 5m, not '" + text + "'");
    }
    return *duration;
}

/// The parts of a list whose parts are parted by ",".
std::vector<std::string> split_list(const std::string& list)
{
    std::vector<std::string> parts;
    std::size_t begin = 0;
    while (begin <= list.size()) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        parts.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

void read_recording_options(bool has_recording, bool has_outputs, const std::string& outputs,
                            Quorval::GraphOptions& options)
{
    if (has_recording && options.record_file.empty()) {
        throw UsageError("--record needs the name of a file");
    }
    if (has_outputs && !has_recording) {
        throw UsageError("--outputs needs --record");
    }
    if (has_outputs) {
        options.record_outputs = split_list(outputs);
    }
}

HelpText help_of_run()
{
    return {"quorval run [OPTION...] FILE...",
            "Runs the graph of the files until it has come to its end.",
            "Exit status:\n"
            "  0  the graph came to its end, or was stopped\n"
            "  1  a block failed, the bus or its name was not to be had, the state is in use,\n"
            "     the broker refused or let a later run take its place, or output or the\n"
            "     recording could not be written\n"
            "  2  wrong use of the command line\n"
            "  3  the graph, a plug-in or what was saved is wrong, or nothing would ever run\n"
            "\n"
            "Example:\n"
            "  quorval run --state /var/lib/loudness loudness.toml"};
}

}  // namespace

int run_command(const Arguments& arguments)
{
    CommandLine line(help_of_run());
    GraphLine graph_line(line);
    std::string state;
    std::string bus = "none";
    std::string duration;
    std::string machine;
    bool is_local = false;
    std::string threads;
    std::string trace_file;
    bool shows_statistics = false;
    std::string record_file;
    std::string outputs;
    Verbosity verbosity;
    line.add_value("--state", state, "DIR",
                   "keep the state of the blocks below DIR (default: the first of "
                   "$STATE_DIRECTORY, else none)");
    line.add_value("--bus", bus, "BUS",
                   "be seen and changed on this bus: user, system, none (default: none)");
    line.add_value("--for", duration, "DURATION",
                   "stop after this time: 500ms, 10s, 5m (default: at the end of the graph)");
    add_threads(line, threads);
    line.add_flag("--stats", shows_statistics,
                  "write how often blocks ran, failed, and how long that took, at the end");
    line.add_value("--trace", trace_file, "FILE",
                   "write each run of a block to FILE, for viewers of trace events");
    add_machines(line, machine, is_local);
    line.add_value("--record", record_file, "FILE",
                   "record what outputs give into FILE, which is made");
    line.add_value("--outputs", outputs, "A.OUT,B.OUT",
                   "record these (default: the outputs of the sources)");
    add_verbosity(line, verbosity);
    const auto files = line.read(arguments);
    if (!files.has_value()) {
        return kDone;
    }
    Quorval::GraphOptions options = graph_line.graph_options(*files);
    options.state_directory = state;
    options.times_runs = shows_statistics;
    options.threads = read_threads(threads);
    options.trace_file = trace_file;
    options.takes_signals = true;
    options.tells_manager = true;
    options.bus = read_bus(bus);
    set_machine(options, machine, is_local);
    options.record_file = record_file;
    read_recording_options(line.has("--record"), line.has("--outputs"), outputs, options);
    if (line.has("--for")) {
        options.run_for = read_duration(duration);
    }
    ProgressLine progress;
    if (has_terminal() && !verbosity.is_quiet) {
        options.on_progress = [&](const std::string& path, std::uint64_t done,
                                  std::uint64_t total) { progress.show(path, done, total); };
    }
    const loglevel level = to_level(verbosity);
    Quorval::report_crashes();
    return run_graph(options, level);
}
