// The objects that blocks offer on a bus.
#pragma once

#include "control/handles.h"
#include "loop/loop.h"
#include "run/life.h"
#include "schedule/network.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// An object of a block that cannot be published.
class RefusedObject : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Publishes the objects that the blocks of a graph recorded. What their handlers throw goes no
/// further: the caller gets an error, and the failure of the block is reported. Outputs that they
/// trigger are looked at, and the wave that a call leads to runs before the next call is answered.
class BlockObjects {
public:
    /// All must outlive the object.
    BlockObjects(const Network& network, Life& life, Loop& loop);
    BlockObjects(const BlockObjects&) = delete;
    BlockObjects& operator=(const BlockObjects&) = delete;
    ~BlockObjects();

    /// What stands in the way of publishing them: two at one place, for example; empty for nothing.
    std::string find_problem() const;

    /// Adds the slots of all objects. They must go before this object.
    /// @throws RefusedObject  one is refused: "block '<path>': the object <object path> with
    ///     the interface <interface> cannot be published: <reason>"
    void publish(sd_bus* bus, std::vector<SlotHandle>& slots) const;

private:
    struct Member;
    struct Object;

    static int call(sd_bus_message* message, void* member, sd_bus_error* error);
    static int get(sd_bus* bus, const char* path, const char* interface, const char* property,
                   sd_bus_message* reply, void* member, sd_bus_error* error);
    static int set(sd_bus* bus, const char* path, const char* interface, const char* property,
                   sd_bus_message* value, void* member, sd_bus_error* error);
    static void guard(sd_bus_vtable& entry, std::size_t offset);

    template <class Work>
    int contain(std::uint32_t block, sd_bus_error* error, const Work& work);

    void add(std::uint32_t block, const DBusMeta& meta);

    const Network& network_;
    Life& life_;
    Loop& loop_;
    std::vector<std::unique_ptr<Object>> objects_;
};

}  // namespace Quorval::runtime
