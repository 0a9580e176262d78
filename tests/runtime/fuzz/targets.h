// What the fuzzer feeds to the runtime. Each target makes something of any input, and throws when
// an invariant does not hold.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorval_fuzz {

/// Takes the input for graph files and assignments, and makes the graph.
void fuzz_graph(const std::uint8_t* data, std::size_t size);

/// Takes the input for a recording, and reads it.
void fuzz_recording(const std::uint8_t* data, std::size_t size);

/// Takes the input for the bytes of a value of the data type that its first byte chooses.
void fuzz_codec(const std::uint8_t* data, std::size_t size);

/// Takes the input for the file of saved changes, and makes a graph with them.
void fuzz_saved(const std::uint8_t* data, std::size_t size);

}  // namespace quorval_fuzz
