// The order in which the blocks of a network run.
#pragma once

#include "schedule/network.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// Connections that ask for what is impossible.
struct Cycle {
    std::uint32_t wire = 0;  // the last of its connections, an index
    /// Each of its blocks once, as they would have to run: the first is the source of that
    /// connection, or the reader of a delayed one.
    std::vector<std::uint32_t> nodes;
};

struct Order {
    std::vector<std::uint32_t> nodes;  // as they run; without those that wait for a cycle
    std::vector<Cycle> cycles;         // by wire
};

/// The order that the wires ask for, and by path, in the order of bytes, among the blocks that are
/// free. A wire puts its source before its reader, a delayed one its reader before its source; a
/// delayed one from a block to itself asks for nothing. Looks at paths and wires alone.
///
/// Wires that ask for what is impossible make cycles. They are taken as they stand in the network:
/// each that closes a cycle with those before it is one entry, and is left out from there on. Of a
/// large tangle of cycles only the first ones are given, so that the result stays in proportion to
/// the network.
Order find_order(const Network& network);

/// The nodes of find_order() alone.
std::vector<std::uint32_t> find_possible_order(const Network& network);

/// "a -> b -> a": the paths of the blocks, the first of them again at the end.
std::string to_string(const Cycle& cycle, const Network& network);

/// Brings a network into the order of its records: the nodes as `order` has them, the wires by
/// reader and then by the name of the input.
/// @param order  of this network, without a cycle; nodes that it leaves out go, they have no wires
void arrange(Network& network, const Order& order);

}  // namespace Quorval::runtime
