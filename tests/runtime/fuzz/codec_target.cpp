#include <quorval/codec.h>
#include "fuzz/input.h"
#include "plugins/codecs.h"
#include "runtime/fuzz/targets.h"
#include "support/allocations.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quorval_fuzz {

using Quorval::Codec;

namespace {

/// A type of a plug-in: values in values, and lists of what is large.
struct Tree {
    std::string name;
    std::vector<Tree> parts;

    template <class Archive>
    void serialize(Archive& archive)
    {
        archive(name, parts);
    }
};

constexpr Codec kTreeCodec = Quorval::make_codec<Tree>();

const Codec& choose_codec(std::size_t number)
{
    constexpr const char* kTypes[] = {
        "bool",   "int32",        "int64",        "float",        "double",
        "string", "int32-vector", "int64-vector", "float-vector", "double-vector"};
    constexpr std::size_t kCount = sizeof kTypes / sizeof *kTypes;
    const std::size_t chosen = number % (kCount + 1);
    if (chosen == kCount) {
        return kTreeCodec;
    }
    const Codec* const codec = Quorval::runtime::find_standard_codec(kTypes[chosen]);
    require(codec != nullptr, "a codec of a standard type");
    return *codec;
}

/// The most that decoding may hold at once: a list is made before its items are read.
std::size_t most_memory(std::size_t input)
{
    return 4096 + 64 * input;
}

/// What decoding gives, encoded again; empty where it is refused.
std::string encode_decoded(const Codec& codec, std::string_view bytes)
{
    const std::shared_ptr<void> value = codec.make();
    const std::string failure = failure_of([&] { codec.decode(bytes, value.get()); });
    std::string encoded;
    if (failure.empty()) {
        Quorval::runtime::encode(codec, value.get(), encoded);
    } else {
        require(failure.find("runtime_error: the value ") == 0, "the text of a refusal");
    }
    return encoded;
}

}  // namespace

void fuzz_codec(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return;
    }
    const Codec& codec = choose_codec(data[0]);
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    std::string encoded;
    const std::size_t peak = quorval_test::peak_of([&] { encoded = encode_decoded(codec, bytes); });

    require(peak <= most_memory(size), "the memory that decoding has held");
    if (!encoded.empty()) {
        // Byte orders and the bits of a bool apart, the bytes of a value are always the same.
        require(encoded.size() == bytes.size(), "the length of what was decoded");
        require_equal(encode_decoded(codec, encoded), encoded, "what is encoded again");
    }
}

}  // namespace quorval_fuzz
