#include "look_child.h"

#include "json_value.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <memory>

namespace {

using nlohmann::json;
using Quorval::BlockConfiguration;
using Quorval::PluginView;

bool has(const BlockConfiguration& config, const std::string& key)
{
    const auto first = config.iterate(key);
    return !first->is_end() && first->key() == key;
}

/// The keys of a description, and what JSON calls them, but for those that need more thought.
json to_setting(const BlockConfiguration& description, const std::string& prefix)
{
    json setting = json::object();
    for (const std::string member :
         {"key", "type", "text", "required", "live", "default", "minimum", "maximum",
          "minimum_items", "maximum_items", "choices"}) {
        if (has(description, prefix + member)) {
            setting[member] = to_json_value(description, prefix + member);
        }
    }
    return setting;
}

json to_type(const std::string& type, const BlockConfiguration* description)
{
    json result = {{"type", type}};
    if (description == nullptr) {
        return result;
    }
    result["summary"] = description->getString("summary", "");
    result["settings"] = json::array();
    for (std::size_t i = 0;; ++i) {
        const std::string prefix = "settings." + std::to_string(i) + ".";
        if (!has(*description, prefix + "key")) {
            return result;
        }
        result["settings"].push_back(to_setting(*description, prefix));
    }
}

json to_json(const Quorval::BlockPorts& ports)
{
    json dbus = json::array();
    for (const auto& [path, interface] : ports.dbus) {
        dbus.push_back({{"path", path}, {"interface", interface}});
    }
    return {{"inports", ports.inports},
            {"outports", ports.outports},
            {"fdports", ports.fdports},
            {"dbus", dbus}};
}

/// Whether one of the keys that an assignment gives is declared.
bool is_declared(const std::string& assignment, const json& settings)
{
    const BlockConfiguration config = Quorval::read_assignments({assignment});
    return std::any_of(settings.begin(), settings.end(), [&](const json& setting) {
        return has(config, setting["key"].get<std::string>());
    });
}

/// Of several types each takes the settings that it declares.
std::vector<std::string> choose_assignments(const LookOptions& options, const json& type)
{
    if (!options.type.empty() || !type.contains("settings")) {
        return options.assignments;
    }
    std::vector<std::string> chosen;
    std::copy_if(
        options.assignments.begin(), options.assignments.end(), std::back_inserter(chosen),
        [&](const std::string& assignment) { return is_declared(assignment, type["settings"]); });
    return chosen;
}

json try_block(const PluginView& view, const LookOptions& options, const json& type)
{
    const auto config = Quorval::read_assignments(choose_assignments(options, type));
    try {
        return to_json(view.make_block(type["type"].get<std::string>(), config));
    } catch (const std::exception& error) {
        return {{"problem", error.what()}};
    }
}

}  // namespace

void tell_about(const Quorval::PluginFile& file, const LookOptions& options, std::size_t begin,
                const Tell& tell)
{
    std::unique_ptr<PluginView> view;
    try {
        view = std::make_unique<PluginView>(file);
    } catch (const std::exception& error) {
        tell({{"problem", error.what()}});
        return;
    }
    json types = json::array();
    for (const std::string& type : view->types()) {
        types.push_back(to_type(type, view->description(type)));
    }
    tell({{"types", types}});
    for (std::size_t i = begin; options.makes_blocks && i < types.size(); ++i) {
        const bool is_wanted = options.type.empty() || options.type == types[i]["type"];
        tell(is_wanted ? try_block(*view, options, types[i]) : json::object());
    }
    // It stays loaded: what it does when it goes is no concern of its description.
    static_cast<void>(view.release());
}
