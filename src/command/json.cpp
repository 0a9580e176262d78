// Graphs for other programs.
#include <quorval/config.h>
#include "json_value.h"
#include "picture.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <string>

namespace {

using nlohmann::json;
using Quorval::BlockConfiguration;

json to_json(const BlockConfiguration& config)
{
    json members = json::object();
    for (const auto element = config.iterate(""); !element->is_end(); element->advance()) {
        members[element->key()] = to_json_value(config, element->key());
    }
    return members;
}

json to_json(const Quorval::BlockInfo& block)
{
    return {{"path", block.path},       {"type", block.type},
            {"inports", block.inports}, {"outports", block.outports},
            {"fdports", block.fdports}, {"config", to_json(block.config)}};
}

json to_json(const Quorval::ConnectionInfo& wire)
{
    return {{"from", wire.from_path + "." + wire.output},
            {"to", wire.to_path + "." + wire.input},
            {"type", wire.type},
            {"delayed", wire.is_delayed}};
}

}  // namespace

std::string to_json(const Picture& picture)
{
    json blocks = json::array();
    for (const Quorval::BlockInfo& block : picture.blocks) {
        blocks.push_back(to_json(block));
    }
    json wires = json::array();
    for (const Quorval::ConnectionInfo& wire : picture.wires) {
        wires.push_back(to_json(wire));
    }
    const json graph = {
        {"format", 1}, {"name", picture.name}, {"blocks", blocks}, {"connections", wires}};
    return graph.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}
