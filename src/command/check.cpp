// quorval check: everything but starting.
#include <quorval/runtime/graph.h>
#include <quorval/runtime/messages.h>
#include "apart.h"
#include "command.h"
#include "command_line.h"
#include "diagnostics.h"
#include "graph_line.h"
#include "output.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using Quorval::Diagnostic;

struct CheckOptions {
    bool is_strict = false;
    bool wants_json = false;
};

/// What was found about a graph.
struct Findings {
    std::vector<Diagnostic> diagnostics;
    // Of a graph without errors.
    std::size_t block_count = 0;
    std::size_t connection_count = 0;
};

/// Makes the graph and destroys it again.
Findings look_at(const Quorval::GraphOptions& options)
{
    const Quorval::Messages messages;
    try {
        const auto graph = make_graph(options);
        return {graph->warnings(), graph->blocks().size(), graph->connections().size()};
    } catch (const Quorval::GraphError& error) {
        return {error.diagnostics()};
    }
}

void show(const Findings& findings, bool wants_json)
{
    if (wants_json) {
        write_output(to_json(findings.diagnostics));
    } else if (findings.diagnostics.empty()) {
        write_output(std::to_string(findings.block_count) + " blocks, " +
                     std::to_string(findings.connection_count) +
                     " connections: no problem found\n");
    } else {
        show_diagnostics(findings.diagnostics);
    }
}

int check(const Quorval::GraphOptions& graph_options, const CheckOptions& options)
{
    const Findings findings = look_at(graph_options);
    show(findings, options.wants_json);
    const bool is_wrong = std::any_of(
        findings.diagnostics.begin(), findings.diagnostics.end(),
        [&](const Diagnostic& diagnostic) { return diagnostic.is_error || options.is_strict; });
    return is_wrong ? kWrongGraph : kDone;
}

HelpText help_of_check()
{
    return {"quorval check [OPTION...] FILE...",
            "Makes the graph of the files and says what is wrong with it. Nothing is started.",
            status_help() +
                "\n"
                "Example:\n"
                "  quorval check --set left/gain.factor=0.25 loudness.toml"};
}

}  // namespace

int check_command(const Arguments& arguments)
{
    CommandLine line(help_of_check());
    GraphLine graph_line(line);
    CheckOptions options;
    std::string machine;
    add_machine(line, machine);
    line.add_flag("--strict", options.is_strict, "let warnings count: exit status 3");
    line.add_flag("--json", options.wants_json, "write what is found as JSON to standard output");
    const auto files = line.read(arguments);
    if (!files.has_value()) {
        return kDone;
    }
    Quorval::GraphOptions graph_options = graph_line.graph_options(*files);
    graph_options.is_dry = true;
    graph_options.machine = machine;
    return run_apart([&] { return check(graph_options, options); });
}
