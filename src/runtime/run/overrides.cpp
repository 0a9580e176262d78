#include "run/overrides.h"

#include "graph/create.h"
#include "graph/declared.h"
#include "graph/saved.h"
#include "graph/values.h"
#include "messages/context.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Quorval::runtime {

namespace {

bool has_key(const BlockConfiguration& config, const std::string& key)
{
    const std::vector<std::string> keys = keys_of(config);
    return std::binary_search(keys.begin(), keys.end(), key);
}

/// The elements of `config` whose keys `other` has too, or those whose keys it has not.
BlockConfiguration pick(const BlockConfiguration& config, const BlockConfiguration& other,
                        bool has_to_be_there)
{
    const std::vector<std::string> wanted = keys_of(other);
    BlockConfiguration picked;
    for (const std::string& key : keys_of(config)) {
        if (std::binary_search(wanted.begin(), wanted.end(), key) == has_to_be_there) {
            set_value(picked, key, get_value(config, key));
        }
    }
    return picked;
}

std::string text_of(const std::string& path, const std::string& text)
{
    return "block '" + path + "': " + text;
}

}  // namespace

Overrides::Overrides(const LoadedGraph& graph, Life& life) : graph_(graph), life_(life) {}

std::string Overrides::change(const std::vector<Change>& changes)
{
    std::string text = apply(changes);
    if (text.empty()) {
        for (const Change& change : changes) {
            changed_[change.block] += change.values;
        }
    }
    return text;
}

std::string Overrides::reload(const std::vector<Change>& changes)
{
    std::vector<Change> wanted;
    for (const Change& change : changes) {
        BlockConfiguration values =
            pick(change.values, sum_of(changed_, change.block), /*has_to_be_there=*/false);
        if (values != BlockConfiguration()) {
            wanted.push_back({change.block, std::move(values)});
        }
    }
    std::string text = apply(wanted);
    if (text.empty() && listener_ && !wanted.empty()) {
        listener_(wanted);
    }
    return text;
}

std::string Overrides::apply(const std::vector<Change>& changes)
{
    for (const Change& change : changes) {
        const std::string refusal = find_refusal(change);
        if (!refusal.empty()) {
            return text_of(graph_.network.nodes[change.block].path, refusal);
        }
    }
    for (std::size_t at = 0; at < changes.size(); ++at) {
        const std::uint32_t block = changes[at].block;
        try {
            reconfigure(block, unread(sum_of(sums_, block) + changes[at].values));
        } catch (...) {
            const std::string text = text_of_present_exception();
            take_back(changes, at + 1);
            return text_of(graph_.network.nodes[block].path, text);
        }
    }
    for (const Change& change : changes) {
        sums_[change.block] += change.values;
    }
    return "";
}

std::string Overrides::find_refusal(const Change& change) const
{
    if (has_key(change.values, kStoreKey)) {
        return text_of_fixed(kStoreKey);
    }
    const LoadedBlock& block = graph_.blocks[change.block];
    return block.declared == nullptr
               ? ""
               : runtime::find_refusal(*block.declared, block.place.member->type,
                                       unread(change.values));
}

void Overrides::save(const std::string& directory) const
{
    std::map<std::pair<std::string, std::string>, Assignment> values;
    for (const Assignment& one : graph_.saved) {
        values[{one.path, one.setting.key}] = one;
    }
    for (const auto& [block, config] : changed_) {
        const std::string& path = graph_.network.nodes[block].path;
        for (const std::string& key : keys_of(config)) {
            Assignment& one = values[{path, key}];
            one.path = path;
            one.setting.key = key;
            one.setting.value = get_value(config, key);
        }
    }
    std::vector<Assignment> list;
    list.reserve(values.size());
    for (auto& value : values) {
        list.push_back(std::move(value.second));
    }
    write_saved(directory, list);
}

BlockConfiguration Overrides::present(std::uint32_t block) const
{
    return graph_.blocks[block].config + sum_of(sums_, block);
}

BlockConfiguration Overrides::defaults(std::uint32_t block) const
{
    const BlockConfiguration* description = graph_.blocks[block].description;
    return description == nullptr ? BlockConfiguration() : read_defaults(*description);
}

std::vector<std::string> Overrides::changed_keys(std::uint32_t block) const
{
    return keys_of(sum_of(changed_, block));
}

BlockConfiguration Overrides::sum_of(const Sums& sums, std::uint32_t block)
{
    const auto at = sums.find(block);
    return at == sums.end() ? BlockConfiguration() : at->second;
}

void Overrides::reconfigure(std::uint32_t block, const BlockConfiguration& override)
{
    const Node& node = graph_.network.nodes[block];
    const ContextScope scope(node.path.c_str(), "reconfigure");
    try {
        node.block->override_config(override);
    } catch (...) {
        life_.look_at(block);
        throw;
    }
    life_.look_at(block);
}

/// Gives the first `count` blocks the values that they had.
void Overrides::take_back(const std::vector<Change>& changes, std::size_t count)
{
    for (std::size_t at = 0; at < count; ++at) {
        const std::uint32_t block = changes[at].block;
        const BlockConfiguration tried = sum_of(sums_, block) + changes[at].values;
        try {
            reconfigure(block, pick(defaults(block) + present(block), tried, true));
        } catch (...) {
            life_.failures().report(block, "reconfigure", text_of_present_exception());
        }
    }
}

}  // namespace Quorval::runtime
