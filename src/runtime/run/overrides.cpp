#include "run/overrides.h"

#include "messages/context.h"

#include <set>

namespace Quorval::runtime {

namespace {

using Type = BlockConfiguration::Type;

/// Copies an element, unread.
void copy_element(const BlockConfiguration& from, const std::string& key, BlockConfiguration& to)
{
    switch (from.getType(key)) {
        case Type::Int:
            return to.set(key, from.getInt(key));
        case Type::Bool:
            return to.set(key, from.getBool(key));
        case Type::Double:
            return to.set(key, from.getDouble(key));
        case Type::String:
            return to.set(key, from.getString(key));
        case Type::IntVector:
            return to.set(key, from.getIntVector(key));
        case Type::DoubleVector:
            return to.set(key, from.getDoubleVector(key));
        case Type::StringVector:
            return to.set(key, from.getStringVector(key));
        case Type::BoolVector:
            return to.set(key, from.getBoolVector(key));
    }
}

std::vector<std::string> keys_of(const BlockConfiguration& config)
{
    std::vector<std::string> keys;
    for (const auto at = config.iterate(""); !at->is_end(); at->advance()) {
        keys.push_back(at->key());
    }
    return keys;
}

/// A copy in which nothing is read, so that a block that does not read a key is noticed.
BlockConfiguration unread(const BlockConfiguration& config)
{
    BlockConfiguration copy;
    for (const std::string& key : keys_of(config)) {
        copy_element(config, key, copy);
    }
    return copy;
}

/// The elements of `config` whose keys `other` has too.
BlockConfiguration pick(const BlockConfiguration& config, const BlockConfiguration& other)
{
    const std::vector<std::string> keys = keys_of(other);
    const std::set<std::string> wanted(keys.begin(), keys.end());
    BlockConfiguration picked;
    for (const std::string& key : keys_of(config)) {
        if (wanted.count(key) > 0) {
            copy_element(config, key, picked);
        }
    }
    return picked;
}

}  // namespace

Overrides::Overrides(const Network& network, const std::vector<const BlockConfiguration*>& configs,
                     Life& life)
    : network_(network), configs_(configs), life_(life)
{
}

std::string Overrides::apply(const std::vector<Change>& changes)
{
    for (std::size_t at = 0; at < changes.size(); ++at) {
        const std::uint32_t block = changes[at].block;
        try {
            reconfigure(block, unread(of(block) + changes[at].values));
        } catch (...) {
            const std::string text = text_of_present_exception();
            take_back(changes, at + 1);
            return "block '" + network_.nodes[block].path + "': " + text;
        }
    }
    for (const Change& change : changes) {
        sums_[change.block] += change.values;
    }
    return "";
}

BlockConfiguration Overrides::of(std::uint32_t block) const
{
    const auto at = sums_.find(block);
    return at == sums_.end() ? BlockConfiguration() : at->second;
}

void Overrides::reconfigure(std::uint32_t block, const BlockConfiguration& override)
{
    const Node& node = network_.nodes[block];
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
        const BlockConfiguration tried = of(block) + changes[at].values;
        try {
            reconfigure(block, pick(*configs_[block] + of(block), tried));
        } catch (...) {
            life_.failures().report(block, "reconfigure", text_of_present_exception());
        }
    }
}

}  // namespace Quorval::runtime
