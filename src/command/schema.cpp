// quorval schema: the form of graph files, for editors.
#include <quorval/runtime/plugin.h>
#include "command.h"
#include "command_line.h"
#include "graph_schema.h"
#include "look.h"
#include "output.h"
#include "plugin_line.h"

#include <string>
#include <utility>
#include <vector>

namespace {

using nlohmann::json;

int write_schema(const std::vector<std::string>& names, const std::vector<std::string>& plugin_path)
{
    LookOptions options;
    options.makes_blocks = false;
    json plugins = json::array();
    bool is_usable = true;
    for (const std::string& name : names) {
        Look look = look_at(Quorval::find_plugin(name, plugin_path), options);
        if (!look.is_usable) {
            say_error(look.plugin["problem"]);
            is_usable = false;
        }
        plugins.push_back(std::move(look.plugin));
    }
    if (!is_usable) {
        return kWrongGraph;
    }
    write_output(make_graph_schema(plugins).dump(2, ' ', false, json::error_handler_t::replace) +
                 "\n");
    return kDone;
}

HelpText help_of_schema()
{
    return {
        "quorval schema [OPTION...] [PLUGIN...]",
        "Writes a JSON Schema of graph files, with the settings of the types of these plug-ins.",
        "Exit status:\n"
        "  0  done\n"
        "  1  output could not be written\n"
        "  2  wrong use of the command line\n"
        "  3  a plug-in cannot be used\n"
        "\n"
        "Example:\n"
        "  quorval schema basic >graph.schema.json"};
}

}  // namespace

int schema_command(const Arguments& arguments)
{
    CommandLine line(help_of_schema());
    const PluginLine plugin_line(line);
    const auto names = line.read(arguments);
    if (!names.has_value()) {
        return kDone;
    }
    for (const std::string& name : *names) {
        check_plugin_name(name);
    }
    plugin_line.assignments();  // they change nothing in a schema, but have to have their form
    return write_schema(*names, plugin_line.directories());
}
