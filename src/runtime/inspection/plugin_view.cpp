#include <quorval/runtime/plugin.h>
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>
#include "description/problem.h"
#include "description/settings.h"
#include "description/suggest.h"
#include "graph/create.h"
#include "graph/values.h"
#include "messages/context.h"
#include "plugins/plugin_set.h"
#include "plugins/search.h"

#include <algorithm>
#include <exception>
#include <set>
#include <stdexcept>

namespace Quorval {

namespace {

using runtime::Plugin;

std::map<std::string, std::string> names_of_types(
    const std::unordered_map<std::string, Datatype>& ports)
{
    std::map<std::string, std::string> names;
    for (const auto& [port, type] : ports) {
        names[port] = type.get_name();
    }
    return names;
}

BlockPorts ports_of(Block& block)
{
    BlockPorts ports = {names_of_types(block.get_inports_info()),
                        names_of_types(block.get_outports_info()),
                        names_of_types(block.get_fdports_info()),
                        {}};
    for (const DBusMeta* meta : block.get_dbus_meta()) {
        ports.dbus.emplace_back(meta->path, meta->interface);
    }
    return ports;
}

/// All keys of a configuration.
std::vector<std::string> keys_of(const BlockConfiguration& config)
{
    std::vector<std::string> keys;
    for (const auto element = config.iterate(""); !element->is_end(); element->advance()) {
        keys.push_back(element->key());
    }
    return keys;
}

std::string problem_of(const Setting& setting, const BlockConfiguration& config)
{
    if (!has_value(config, setting)) {
        return setting.is_required ? "'" + setting.key + "' is missing" : "";
    }
    return find_problem(config, setting).text;
}

/// What is wrong with a configuration, parted by "; ".
std::string check_declared(const std::string& full_type, const std::vector<Setting>& declared,
                           const BlockConfiguration& config)
{
    std::set<std::string> known = {runtime::kStoreKey};
    std::string text;
    const auto add = [&text](const std::string& more) {
        text += (text.empty() || more.empty() ? "" : "; ") + more;
    };
    for (const Setting& setting : declared) {
        known.insert(setting.key);
        add(problem_of(setting, config));
    }
    for (const std::string& key : keys_of(config)) {
        if (known.count(key) == 0) {
            std::string problem = "block type '" + full_type;
            problem += "' has no setting '" + key + "'";
            add(problem + runtime::suggestion(key, {known.begin(), known.end()}));
        }
    }
    return text;
}

BlockPorts make_and_destroy(const Plugin& plugin, const std::string& type,
                            const BlockConfiguration& config)
{
    const runtime::ContextScope scope(type.c_str(), "create");
    const UniqueDlPtr<Container> block = plugin.create(type, type, config);
    return ports_of(runtime::to_block(*block));
}

}  // namespace

struct PluginView::Impl {
    std::string name;
    InitTools tools;
    std::unique_ptr<Plugin> plugin;
};

PluginView::PluginView(const PluginFile& file) : impl_(std::make_unique<Impl>())
{
    impl_->name = file.name;
    impl_->tools.is_dry = true;
    runtime::LoadedPlugin loaded = runtime::load_plugin(file, impl_->tools, true);
    if (loaded.plugin == nullptr) {
        throw std::runtime_error(loaded.problem);
    }
    impl_->plugin = std::move(loaded.plugin);
}

PluginView::~PluginView() = default;

std::vector<std::string> PluginView::types() const
{
    return impl_->plugin->types();
}

const BlockConfiguration* PluginView::description(const std::string& type) const
{
    return impl_->plugin->description_of(type);
}

BlockPorts PluginView::make_block(const std::string& type, const BlockConfiguration& config) const
{
    const std::vector<Setting>* declared = impl_->plugin->settings_of(type);
    if (declared != nullptr) {
        const std::string problem = check_declared(impl_->name + ":" + type, *declared, config);
        if (!problem.empty()) {
            throw std::runtime_error(problem);
        }
    }
    BlockPorts ports;
    const std::string failure =
        runtime::text_of_failure([&] { ports = make_and_destroy(*impl_->plugin, type, config); });
    if (!failure.empty()) {
        throw std::runtime_error("block '" + type + "' cannot be created: " + failure);
    }
    return ports;
}

BlockConfiguration read_assignments(const std::vector<std::string>& assignments)
{
    BlockConfiguration config;
    for (const std::string& assignment : assignments) {
        runtime::Problems problems;
        for (const runtime::Setting& setting :
             runtime::read_setting_assignment(assignment, problems)) {
            runtime::set_value(config, setting.key, setting.value);
        }
        if (problems.has_errors()) {
            throw std::invalid_argument(problems.sorted().front().text);
        }
    }
    return config;
}

PluginFile find_plugin(const std::string& name, const std::vector<std::string>& plugin_path)
{
    return runtime::find_plugin(name, runtime::plugin_directories(plugin_path));
}

std::vector<PluginFile> find_plugins(const std::vector<std::string>& plugin_path)
{
    return runtime::list_plugins(runtime::plugin_directories(plugin_path));
}

}  // namespace Quorval
