// The entry point of libFuzzer, for the target that the build names.
#include <cstddef>
#include <cstdint>

namespace quorval_fuzz {

void QUORVAL_FUZZ_TARGET(const std::uint8_t* data, std::size_t size);

}  // namespace quorval_fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// An invariant that does not hold is an exception that nobody catches: the fuzzer keeps the input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    quorval_fuzz::QUORVAL_FUZZ_TARGET(data, size);
    return 0;
}
