#include "quorval/superblock.h"

#include <quorval/pstore.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace Quorval {

namespace {

using Inputs = std::vector<std::pair<Block const&, InPortProvider&>>;
using Output = std::pair<Block const&, OutPortInternal&>;

[[noreturn]] void throw_null_block()
{
    // The text says superblock whatever was to be added. Callers match on it, so it stays.
    // Held by SuperblockAddBlock.NamesASuperblockWhenThereIsNoObject.
    throw std::runtime_error("Failed to add superblock due to nullptr input.");
}

[[noreturn]] void throw_empty_name(const char* kind)
{
    throw std::runtime_error(std::string("Failed to add ") + kind + " due to empty string input.");
}

[[noreturn]] void throw_duplicate_outport(const std::string& name)
{
    throw std::runtime_error("Failed to add outport '" + name + "', probably duplicate.");
}

[[noreturn]] void throw_missing_port(const char* kind, const Container& container,
                                     const std::string& port)
{
    throw std::runtime_error(std::string("Failed to add connection due to missing ") + kind + ": " +
                             container.get_name() + "::" + port);
}

[[noreturn]] void throw_unknown_port(const char* kind, const std::string& port,
                                     const std::string& superblock)
{
    throw std::out_of_range(std::string("Get for unknown ") + kind + " \"" + port +
                            "\" on superblock \"" + superblock + "\"");
}

[[noreturn]] void throw_no_such_block(const std::string& superblock, const std::string& block)
{
    throw std::invalid_argument("Superblock " + superblock + " does not contain block of name " +
                                block);
}

/// Destroys a member whose name is taken.
[[noreturn]] void reject(UniqueDlPtr<Container>&& block, const std::string& name)
{
    // The text first: if memory runs out for it, the member is still there.
    const std::runtime_error error(
        "Failed to add block: a block with the same name already exists: " + name);
    block = UniqueDlPtr<Container>();
    throw error;  // NOLINT(cert-err09-cpp,cert-err61-cpp,misc-throw-by-value-catch-by-reference)
}

/// Makes room for `more` items behind those of a list, so that adding them cannot fail.
template <class List>
void make_room(List& list, std::size_t more)
{
    const std::size_t needed = list.size() + more;
    if (needed > list.capacity()) {
        list.reserve(std::max(needed, 2 * list.capacity()));
    }
}

/// Moves the items of a list behind those of another; an empty one is replaced as a whole. Items
/// hold references, so they can be constructed but not assigned.
template <class Item>
void append(std::vector<Item>& list, std::vector<Item>&& more)
{
    if (list.empty()) {
        list = std::move(more);
        return;
    }
    make_room(list, more.size());
    for (Item& item : more) {
        list.push_back(std::move(item));
    }
}

static_assert(std::is_nothrow_move_constructible_v<Connection>);

}  // namespace

struct Superblock::Impl {
    std::string name;
    BlockConfiguration config;  // kept for those who look at the record; not read again
    std::unordered_map<std::string, Inputs> inports;
    std::unordered_map<std::string, Output> outports;
    // Before `connections` and behind the exposed ports, whose references nothing reads any more
    // when the members go.
    std::map<std::string, UniqueDlPtr<Container>> blocks;
    std::vector<Connection> connections;
    PStore pstore;
};

Superblock::Superblock(std::string name) : impl_(std::make_unique<Impl>())
{
    impl_->name = std::move(name);
}

Superblock::Superblock(std::string name, const BlockConfiguration& config)
    : Superblock(std::move(name))
{
    impl_->config = config;
    impl_->pstore.set_path(config.getString("pstore_path", ""));
}

Superblock::~Superblock() = default;

BlockConfiguration Superblock::setup(const BlockConfiguration& /*config*/)
{
    return BlockConfiguration();
}

const std::string& Superblock::get_name() const
{
    return impl_->name;
}

void Superblock::set_name(std::string name)
{
    impl_->name = std::move(name);
}

std::vector<std::pair<Block const&, InPortProvider&>> Superblock::get_inport(
    const std::string& name) const
{
    const auto found = impl_->inports.find(name);
    if (found == impl_->inports.end()) {
        throw_unknown_port("inport", name, impl_->name);
    }
    return found->second;
}

std::pair<Block const&, OutPortInternal&> Superblock::get_outport(const std::string& name) const
{
    const auto found = impl_->outports.find(name);
    if (found == impl_->outports.end()) {
        throw_unknown_port("outport", name, impl_->name);
    }
    return found->second;
}

// A class derived from Superblock may answer for itself, so members are asked and nothing is taken
// from their records.
std::vector<Block*> Superblock::get_blocks()
{
    std::vector<Block*> collected;
    for (const auto& [key, member] : impl_->blocks) {
        append(collected, member->get_blocks());
    }
    return collected;
}

std::vector<Connection> Superblock::get_connections()
{
    std::vector<Connection> collected;
    for (const auto& [key, member] : impl_->blocks) {
        auto more = member->get_connections();
        if (!more.empty()) {  // a plain block has none, and most members are that
            append(collected, std::move(more));
        }
    }
    if (collected.empty()) {
        return impl_->connections;
    }
    make_room(collected, impl_->connections.size());
    for (const Connection& connection : impl_->connections) {
        collected.push_back(connection);
    }
    return collected;
}

std::unordered_map<std::string, Datatype> Superblock::get_inports_info() const
{
    std::unordered_map<std::string, Datatype> types;
    for (const auto& [name, targets] : impl_->inports) {
        types.emplace(name, targets.front().second.get_datatype());
    }
    return types;
}

std::unordered_map<std::string, Datatype> Superblock::get_outports_info() const
{
    std::unordered_map<std::string, Datatype> types;
    for (const auto& [name, source] : impl_->outports) {
        types.emplace(name, source.second.get_datatype());
    }
    return types;
}

// The prefix is the superblock's name, where one would expect the member's: members with ports of
// the same name share an entry, that of the first. Applications look the keys up, so it stays.
// Held by SuperblockFdPortsInfo.ListsThePortOfTheFirstMemberWhereNamesAgree.
std::unordered_map<std::string, Datatype> Superblock::get_fdports_info() const
{
    std::unordered_map<std::string, Datatype> types;
    for (const auto& [key, member] : impl_->blocks) {
        for (const auto& [port, type] : member->get_fdports_info()) {
            types.emplace(impl_->name + "::" + port, type);
        }
    }
    return types;
}

Container& Superblock::add_block(UniqueDlPtr<Container>&& block)
{
    if (!block) {
        throw_null_block();
    }
    const std::string key = block->get_name();
    const auto [at, is_new] = impl_->blocks.try_emplace(key, std::move(block));
    if (!is_new) {
        // cppcheck-suppress accessMoved  // try_emplace() moves nothing when the name is taken
        reject(std::move(block), key);
    }
    return *at->second;
}

Container& Superblock::add_block(std::tuple<UniqueDlPtr<Container>, BlockConfiguration>&& block)
{
    return add_block(std::move(std::get<0>(block)));
}

void Superblock::add_connection(const Container& from, const std::string& outport,
                                const Container& to, const std::string& inport)
{
    try {
        from.get_outport(outport);
    } catch (const std::out_of_range&) {
        throw_missing_port("outport", from, outport);
    }
    try {
        to.get_inport(inport);
    } catch (const std::out_of_range&) {
        throw_missing_port("inport", to, inport);
    }

    const auto source = from.get_outport(outport);
    const auto targets = to.get_inport(inport);
    std::vector<Connection> added;
    added.reserve(targets.size());
    for (const auto& target : targets) {
        added.emplace_back(source.first, source.second.get_name(), target.first,
                           target.second.get_name());
    }
    append(impl_->connections, std::move(added));
}

void Superblock::add_inport(const std::string& name, const Container& block,
                            const std::string& inport)
{
    if (name.empty()) {
        throw_empty_name("inport");
    }
    auto targets = block.get_inport(inport);
    if (targets.empty()) {
        return;
    }
    const auto found = impl_->inports.find(name);
    if (found != impl_->inports.end()) {
        append(found->second, std::move(targets));
    } else {
        impl_->inports.emplace(name, std::move(targets));
    }
}

void Superblock::add_outport(const std::string& name, const Container& block,
                             const std::string& outport)
{
    if (name.empty()) {
        throw_empty_name("outport");
    }
    const auto source = block.get_outport(outport);
    if (!impl_->outports.emplace(name, source).second) {
        throw_duplicate_outport(name);
    }
}

Container& Superblock::get_block(const std::string& name) const
{
    const auto found = impl_->blocks.find(name);
    if (found == impl_->blocks.end()) {
        throw_no_such_block(get_name(), name);
    }
    return *found->second;
}

PStore& Superblock::pstore()
{
    return impl_->pstore;
}

}  // namespace Quorval
