// quorval describe: a running graph as JSON.
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "remote_line.h"

#include <nlohmann/json.hpp>

namespace {

HelpText help_of_describe()
{
    return {
        "quorval describe [OPTION...] NAME",
        "Shows a running graph as JSON, as 'quorval graph --format json' does, with its present "
        "configuration.",
        remote_status_help() +
            "\n"
            "Example:\n"
            "  quorval describe loudness"};
}

}  // namespace

int describe_command(const Arguments& arguments)
{
    CommandLine line(help_of_describe());
    const RemoteLine remote(line);
    const auto rest = line.read(arguments);
    if (!rest.has_value()) {
        return kDone;
    }
    refuse_more_than(1, *rest);
    const auto graph = remote.find_graph(*rest);
    write_output(nlohmann::json::parse(graph->describe()).dump(2) + "\n");
    return kDone;
}
