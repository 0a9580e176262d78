#include "quorval/block.h"

#include <quorval/log.h>
#include <quorval/pstore.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace Quorval {

namespace {

constexpr const char* kFdType = "extfd";

[[noreturn]] void throw_duplicate_port(const char* kind, const std::string& name)
{
    throw std::runtime_error(std::string("Failed to add ") + kind + " '" + name +
                             "', probably duplicate.");
}

[[noreturn]] void throw_null_port(const char* kind)
{
    throw std::invalid_argument(std::string("Failed to add ") + kind + " due to nullptr input.");
}

[[noreturn]] void throw_no_such_port(const char* kind, const std::string& port,
                                     const std::string& block)
{
    throw std::out_of_range(std::string("The ") + kind + " " + port + " does not exist in block " +
                            block);
}

/// Unlike the other look-ups this one names neither port nor block. Callers match on the text, so
/// it stays.
/// Held by BlockFdPorts.ThrowsTheTextOfTheStandardMapForAnUnknownName.
[[noreturn]] void throw_no_such_fdport()
{
    throw std::out_of_range("unordered_map::at");
}

[[noreturn]] void throw_no_tools(const std::string& block)
{
    throw std::runtime_error(block + " has no RuntimeTools set");
}

[[noreturn]] void throw_null_vtable()
{
    throw std::runtime_error("Block failed to add dbus due to nullptr vtable");
}

[[noreturn]] void throw_attached()
{
    throw std::runtime_error("Block failed to add dbus. Must be done in detached state");
}

/// The ports of one kind, by the names that they had when they were added: a derived class can
/// change the name of its port. A block has few: a sorted list takes less memory and time than a
/// hash table.
template <class Kind>
class Ports {
public:
    struct Entry {
        std::string name;
        std::unique_ptr<Kind> port;
    };

    /// The entries, sorted by name.
    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }
    bool empty() const { return entries_.empty(); }
    std::size_t size() const { return entries_.size(); }

    /// The port of that name, null when there is none.
    Kind* find(const std::string& name) const
    {
        const auto at = lower_bound(name);
        return at != end() && at->name == name ? at->port.get() : nullptr;
    }

    Kind* add(std::unique_ptr<Kind> port, const char* kind)
    {
        if (port == nullptr) {
            throw_null_port(kind);
        }
        const std::string& name = port->get_name();
        const auto at = lower_bound(name);
        if (at != end() && at->name == name) {
            throw_duplicate_port(kind, name);
        }
        in_order_.push_back(port.get());
        try {
            entries_.insert(at, Entry{name, std::move(port)});
        } catch (...) {
            in_order_.pop_back();
            throw;
        }
        return in_order_.back();
    }

    bool has_triggered() const
    {
        return std::any_of(in_order_.begin(), in_order_.end(),
                           [](const Kind* port) { return port->is_triggered(); });
    }

    /// Resets each port that is there now; a port may add others meanwhile.
    void reset(bool force) const
    {
        for (std::size_t left = in_order_.size(); left > 0; --left) {
            in_order_[left - 1]->reset(force);
        }
    }

    std::unordered_map<std::string, Datatype> info() const
    {
        std::unordered_map<std::string, Datatype> types;
        types.reserve(entries_.size());
        for (const auto& [name, port] : entries_) {
            types.emplace(name, port->get_datatype());
        }
        return types;
    }

private:
    auto lower_bound(const std::string& name) const
    {
        return std::lower_bound(
            entries_.begin(), entries_.end(), name,
            [](const Entry& entry, const std::string& wanted) { return entry.name < wanted; });
    }

    std::vector<Entry> entries_;
    std::vector<Kind*> in_order_;  // of adding, so that adding moves no place before the end
};

/// A descriptor until somebody else owns it.
class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int fd) : fd_(fd) {}
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
    ~OwnedDescriptor()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    int get() const { return fd_; }
    void release() { fd_ = -1; }

private:
    int fd_;
};

}  // namespace

struct Block::Impl {
    std::string name;
    Ports<InPortProvider> inports;
    Ports<OutPortInternal> outports;
    Ports<FdPort> fdports;
    BlockConfiguration config;
    PStore store;
    std::shared_ptr<RuntimeTools> tools;
    // One for each table, which the application can change in the record.
    std::vector<std::pair<const sd_bus_vtable*, std::unique_ptr<DBusMeta>>> dbus;
};

Container::Container() = default;

Container::~Container() = default;

Block::Block(std::string name) : impl_(std::make_unique<Impl>())
{
    impl_->name = std::move(name);
}

Block::Block(std::string name, const BlockConfiguration& config) : Block(std::move(name))
{
    // Copied before it is read: the element of the copy stays unread, as all others do.
    impl_->config = config;
    impl_->store.set_path(config.getString("pstore_path", ""));
}

Block::~Block() = default;

BlockConfiguration Block::setup(const BlockConfiguration& /*config*/)
{
    return BlockConfiguration();
}

const std::string& Block::get_name() const
{
    return impl_->name;
}

void Block::set_name(std::string name)
{
    impl_->name = std::move(name);
}

std::vector<std::pair<Block const&, InPortProvider&>> Block::get_inport(
    const std::string& name) const
{
    InPortProvider* port = impl_->inports.find(name);
    if (port == nullptr) {
        throw_no_such_port("InPort", name, impl_->name);
    }
    std::vector<std::pair<Block const&, InPortProvider&>> found;
    found.emplace_back(*this, *port);
    return found;
}

std::pair<Block const&, OutPortInternal&> Block::get_outport(const std::string& name) const
{
    OutPortInternal* port = impl_->outports.find(name);
    if (port == nullptr) {
        throw_no_such_port("OutPort", name, impl_->name);
    }
    return {*this, *port};
}

std::vector<Block*> Block::get_blocks()
{
    return {this};
}

std::vector<Connection> Block::get_connections()
{
    return {};
}

std::unordered_map<std::string, Datatype> Block::get_inports_info() const
{
    return impl_->inports.info();
}

std::unordered_map<std::string, Datatype> Block::get_outports_info() const
{
    return impl_->outports.info();
}

std::unordered_map<std::string, Datatype> Block::get_fdports_info() const
{
    return impl_->fdports.info();
}

void Block::start() {}

void Block::stop() {}

bool Block::run()
{
    return true;
}

void Block::reconfigure(const BlockConfiguration& /*merged*/,
                        const BlockConfiguration& /*override*/)
{
}

void Block::override_config(const BlockConfiguration& override)
{
    const BlockConfiguration merged = impl_->config + override;
    reconfigure(merged, override);
    if (!merged.is_consumed() && !override.is_consumed()) {
        ilog(LOGLEVEL_WARNING) << "Block " << impl_->name
                               << " possibly did not consume all of (Re-)Configuration"
                               << std::endl;
    }
}

InPortProvider* Block::add_inport(std::unique_ptr<InPortProvider> port)
{
    return impl_->inports.add(std::move(port), "inport");
}

OutPortInternal* Block::add_outport(std::unique_ptr<OutPortInternal> port)
{
    return impl_->outports.add(std::move(port), "outport");
}

FdPort* Block::add_fdport(std::unique_ptr<FdPort> port)
{
    return impl_->fdports.add(std::move(port), "fdport");
}

FdPort* Block::make_fdport(const std::string& name, int fd, FDEvent::EventMask mask)
{
    return add_fdport(std::make_unique<FdPort>(name, Datatype(kFdType), fd, mask, true));
}

FdPort* Block::make_eventport(const std::string& name)
{
    OwnedDescriptor fd(::eventfd(0, 0));
    auto port = std::make_unique<EventPort>(name, true, fd.get());
    fd.release();
    return add_fdport(std::move(port));
}

FdPort* Block::get_fdport(const std::string& name)
{
    FdPort* port = impl_->fdports.find(name);
    if (port == nullptr) {
        throw_no_such_fdport();
    }
    return port;
}

std::vector<FdPort*> Block::get_fdports()
{
    std::vector<FdPort*> ports;
    ports.reserve(impl_->fdports.size());
    for (const auto& [name, port] : impl_->fdports) {
        ports.push_back(port.get());
    }
    return ports;
}

std::vector<std::string> Block::get_fdport_names()
{
    std::vector<std::string> names;
    names.reserve(impl_->fdports.size());
    for (const auto& [name, port] : impl_->fdports) {
        names.push_back(name);
    }
    return names;
}

std::vector<DBusMeta*> Block::get_dbus_meta()
{
    std::vector<DBusMeta*> records;
    records.reserve(impl_->dbus.size());
    for (const auto& [vtable, record] : impl_->dbus) {
        records.push_back(record.get());
    }
    return records;
}

bool Block::has_triggered_port() const
{
    return impl_->outports.has_triggered();
}

void Block::reset_inports(bool force)
{
    impl_->inports.reset(force);
}

void Block::reset_fdports(bool force)
{
    impl_->fdports.reset(force);
}

bool Block::has_external_port()
{
    return !impl_->fdports.empty();
}

bool Block::has_external_trigger()
{
    return has_external_port() || !impl_->dbus.empty();
}

PStore& Block::pstore()
{
    return impl_->store;
}

void Block::set_tools(std::shared_ptr<RuntimeTools> tools)
{
    impl_->tools = std::move(tools);
}

RuntimeTools& Block::get_tools() const
{
    if (impl_->tools == nullptr) {
        throw_no_tools(impl_->name);
    }
    return *impl_->tools;
}

void Block::add_dbus(const std::string& path, const std::string& interface,
                     const sd_bus_vtable* vtable, void* userdata)
{
    if (vtable == nullptr) {
        throw_null_vtable();
    }
    if (impl_->tools != nullptr) {
        throw_attached();
    }
    auto record = std::make_unique<DBusMeta>(DBusMeta{path, interface, userdata, vtable});
    auto& records = impl_->dbus;
    const auto at = std::find_if(records.begin(), records.end(),
                                 [vtable](const auto& present) { return present.first == vtable; });
    if (at != records.end()) {
        at->second = std::move(record);
    } else {
        records.emplace_back(vtable, std::move(record));
    }
}

}  // namespace Quorval
