#include "running.h"

#include <quorval/runtime/messages.h>
#include <quorval/runtime/recording.h>
#include "command.h"
#include "diagnostics.h"
#include "graph_line.h"
#include "output.h"
#include "statistics.h"

#include <charconv>
#include <cstdio>
#include <memory>

namespace {

int to_status(Quorval::RunResult result)
{
    using Quorval::RunResult;
    return result == RunResult::Done ? kDone : result == RunResult::Failed ? kFailed : kWrongGraph;
}

}  // namespace

void add_verbosity(CommandLine& line, Verbosity& verbosity)
{
    line.add_flag("-q,--quiet", verbosity.is_quiet, "write errors alone");
    line.add_count("-v,--verbose", verbosity.verbose_count, "write notes too; twice: details");
}

void add_machines(CommandLine& line, std::string& machine, bool& is_local)
{
    add_machine(line, machine);
    line.add_flag("--local", is_local, "run the blocks of all machines here, without a broker");
}

void set_machine(Quorval::GraphOptions& options, const std::string& machine, bool is_local)
{
    if (is_local && !machine.empty()) {
        throw UsageError("--machine and --local exclude each other");
    }
    options.machine = machine;
    options.is_local = is_local;
}

void add_threads(CommandLine& line, std::string& threads)
{
    threads = "1";
    line.add_value("--threads", threads, "N",
                   "run blocks side by side on up to N threads, where that is faster (default: 1)");
}

unsigned read_threads(const std::string& text)
{
    unsigned threads = 0;  // as it stays where there is no number that fits
    const char* const end = text.data() + text.size();
    const char* const rest = std::from_chars(text.data(), end, threads).ptr;
    if (rest != end || threads < 1 || threads > 256) {
        throw UsageError("--threads has to be a number from 1 to 256, not '" + text + "'");
    }
    return threads;
}

loglevel to_level(const Verbosity& verbosity)
{
    if (verbosity.is_quiet) {
        return LOGLEVEL_ERROR;
    }
    return verbosity.verbose_count == 0   ? LOGLEVEL_WARNING
           : verbosity.verbose_count == 1 ? LOGLEVEL_INFO
                                          : LOGLEVEL_DEBUG;
}

int run_graph(const Quorval::GraphOptions& options, loglevel level)
{
    // Never destroyed, not by exit() either: plug-ins and their threads may log until the very end.
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
    static Quorval::Messages& messages = *new Quorval::Messages(level);
    std::unique_ptr<Quorval::Graph> graph;
    try {
        graph = make_graph(options);
    } catch (const Quorval::GraphError& error) {
        show_diagnostics(error.diagnostics());
        // Without any the wait for a pipe was ended by a signal.
        return error.diagnostics().empty() ? kDone : kWrongGraph;
    } catch (const Quorval::RecordingError& error) {
        say_error(error.what());
        return kWrongGraph;
    }
    messages.set_graph(graph->name());
    if (level >= LOGLEVEL_WARNING) {
        show_diagnostics(graph->warnings());
    }
    const Quorval::RunResult result = graph->run();
    if (options.times_runs) {
        static_cast<void>(std::fputs(to_table(graph->statistics()).c_str(), stderr));
        if (const auto links = graph->link_statistics(); !links.empty()) {
            static_cast<void>(std::fputs(to_link_table(links).c_str(), stderr));
        }
    }
    return to_status(result);
}
