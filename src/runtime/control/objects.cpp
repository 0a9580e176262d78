#include "control/objects.h"

#include "messages/context.h"
#include "schedule/wave.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

// The tables of sd-bus are unions with offsets in them, and what it gives is freed as in C.
// NOLINTBEGIN(cppcoreguidelines-pro-type-union-access,cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory,performance-no-int-to-ptr)

namespace Quorval::runtime {

namespace {

constexpr const char* kOperation = "D-Bus call";

[[noreturn]] void throw_refused(const std::string& block, const std::string& path,
                                const std::string& interface, int result)
{
    throw RefusedObject("block '" + block + "': the object " + path + " with the interface " +
                        interface + " cannot be published: " + text_of_errno(result));
}

bool is_property(const sd_bus_vtable& entry)
{
    return entry.type == _SD_BUS_VTABLE_PROPERTY || entry.type == _SD_BUS_VTABLE_WRITABLE_PROPERTY;
}

/// A copy of a table, as this version has it; empty for what is none.
std::vector<sd_bus_vtable> copy_table(const sd_bus_vtable* table)
{
    if (table->type != _SD_BUS_VTABLE_START || table->x.start.element_size == 0) {
        return {};
    }
    // The bytes between the entries, which may have been compiled with another version.
    const std::size_t stride = table->x.start.element_size;
    std::vector<sd_bus_vtable> copy;
    const auto* entry = reinterpret_cast<const unsigned char*>(table);
    do {
        sd_bus_vtable one;
        std::memset(&one, 0, sizeof one);
        std::memcpy(&one, entry, std::min(stride, sizeof one));
        copy.push_back(one);
        entry += stride;
    } while (copy.back().type != _SD_BUS_VTABLE_END);
    copy.front().x.start.element_size = sizeof(sd_bus_vtable);
    return copy;
}

/// What sd-bus does for a property without a function: the value itself lies in the block.
int append_value(sd_bus_message* reply, const char* signature, void* value)
{
    if (std::strcmp(signature, "as") == 0) {
        return sd_bus_message_append_strv(reply, *static_cast<char***>(value));
    }
    const char type = signature[0];
    if (std::strchr("sog", type) == nullptr) {
        return sd_bus_message_append_basic(reply, type, value);
    }
    const char* text = *static_cast<char**>(value);
    return sd_bus_message_append_basic(reply, type,
                                       text != nullptr ? text
                                       : type == 'o'   ? "/"
                                                       : "");
}

int read_value(sd_bus_message* message, const char* signature, void* value)
{
    const char type = signature[0];
    if (std::strchr("sog", type) == nullptr) {
        return sd_bus_message_read_basic(message, type, value);
    }
    const char* text = nullptr;
    const int result = sd_bus_message_read_basic(message, type, &text);
    if (result < 0) {
        return result;
    }
    char* const copy = ::strdup(text);
    if (copy == nullptr) {
        return -ENOMEM;
    }
    std::free(std::exchange(*static_cast<char**>(value), copy));
    return result;
}

}  // namespace

/// An entry of a table: what the block wants to be called.
struct BlockObjects::Member {
    BlockObjects* owner = nullptr;
    std::uint32_t block = 0;
    sd_bus_vtable entry{};
    void* userdata = nullptr;
};

/// One published table. The functions in it get a member instead of what the block recorded: the
/// offsets of the entries lead to it.
struct BlockObjects::Object {
    std::uint32_t block = 0;
    std::string path;
    std::string interface;
    std::vector<Member> members;  // as the entries of the table
    std::vector<sd_bus_vtable> table;
};

BlockObjects::BlockObjects(const Network& network, Life& life, Loop& loop)
    : network_(network), life_(life), loop_(loop)
{
    for (std::uint32_t block = 0; block < network.nodes.size(); ++block) {
        for (const DBusMeta* meta : network.nodes[block].block->get_dbus_meta()) {
            add(block, *meta);
        }
    }
}

BlockObjects::~BlockObjects() = default;

void BlockObjects::add(std::uint32_t block, const DBusMeta& meta)
{
    auto object = std::make_unique<Object>();
    object->block = block;
    object->path = meta.path;
    object->interface = meta.interface;
    object->table = copy_table(meta.vtable);
    object->members.reserve(object->table.size());
    for (sd_bus_vtable& entry : object->table) {
        const std::size_t offset = entry.type == _SD_BUS_VTABLE_METHOD ? entry.x.method.offset
                                   : is_property(entry)                ? entry.x.property.offset
                                                                       : 0;
        const bool is_absolute =
            meta.userdata == nullptr || (entry.flags & SD_BUS_VTABLE_ABSOLUTE_OFFSET) != 0;
        void* const userdata =
            is_absolute ? reinterpret_cast<void*>(offset)
                        : static_cast<void*>(static_cast<unsigned char*>(meta.userdata) + offset);
        object->members.push_back({this, block, entry, userdata});
        guard(entry, sizeof(Member) * (object->members.size() - 1));
    }
    objects_.push_back(std::move(object));
}

/// Has an entry call our functions, with the member at an offset.
void BlockObjects::guard(sd_bus_vtable& entry, std::size_t offset)
{
    if (entry.type == _SD_BUS_VTABLE_METHOD) {
        entry.x.method.offset = offset;
        if (entry.x.method.handler != nullptr) {
            entry.x.method.handler = call;
        }
    } else if (is_property(entry)) {
        entry.x.property.offset = offset;
        entry.x.property.get = get;
        if (entry.type == _SD_BUS_VTABLE_WRITABLE_PROPERTY) {
            entry.x.property.set = set;
        }
    }
    if (entry.type != _SD_BUS_VTABLE_START) {
        entry.flags &= ~SD_BUS_VTABLE_ABSOLUTE_OFFSET;
    }
}

std::string BlockObjects::find_problem() const
{
    std::map<std::pair<std::string, std::string>, std::string> taken;
    for (const char* interface : {kInterface, kLinkInterface}) {
        taken[{kPath, interface}] = "the graph itself";
    }
    for (const std::unique_ptr<Object>& object : objects_) {
        const std::string block = "block '" + network_.nodes[object->block].path + "'";
        const auto [at, is_new] = taken.try_emplace({object->path, object->interface}, block);
        if (!is_new) {
            return at->second + " and " + block + " both offer the object " + object->path +
                   " with the interface " + object->interface;
        }
    }
    return "";
}

void BlockObjects::publish(sd_bus* bus, std::vector<SlotHandle>& slots) const
{
    for (const std::unique_ptr<Object>& object : objects_) {
        sd_bus_slot* slot = nullptr;
        const int result = object->table.empty()
                               ? -EINVAL
                               : sd_bus_add_object_vtable(
                                     bus, &slot, object->path.c_str(), object->interface.c_str(),
                                     object->table.data(), object->members.data());
        if (result < 0) {
            throw_refused(network_.nodes[object->block].path, object->path, object->interface,
                          result);
        }
        slots.emplace_back(slot);
    }
}

/// Runs the code of a block on behalf of a caller.
template <class Work>
int BlockObjects::contain(std::uint32_t block, sd_bus_error* error, const Work& work)
{
    int result = 0;
    std::string failure;
    try {
        const ContextScope scope(network_.nodes[block].path.c_str(), kOperation);
        result = work();
    } catch (...) {
        failure = text_of_present_exception();
        life_.failures().report(block, kOperation, failure);
        result = sd_bus_error_set(error, kRefused, failure.c_str());
    }
    life_.look_at(block);
    if (life_.has_work()) {
        loop_.hold();
    }
    return result;
}

int BlockObjects::call(sd_bus_message* message, void* member, sd_bus_error* error)
{
    const auto& called = *static_cast<Member*>(member);
    return called.owner->contain(called.block, error, [&] {
        return called.entry.x.method.handler(message, called.userdata, error);
    });
}

int BlockObjects::get(sd_bus* bus, const char* path, const char* interface, const char* property,
                      sd_bus_message* reply, void* member, sd_bus_error* error)
{
    const auto& read = *static_cast<Member*>(member);
    const auto& record = read.entry.x.property;
    if (record.get == nullptr) {
        return append_value(reply, record.signature, read.userdata);
    }
    return read.owner->contain(read.block, error, [&] {
        return record.get(bus, path, interface, property, reply, read.userdata, error);
    });
}

int BlockObjects::set(sd_bus* bus, const char* path, const char* interface, const char* property,
                      sd_bus_message* value, void* member, sd_bus_error* error)
{
    const auto& written = *static_cast<Member*>(member);
    const auto& record = written.entry.x.property;
    if (record.set == nullptr) {
        return read_value(value, record.signature, written.userdata);
    }
    return written.owner->contain(written.block, error, [&] {
        return record.set(bus, path, interface, property, value, written.userdata, error);
    });
}

}  // namespace Quorval::runtime

// NOLINTEND(cppcoreguidelines-pro-type-union-access,cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory,performance-no-int-to-ptr)
