// quorval stop: stops a running graph.
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "remote_line.h"

namespace {

HelpText help_of_stop()
{
    return {"quorval stop [OPTION...] NAME", "Stops a running graph in order.",
            remote_status_help() +
                "\n"
                "Example:\n"
                "  quorval stop loudness"};
}

}  // namespace

int stop_command(const Arguments& arguments)
{
    CommandLine line(help_of_stop());
    const RemoteLine remote(line);
    const auto rest = line.read(arguments);
    if (!rest.has_value()) {
        return kDone;
    }
    refuse_more_than(1, *rest);
    remote.find_graph(*rest)->stop();
    return kDone;
}
