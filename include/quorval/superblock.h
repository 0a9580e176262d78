// A container of blocks, the connections between them, and the ports that it shows outside.
#pragma once

#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/dlloader.h>
#include <quorval/export.h>

#include <memory>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Quorval {

/// Owns member containers, blocks or further superblocks, records connections between their ports
/// and exposes chosen ports under names of its own. It wires nothing: the application reads the
/// connections back. It only grows, so that references into it live as long as it does. A refused
/// operation leaves it as it was. Stays where it is. One thread at a time.
class QUORVAL_EXPORT Superblock : public Container {
public:
    /// An empty superblock whose store has no path.
    explicit Superblock(std::string name);

    /// Keeps a copy of `config`, then reads the string "pstore_path" from `config`, which marks it
    /// consumed there, as the path of the store; without it the store has no path.
    /// @throws std::runtime_error  "pstore_path" is no string, with the text of getString()
    Superblock(std::string name, const BlockConfiguration& config);

    Superblock(const Superblock&) = delete;
    Superblock& operator=(const Superblock&) = delete;
    /// Destroys the members, the last name first, each before the plug-in that holds its code.
    ~Superblock() override;

    /// Does nothing: members are set up by whoever made them. Returns an empty configuration.
    BlockConfiguration setup(const BlockConfiguration& config) override;

    const std::string& get_name() const override;
    /// Renames the superblock alone: containers that hold it keep finding it under its old name.
    void set_name(std::string name) override;

    /// Every (block, input) that the exposed input `name` feeds, in the order of exposing.
    /// @throws std::out_of_range
    ///     "Get for unknown inport "<name>" on superblock "<superblock>"", with the quotes
    std::vector<std::pair<Block const&, InPortProvider&>> get_inport(
        const std::string& name) const override;

    /// The (block, output) that the exposed output `name` stands for.
    /// @throws std::out_of_range
    ///     "Get for unknown outport "<name>" on superblock "<superblock>"", with the quotes
    std::pair<Block const&, OutPortInternal&> get_outport(const std::string& name) const override;

    /// All plain blocks of the members, member after member in the order of their names.
    std::vector<Block*> get_blocks() override;

    /// The connections of the members, in the order of their names, then the superblock's own in
    /// the order of their making.
    std::vector<Connection> get_connections() override;

    /// The exposed inputs with the type of the first port behind each; the exposed outputs.
    std::unordered_map<std::string, Datatype> get_inports_info() const override;
    std::unordered_map<std::string, Datatype> get_outports_info() const override;

    /// All descriptor ports of the members, without exposing: "<superblock>::<port>", where <port>
    /// is the name that the member itself gives. Where members agree on a name, the first member
    /// in the order of names is listed alone.
    std::unordered_map<std::string, Datatype> get_fdports_info() const override;

    /// Takes a member in, under the name that it has now; a later renaming changes nothing here.
    /// A member whose name is taken is destroyed.
    /// @return the member, owned by the superblock
    /// @throws std::runtime_error  there is no object: "Failed to add superblock due to nullptr
    ///     input."; the name is taken: "Failed to add block: a block with the same name already
    ///     exists: <name>"
    Container& add_block(UniqueDlPtr<Container>&& block);
    /// The same for what PluginLoader::create() returns; the configuration stays in the tuple.
    Container& add_block(std::tuple<UniqueDlPtr<Container>, BlockConfiguration>&& block);

    /// Records the connections from an output of `from` to every input behind `inport` of `to`.
    /// Neither membership nor data types nor repetition are checked.
    /// @throws std::runtime_error
    ///     "Failed to add connection due to missing outport: <container>::<outport>",
    ///     "Failed to add connection due to missing inport: <container>::<inport>"
    void add_connection(const Container& from, const std::string& outport, const Container& to,
                        const std::string& inport);

    /// Exposes an input of a member as `name`. Exposing another under the same name makes one
    /// exposed input feed both.
    /// @throws std::runtime_error  `name` is empty: "Failed to add inport due to empty string
    ///     input."
    /// @throws what `block` throws for an input that it does not have
    void add_inport(const std::string& name, const Container& block, const std::string& inport);

    /// Exposes an output of a member as `name`.
    /// @throws std::runtime_error  `name` is empty: "Failed to add outport due to empty string
    ///     input."; `name` is taken: "Failed to add outport '<name>', probably duplicate."
    /// @throws what `block` throws for an output that it does not have
    void add_outport(const std::string& name, const Container& block, const std::string& outport);

    /// The member that was added under `name`, owned by the superblock.
    /// @throws std::invalid_argument
    ///     "Superblock <superblock> does not contain block of name <name>"
    Container& get_block(const std::string& name) const;

    /// The store of the superblock.
    PStore& pstore();

private:
    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Quorval
