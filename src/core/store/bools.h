// Bools as the bytes that the binary form has for them, 64 at a time.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Quorval {

// A list of bools of the standard library lies in words, the first bool in the lowest bit.
using BoolWord = std::_Bit_type;
constexpr std::size_t kBoolsInWord = sizeof(BoolWord) * CHAR_BIT;
constexpr std::size_t kBoolsInByte = CHAR_BIT;

/// Eight bytes, 0 or 1, from the bits of one.
inline std::uint64_t spread_bits(std::uint64_t byte)
{
    constexpr std::uint64_t kEachByte = 0x0101010101010101;
    constexpr std::uint64_t kOneBitInEach = 0x8040201008040201;
    constexpr std::uint64_t kUpToTheHighest = 0x7f7f7f7f7f7f7f7f;
    constexpr unsigned kHighest = 7;
    return ((byte * kEachByte & kOneBitInEach) + kUpToTheHighest) >> kHighest & kEachByte;
}

/// One byte from the lowest bits of eight.
inline std::uint64_t gather_bits(std::uint64_t bytes)
{
    constexpr std::uint64_t kEachByte = 0x0101010101010101;
    constexpr std::uint64_t kToTheTop = 0x0102040810204080;
    constexpr unsigned kTop = 56;
    return (bytes & kEachByte) * kToTheTop >> kTop;
}

/// Writes a byte for each of `count` bools, beginning with the one of the number `from`, which is
/// the first of a word.
inline void unpack_bools(const std::vector<bool>& bools, std::size_t from, std::size_t count,
                         char* bytes)
{
    const BoolWord* word = bools.begin()._M_p + from / kBoolsInWord;
    std::size_t left = count;
    for (; left >= kBoolsInWord; left -= kBoolsInWord, ++word) {
        for (std::size_t shift = 0; shift < kBoolsInWord; shift += kBoolsInByte) {
            const std::uint64_t eight = spread_bits(*word >> shift & UCHAR_MAX);
            std::memcpy(bytes, &eight, sizeof eight);
            bytes += sizeof eight;
        }
    }
    const auto end = bools.begin() + static_cast<std::ptrdiff_t>(from + count);
    std::copy(end - static_cast<std::ptrdiff_t>(left), end, bytes);
}

inline bool to_bool(char byte)
{
    return (static_cast<unsigned char>(byte) & 1U) != 0;
}

/// Appends a bool for each of `count` bytes to as many bools as fill whole words.
inline void append_bools(std::vector<bool>& bools, const char* bytes, std::size_t count)
{
    const std::size_t from = bools.size();
    bools.resize(from + count);
    BoolWord* word = bools.begin()._M_p + from / kBoolsInWord;
    std::size_t left = count;
    for (; left >= kBoolsInWord; left -= kBoolsInWord, ++word) {
        BoolWord gathered = 0;
        for (std::size_t shift = 0; shift < kBoolsInWord; shift += kBoolsInByte) {
            std::uint64_t eight = 0;
            std::memcpy(&eight, bytes, sizeof eight);
            gathered |= gather_bits(eight) << shift;
            bytes += sizeof eight;
        }
        *word = gathered;
    }
    std::transform(bytes, bytes + left, bools.end() - static_cast<std::ptrdiff_t>(left), to_bool);
}

}  // namespace Quorval
