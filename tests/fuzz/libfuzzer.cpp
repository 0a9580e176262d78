// The entry point of libFuzzer, for the target that the build names.
#include "fuzz/targets.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// An invariant that does not hold is an exception that nobody catches: the fuzzer keeps the input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    quorval_fuzz::QUORVAL_FUZZ_TARGET(data, size);
    return 0;
}
