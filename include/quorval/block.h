// The base class of all processing units, and what blocks and superblocks have in common.
#pragma once

#include <quorval/config.h>
#include <quorval/datatype.h>
#include <quorval/export.h>
#include <quorval/fdevent.h>
#include <quorval/port.h>

#include <memory>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

struct sd_bus_vtable;

namespace Quorval {

class Block;
class PStore;

/// Run-time services that an application shares with all its blocks. The application defines it;
/// the library only passes it on.
struct RuntimeTools;

/// Services for the create functions of plug-ins, see pluginloader.h. The application defines it
/// too.
struct InitTools;

/// A connection: source block, name of its output, destination block, name of its input. The
/// blocks are plain ones, never superblocks.
using Connection = std::tuple<Block const&, std::string, Block const&, std::string>;

/// A D-Bus object that a block offers. The library records it; the application publishes it.
struct DBusMeta {
    std::string path;             ///< object path
    std::string interface;        ///< interface name
    void* userdata;               ///< passed to the handlers of the table; not owned
    const sd_bus_vtable* vtable;  ///< never null; not owned
};

/// A block or a superblock. No data. One thread at a time.
class QUORVAL_EXPORT Container {
public:
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;
    virtual ~Container();

    /// Prepares the container; a plug-in loader calls it once, before it names the container.
    /// @param config  the configuration that the container was made with
    /// @return what the container wants to hand back to whoever made it
    virtual BlockConfiguration setup(const BlockConfiguration& config) = 0;

    virtual const std::string& get_name() const = 0;
    virtual void set_name(std::string name) = 0;

    /// Every (block, input) that receives the data which arrives at the input `name`. The
    /// references live as long as the container.
    /// @throws std::out_of_range  there is no such input
    virtual std::vector<std::pair<Block const&, InPortProvider&>> get_inport(
        const std::string& name) const = 0;

    /// The (block, output) behind the output `name`. The references live as long as the container.
    /// @throws std::out_of_range  there is no such output
    virtual std::pair<Block const&, OutPortInternal&> get_outport(
        const std::string& name) const = 0;

    /// The plain blocks inside. Not owned by the caller.
    virtual std::vector<Block*> get_blocks() = 0;

    /// The connections inside.
    virtual std::vector<Connection> get_connections() = 0;

    /// The data types of the inputs, of the outputs and of the descriptor ports, by port name.
    virtual std::unordered_map<std::string, Datatype> get_inports_info() const = 0;
    virtual std::unordered_map<std::string, Datatype> get_outports_info() const = 0;
    virtual std::unordered_map<std::string, Datatype> get_fdports_info() const = 0;

protected:
    Container();
};

/// A processing unit: a name, a configuration, ports, a store. Plug-ins derive from it, add ports
/// in the constructor or in setup(), and override the operations of the life cycle. The
/// application calls those; the library itself runs nothing. Stays where it is. One thread at a
/// time.
class QUORVAL_EXPORT Block : public Container {
public:
    /// A block without a configuration, whose store has no path.
    explicit Block(std::string name);

    /// Keeps a copy of `config`, then reads the string "pstore_path" from `config`, which marks it
    /// consumed there, as the path of the store; without it the store has no path.
    /// @throws std::runtime_error  "pstore_path" is no string, with the text of getString()
    Block(std::string name, const BlockConfiguration& config);

    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    /// Destroys the ports, which closes the descriptors of event ports.
    ~Block() override;

    /// Does nothing and returns an empty configuration, unless overridden.
    BlockConfiguration setup(const BlockConfiguration& config) override;

    const std::string& get_name() const override;
    void set_name(std::string name) override;

    /// One pair: this block and its input.
    /// @throws std::out_of_range  "The InPort <name> does not exist in block <block>"
    std::vector<std::pair<Block const&, InPortProvider&>> get_inport(
        const std::string& name) const override;

    /// This block and its output.
    /// @throws std::out_of_range  "The OutPort <name> does not exist in block <block>"
    std::pair<Block const&, OutPortInternal&> get_outport(const std::string& name) const override;

    /// The block itself.
    std::vector<Block*> get_blocks() override;

    /// None.
    std::vector<Connection> get_connections() override;

    std::unordered_map<std::string, Datatype> get_inports_info() const override;
    std::unordered_map<std::string, Datatype> get_outports_info() const override;
    std::unordered_map<std::string, Datatype> get_fdports_info() const override;

    /// Called by the application before the first run(). Does nothing unless overridden.
    virtual void start();

    /// Called by the application after the last run(). Does nothing unless overridden.
    virtual void stop();

    /// One step of processing. Returns true unless overridden; what the result means is agreed
    /// between an application and its blocks.
    virtual bool run();

    /// Called by override_config(). Does nothing unless overridden.
    /// @param merged    the block's configuration with the override merged in
    /// @param override  the override alone
    virtual void reconfigure(const BlockConfiguration& merged, const BlockConfiguration& override);

    /// Calls reconfigure() with the block's configuration and `override` merged into it. The
    /// configuration that the block keeps does not change. Logs a warning when neither the merged
    /// configuration nor `override` was wholly consumed after that.
    /// @throws what reconfigure() throws
    void override_config(const BlockConfiguration& override);

    /// Add a port under its own name and own it from then on; an input and an output may share a
    /// name. The port stays known under the name that it has now. A port that is refused is
    /// destroyed.
    /// @return the port, owned by the block
    /// @throws std::runtime_error  the name is taken: "Failed to add inport '<name>', probably
    ///     duplicate.", with "outport" and "fdport" likewise
    /// @throws std::invalid_argument  the port is null: "Failed to add inport due to nullptr
    ///     input.", with "outport" and "fdport" likewise
    InPortProvider* add_inport(std::unique_ptr<InPortProvider> port);
    OutPortInternal* add_outport(std::unique_ptr<OutPortInternal> port);
    FdPort* add_fdport(std::unique_ptr<FdPort> port);

    /// Adds an automatically resetting port of the type `extfd` on a descriptor that the caller
    /// keeps owning.
    /// @return the port, owned by the block
    /// @throws std::runtime_error  `fd` is negative: "Invalid fd supplied"; or the name is taken
    FdPort* make_fdport(const std::string& name, int fd, FDEvent::EventMask mask);

    /// Adds an EventPort on a new event descriptor, see eventfd(2), which the port owns.
    /// @return the port, owned by the block
    /// @throws std::runtime_error  there is no descriptor to be had: "Invalid fd supplied"; or the
    ///     name is taken
    FdPort* make_eventport(const std::string& name);

    /// The descriptor port `name`, owned by the block.
    /// @throws std::out_of_range  there is none: "unordered_map::at"
    FdPort* get_fdport(const std::string& name);
    /// The descriptor ports, owned by the block.
    std::vector<FdPort*> get_fdports();
    std::vector<std::string> get_fdport_names();
    /// The records of the D-Bus objects, owned by the block.
    std::vector<DBusMeta*> get_dbus_meta();

    /// Whether an output of the block is triggered. Allocates nothing.
    bool has_triggered_port() const;

    /// Reset every input, every descriptor port, see Port::reset(). A port may add others to the
    /// block in its reset(); those are not reset by the same call.
    void reset_inports(bool force);
    void reset_fdports(bool force);

    /// Whether the block has a descriptor port.
    bool has_external_port();

    /// Whether the block has a descriptor port or a D-Bus object, and so is driven from outside
    /// and not by its inputs alone.
    bool has_external_trigger();

    /// The store of the block.
    PStore& pstore();

    /// Attaches the run-time services; null detaches them.
    void set_tools(std::shared_ptr<RuntimeTools> tools);

    /// The attached services.
    /// @throws std::runtime_error  none are attached: "<block> has no RuntimeTools set"
    RuntimeTools& get_tools() const;

    /// Records a D-Bus object. An object that was recorded for the same table is replaced, whatever
    /// its record says by now.
    /// @param vtable    not owned; must outlive the block
    /// @param userdata  not owned; passed to the handlers of the table
    /// @throws std::runtime_error  `vtable` is null: "Block failed to add dbus due to nullptr
    ///     vtable"; services are attached: "Block failed to add dbus. Must be done in detached
    ///     state"
    void add_dbus(const std::string& path, const std::string& interface,
                  const sd_bus_vtable* vtable, void* userdata);

private:
    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Quorval
