#include "run/reload.h"

#include <quorval/log.h>
#include "graph/diagnostics.h"
#include "graph/saved.h"
#include "graph/values.h"

#include <map>
#include <set>
#include <tuple>
#include <utility>

namespace Quorval::runtime {

namespace {

using Blocks = std::map<std::string, const PlainBlock*>;
using Parts = std::multiset<std::string>;

ReadGraph read(const GraphOptions& options, const LoadedGraph& loaded, IPatience* patience)
{
    ReadGraph graph;
    graph.reading =
        std::make_unique<Reading>(read_graph(options.files, options.assignments, patience));
    insert_saved(*graph.reading, loaded.saved_file, loaded.saved);
    if (graph.reading->is_whole) {
        graph.expansion = expand(graph.reading->description, graph.reading->problems);
    }
    return graph;
}

/// What a graph was loaded from. Loading has taken the expansion apart, so it is made again.
ReadGraph read_again(const Reading& reading)
{
    ReadGraph graph;
    graph.reading = std::make_unique<Reading>(reading);
    graph.expansion = expand(graph.reading->description, graph.reading->problems);
    return graph;
}

Blocks blocks_of(const ReadGraph& graph)
{
    Blocks blocks;
    for (const PlainBlock& block : graph.expansion.blocks) {
        blocks[block.path] = &block;
    }
    return blocks;
}

std::string to_text(const EndDescription& end)
{
    return end.block + "." + end.port;
}

/// What stands in a composite besides its members, each as it is shown.
Parts parts_of(const Composite& composite)
{
    const std::string where =
        composite.path.empty() ? std::string() : " in '" + composite.path + "'";
    Parts parts;
    if (composite.member != nullptr) {
        parts.insert("superblock '" + composite.path + "' of type '" + composite.member->type +
                     "'");
    }
    for (const ConnectionDescription& connection : composite.inside->connections) {
        parts.insert("connection '" + to_text(connection.from) + " -> " + to_text(connection.to) +
                     "'" + (connection.is_delayed ? ", delayed," : "") +
                     (connection.delivery == Delivery::All ? ", with delivery \"all\"," : "") +
                     where);
    }
    for (const auto& [kind, ports] : {std::pair("input", &composite.inside->inports),
                                      std::pair("output", &composite.inside->outports)}) {
        for (const ExposedDescription& port : *ports) {
            for (const EndDescription& end : port.ends) {
                parts.insert(std::string(kind) + " '" + port.name + "' for '" + to_text(end) + "'" +
                             where);
            }
        }
    }
    return parts;
}

Parts parts_of(const ReadGraph& graph)
{
    Parts parts;
    for (const Composite& composite : graph.expansion.composites) {
        parts.merge(parts_of(composite));
    }
    return parts;
}

std::map<std::string, const SettingRef*> settings_of(const PlainBlock& block)
{
    std::map<std::string, const SettingRef*> settings;
    for (const SettingRef& ref : block.settings) {
        settings[std::string(ref.key())] = &ref;
    }
    return settings;
}

std::string find_difference(const PlainBlock& before, const PlainBlock& now)
{
    if (before.member->type != now.member->type) {
        return "the type of block '" + now.path + "' was changed";
    }
    if (before.on_error != now.on_error) {
        return "'on_error' of block '" + now.path + "' was changed";
    }
    if (before.machine != now.machine) {
        return "the machine of block '" + now.path + "' was changed";
    }
    const auto settings = settings_of(now);
    for (const auto& setting : settings_of(before)) {
        if (settings.count(setting.first) == 0) {
            return "key '" + setting.first + "' of block '" + now.path + "' was removed";
        }
    }
    return "";
}

std::string find_difference(const Blocks& before, const Blocks& now)
{
    for (const auto& [path, block] : before) {
        const auto at = now.find(path);
        if (at == now.end()) {
            return "block '" + path + "' was removed";
        }
        std::string text = find_difference(*block, *at->second);
        if (!text.empty()) {
            return text;
        }
    }
    for (const auto& entry : now) {
        if (before.count(entry.first) == 0) {
            return "block '" + entry.first + "' was added";
        }
    }
    return "";
}

/// What the one has more often than the other, with what was done to it.
std::string find_difference(const Parts& before, const Parts& now)
{
    for (const std::string& part : before) {
        if (now.count(part) < before.count(part)) {
            return part + " was removed";
        }
    }
    for (const std::string& part : now) {
        if (before.count(part) < now.count(part)) {
            return part + " was added";
        }
    }
    return "";
}

auto values_of(const LinkDescription& link)
{
    return std::make_tuple(link.place.line > 0, link.broker, link.ca, link.cert, link.key,
                           link.user, link.password_file, link.queue, link.limit);
}

BlockConfiguration changed_values(const PlainBlock& before, const PlainBlock& now)
{
    const auto settings = settings_of(before);
    BlockConfiguration changed;
    for (const SettingRef& ref : now.settings) {
        const auto at = settings.find(std::string(ref.key()));
        if (at == settings.end() || at->second->setting->value != ref.setting->value) {
            set_value(changed, std::string(ref.key()), ref.setting->value);
        }
    }
    return changed;
}

std::string origin_of(const SettingRef& ref, const std::vector<Source>& sources)
{
    const Place& place = ref.setting->key_place;
    const Source& source = sources[place.source];
    return ref.setting->is_saved  ? "saved"
           : source.is_assignment ? "--set"
                                  : source.name + ":" + std::to_string(place.line);
}

void refuse(const std::string& text)
{
    logger(LOGLEVEL_ERROR, "the changed files are not applied: %s", text.c_str());
}

}  // namespace

std::string find_difference(const ReadGraph& before, const ReadGraph& now)
{
    if (before.reading->description.name != now.reading->description.name) {
        return "the name of the graph was changed";
    }
    if (before.reading->description.machines != now.reading->description.machines) {
        return "'machines' was changed";
    }
    if (values_of(before.reading->description.link) != values_of(now.reading->description.link)) {
        return "'link' was changed";
    }
    std::string text = find_difference(blocks_of(before), blocks_of(now));
    return text.empty() ? find_difference(parts_of(before), parts_of(now)) : text;
}

std::vector<Change> find_changes(const ReadGraph& before, const ReadGraph& now,
                                 const Network& network)
{
    const Blocks old_blocks = blocks_of(before);
    const Blocks new_blocks = blocks_of(now);
    std::vector<Change> changes;
    for (std::uint32_t block = 0; block < network.nodes.size(); ++block) {
        const std::string& path = network.nodes[block].path;
        BlockConfiguration values = changed_values(*old_blocks.at(path), *new_blocks.at(path));
        if (values != BlockConfiguration()) {
            changes.push_back({block, std::move(values)});
        }
    }
    return changes;
}

Reload::Reload(const GraphOptions& options, const LoadedGraph& graph, Overrides& overrides,
               IPatience* patience)
    : options_(options), graph_(graph), overrides_(overrides), patience_(patience)
{
}

void Reload::run()
{
    try {
        apply(read(options_, graph_, patience_));
    } catch (const Interrupted&) {
        return;  // the graph stops
    }
}

void Reload::apply(ReadGraph now)
{
    if (now.reading->problems.has_errors()) {
        for (const Diagnostic& one : to_diagnostics(now.reading->problems, now.reading->sources)) {
            if (one.is_error) {
                refuse(to_string(one));
            }
        }
        return;
    }
    if (applied_.reading == nullptr) {
        applied_ = read_again(*graph_.reading);
    }
    std::string text = find_difference(applied_, now);
    if (text.empty()) {
        text = overrides_.reload(find_changes(applied_, now, graph_.network));
    }
    if (!text.empty()) {
        refuse(text);
        return;
    }
    applied_ = std::move(now);
    logger(LOGLEVEL_INFO, "the changed files are applied");
}

std::unordered_map<std::string, std::string> Reload::origins_of(std::uint32_t block) const
{
    const PlainBlock* place = &graph_.blocks[block].place;
    const Reading* reading = graph_.reading.get();
    if (applied_.reading != nullptr) {
        reading = applied_.reading.get();
        place = blocks_of(applied_).at(place->path);
    }
    std::unordered_map<std::string, std::string> origins;
    for (const SettingRef& ref : place->settings) {
        origins.emplace(ref.key(), origin_of(ref, reading->sources));
    }
    return origins;
}

}  // namespace Quorval::runtime
