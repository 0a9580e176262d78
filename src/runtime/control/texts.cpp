#include "control/texts.h"

#include "control/write.h"
#include "description/names.h"
#include "graph/infos.h"
#include "graph/values.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <unordered_map>
#include <vector>

namespace Quorval::runtime {

namespace {

std::string list(const std::vector<std::string>& items, char open, char close)
{
    std::string text(1, open);
    for (const std::string& item : items) {
        text += (text.size() > 1 ? "," : "") + item;
    }
    return text + close;
}

std::string member(const std::string& name, const std::string& value)
{
    return quote(name) + ":" + value;
}

std::string json_of(const BlockConfiguration& config)
{
    std::vector<std::string> members;
    for (const std::string& key : keys_of(config)) {
        members.push_back(member(key, to_json(get_value(config, key))));
    }
    return list(members, '{', '}');
}

std::string json_of(const std::map<std::string, std::string>& ports)
{
    std::vector<std::string> members;
    members.reserve(ports.size());
    for (const auto& [name, type] : ports) {
        members.push_back(member(name, quote(type)));
    }
    return list(members, '{', '}');
}

std::string json_of(const BlockInfo& block)
{
    return list(
        {member("config", json_of(block.config)), member("fdports", json_of(block.fdports)),
         member("inports", json_of(block.inports)), member("outports", json_of(block.outports)),
         member("path", quote(block.path)), member("type", quote(block.type))},
        '{', '}');
}

std::string json_of(const ConnectionInfo& connection)
{
    return list({member("delayed", connection.is_delayed ? "true" : "false"),
                 member("from", quote(connection.from_path + "." + connection.output)),
                 member("to", quote(connection.to_path + "." + connection.input)),
                 member("type", quote(connection.type))},
                '{', '}');
}

/// A key as it stands in a table that has all of these; what is a value and a table is quoted.
std::string to_toml_key(const std::string& key, const std::vector<std::string>& keys)
{
    const bool is_plain = std::all_of(key.begin(), key.end(),
                                      [](char c) { return is_name_character(c) || c == '.'; });
    bool is_below_value =
        !is_plain || key.front() == '.' || key.back() == '.' || key.find("..") != std::string::npos;
    for (std::size_t dot = key.find('.'); dot != std::string::npos; dot = key.find('.', dot + 1)) {
        is_below_value =
            is_below_value || std::binary_search(keys.begin(), keys.end(), key.substr(0, dot));
    }
    return is_below_value ? quote(key) : key;
}

/// Where the values of a block come from, by their keys.
std::unordered_map<std::string, std::string> origins_of(const Run& run, std::uint32_t block)
{
    std::unordered_map<std::string, std::string> origins = run.reload.origins_of(block);
    for (const std::string& key : run.overrides.changed_keys(block)) {
        origins[key] = "changed";
    }
    return origins;
}

}  // namespace

std::string describe(const Run& run)
{
    std::vector<std::string> blocks;
    for (std::uint32_t block = 0; block < run.graph.blocks.size(); ++block) {
        BlockInfo info = block_info(run.graph, block);
        info.config = run.overrides.present(block);
        blocks.push_back(json_of(info));
    }
    std::vector<std::string> connections;
    for (const ConnectionInfo& connection : connection_infos(run.graph)) {
        connections.push_back(json_of(connection));
    }
    return list({member("blocks", list(blocks, '[', ']')),
                 member("connections", list(connections, '[', ']')), member("format", "1"),
                 member("name", quote(run.graph.name))},
                '{', '}');
}

std::string show_config(const Run& run, std::uint32_t block)
{
    const BlockConfiguration config = run.overrides.present(block);
    const BlockConfiguration defaults = run.overrides.defaults(block);
    const BlockConfiguration all = defaults + config;
    const std::vector<std::string> set = keys_of(config);
    const std::vector<std::string> keys = keys_of(all);
    std::unordered_map<std::string, std::string> origins = origins_of(run, block);
    std::string text;
    for (const std::string& key : keys) {
        const bool is_default = !std::binary_search(set.begin(), set.end(), key);
        const std::string origin = is_default ? "default" : origins[key];
        text += (is_default ? "# " : "") + to_toml_key(key, keys) + " = " +
                to_toml(get_value(all, key)) + (origin.empty() ? "" : "  # " + to_utf8(origin)) +
                "\n";
    }
    return text;
}

}  // namespace Quorval::runtime
