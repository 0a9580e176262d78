// quorval list: running graphs.
#include <quorval/runtime/remote.h>
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "remote_line.h"
#include "text.h"

#include <algorithm>
#include <cstddef>
#include <string>

namespace {

HelpText help_of_list()
{
    return {"quorval list [OPTION...]",
            "Lists the graphs that run on a bus: the name of each, and which bus it is on.",
            "Exit status:\n"
            "  0  done\n"
            "  1  the bus of --bus cannot be reached\n"
            "  2  wrong use of the command line\n"
            "\n"
            "Example:\n"
            "  quorval list"};
}

}  // namespace

int list_command(const Arguments& arguments)
{
    CommandLine line(help_of_list());
    const RemoteLine remote(line);
    const auto rest = line.read(arguments);
    if (!rest.has_value()) {
        return kDone;
    }
    refuse_more_than(0, *rest);
    const auto graphs = Quorval::list_graphs(remote.buses());
    std::size_t width = 0;
    for (const Quorval::RunningGraph& graph : graphs) {
        width = std::max(width, graph.name.size());
    }
    for (const Quorval::RunningGraph& graph : graphs) {
        std::string name = to_printable(graph.name);
        name.resize(std::max(width, name.size()), ' ');
        write_output(name + "  " + (graph.bus == Quorval::Bus::User ? "user" : "system") + "\n");
    }
    return kDone;
}
