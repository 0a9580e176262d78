// quorval inspect: what plug-ins offer.
#include <quorval/runtime/plugin.h>
#include "command.h"
#include "command_line.h"
#include "inspect_text.h"
#include "look.h"
#include "output.h"
#include "page.h"
#include "plugin_line.h"

#include <cstddef>
#include <string>
#include <vector>

namespace {

using nlohmann::json;

/// Which plug-ins are looked at.
std::vector<Quorval::PluginFile> choose_plugins(const std::string& name,
                                                const std::vector<std::string>& plugin_path)
{
    if (name.empty()) {
        return Quorval::find_plugins(plugin_path);
    }
    return {Quorval::find_plugin(name, plugin_path)};
}

void show(const json& plugins, bool is_named)
{
    Page page({output_width(), has_output_colours()});
    if (is_named && plugins.front().contains("file")) {
        show_plugin(plugins.front(), page);
    } else if (!is_named) {
        show_plugins(plugins, page);
    }
    write_output(page.text());
    if (is_named && plugins.front().contains("problem")) {
        say_error(plugins.front()["problem"]);
    }
}

int inspect(const std::string& name, const std::vector<std::string>& plugin_path,
            const LookOptions& options, bool wants_json)
{
    json plugins = json::array();
    bool is_usable = true;
    for (const Quorval::PluginFile& file : choose_plugins(name, plugin_path)) {
        Look look = look_at(file, options);
        plugins.push_back(std::move(look.plugin));
        is_usable = is_usable && look.is_usable;
    }
    if (wants_json) {
        const json result = {{"plugins", std::move(plugins)}};
        write_output(result.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
    } else {
        show(plugins, !name.empty());
    }
    return name.empty() || is_usable ? kDone : kWrongGraph;
}

HelpText help_of_inspect()
{
    return {"quorval inspect [OPTION...] [PLUGIN [TYPE]]",
            "Shows what plug-ins offer: all that are found, or one with its types, their ports and "
            "settings.\nEach is loaded in a process of its own, for 10 seconds at most.",
            "Exit status:\n"
            "  0  done\n"
            "  1  output could not be written\n"
            "  2  wrong use of the command line\n"
            "  3  PLUGIN cannot be used, or has no such type\n"
            "\n"
            "Example:\n"
            "  quorval inspect basic Timer"};
}

}  // namespace

int inspect_command(const Arguments& arguments)
{
    CommandLine line(help_of_inspect());
    PluginLine plugin_line(line);
    bool wants_json = false;
    line.add_flag("--json", wants_json, "write everything as JSON");
    const auto names = line.read(arguments);
    if (!names.has_value()) {
        return kDone;
    }
    constexpr std::size_t kMostNames = 2;
    refuse_more_than(kMostNames, *names);
    const std::string name = names->empty() ? "" : names->front();
    if (!names->empty()) {
        check_plugin_name(name);
    }
    LookOptions options;
    options.assignments = plugin_line.assignments();
    options.type = names->size() == kMostNames ? names->back() : "";
    options.makes_blocks = wants_json || !names->empty();
    return inspect(name, plugin_line.directories(), options, wants_json);
}
