// quorval set: changes a running graph.
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "remote_line.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace {

HelpText help_of_set()
{
    return {"quorval set [OPTION...] NAME PATH.KEY=VALUE...",
            "Gives blocks of a running graph new values: all of them, or none when one is refused.",
            remote_status_help() +
                "\n"
                "Example:\n"
                "  quorval set --save loudness left/gain.factor=0.25 right/gain.factor=0.25"};
}

/// `PATH.KEY` and the value, by the first "=".
std::map<std::string, std::string> read_values(const std::vector<std::string>& arguments)
{
    std::map<std::string, std::string> values;
    for (std::size_t at = 1; at < arguments.size(); ++at) {
        const std::string& text = arguments[at];
        const std::size_t equals = text.find('=');
        const std::size_t stop = text.find('.');
        if (equals == std::string::npos || stop == 0 || stop >= equals || stop + 1 == equals) {
            throw UsageError("'" + text + "' is not of the form PATH.KEY=VALUE");
        }
        values[text.substr(0, equals)] = text.substr(equals + 1);
    }
    return values;
}

}  // namespace

int set_command(const Arguments& arguments)
{
    CommandLine line(help_of_set());
    const RemoteLine remote(line);
    bool saves = false;
    line.add_flag("--save", saves, "keep the changes for the next start");
    const auto rest = line.read(arguments);
    if (!rest.has_value()) {
        return kDone;
    }
    if (rest->size() == 1 && !saves) {
        throw UsageError("an assignment is missing");
    }
    const auto values = read_values(*rest);
    const auto graph = remote.find_graph(*rest);
    if (!values.empty()) {
        graph->configure(values);
    }
    if (saves) {
        graph->save();
    }
    return kDone;
}
