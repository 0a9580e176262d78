// quorval graph: the graph as a picture.
#include <quorval/runtime/graph.h>
#include <quorval/runtime/messages.h>
#include "apart.h"
#include "command.h"
#include "command_line.h"
#include "diagnostics.h"
#include "graph_line.h"
#include "graphviz.h"
#include "output.h"
#include "picture.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::array kFormats = {"dot", "json", "mermaid", "svg"};

void draw(const Picture& picture, const std::string& format)
{
    if (format == "json") {
        write_output(to_json(picture));
    } else if (format == "mermaid") {
        write_output(to_mermaid(picture));
    } else if (format == "svg") {
        write_output(draw_svg(to_dot(picture)));
    } else {
        write_output(to_dot(picture));
    }
}

int show_graph(const Quorval::GraphOptions& options, const std::string& format)
{
    const Quorval::Messages messages;
    Picture picture;
    try {
        const auto graph = make_graph(options);
        show_diagnostics(graph->warnings());
        picture = {graph->name(), graph->blocks(), graph->connections()};
    } catch (const Quorval::GraphError& error) {
        show_diagnostics(error.diagnostics());
        return kWrongGraph;
    }
    draw(picture, format);
    return kDone;
}

void check_format(const std::string& format)
{
    if (std::find(std::begin(kFormats), std::end(kFormats), format) == std::end(kFormats)) {
        throw UsageError("--format has to be one of dot, json, mermaid, svg, not '" + format + "'");
    }
}

HelpText help_of_graph()
{
    return {"quorval graph [OPTION...] FILE...",
            "Draws the graph of the files on standard output. Nothing is started.",
            status_help() +
                "\n"
                "Example:\n"
                "  quorval graph --format svg loudness.toml >loudness.svg"};
}

}  // namespace

int graph_command(const Arguments& arguments)
{
    CommandLine line(help_of_graph());
    GraphLine graph_line(line);
    std::string format = "dot";
    line.add_value("--format", format, "FORMAT",
                   "dot, json, mermaid, or svg, which needs Graphviz (default: dot)");
    const auto files = line.read(arguments);
    if (!files.has_value()) {
        return kDone;
    }
    check_format(format);
    Quorval::GraphOptions options = graph_line.graph_options(*files);
    options.is_dry = true;
    return run_apart([&] { return show_graph(options, format); });
}
