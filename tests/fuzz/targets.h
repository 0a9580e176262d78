// What the fuzzer feeds. Each target makes something of any input, and throws when an invariant
// does not hold.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorval_fuzz {

/// Reads the input as the binary form of a configuration, next to a reader of its own.
void fuzz_read(const std::uint8_t* data, std::size_t size);

/// Takes the input for a sequence of operations on configurations, and does them on a naive model
/// too.
void fuzz_config(const std::uint8_t* data, std::size_t size);

/// Takes the input for a sequence of operations on superblocks, and does them on a naive model too.
void fuzz_superblock(const std::uint8_t* data, std::size_t size);

}  // namespace quorval_fuzz
