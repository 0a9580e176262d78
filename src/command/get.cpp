// quorval get: the present configuration of a block of a running graph.
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "remote_line.h"

namespace {

HelpText help_of_get()
{
    return {"quorval get [OPTION...] NAME PATH",
            "Shows the present configuration of a block of a running graph as TOML. Comments say "
            "where each value comes from: a line of a file, what was saved, --set, or a change "
            "while the graph runs. Defaults stand in comments.",
            remote_status_help() +
                "\n"
                "Example:\n"
                "  quorval get loudness left/gain"};
}

}  // namespace

int get_command(const Arguments& arguments)
{
    CommandLine line(help_of_get());
    const RemoteLine remote(line);
    const auto rest = line.read(arguments);
    if (!rest.has_value()) {
        return kDone;
    }
    refuse_more_than(2, *rest);
    if (rest->size() == 1) {
        throw UsageError("the path of a block is missing");
    }
    const auto graph = remote.find_graph(*rest);
    write_output(graph->get(rest->back()));
    return kDone;
}
