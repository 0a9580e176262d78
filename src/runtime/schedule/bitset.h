// A set of small numbers from which the lowest one is taken.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Quorval::runtime {

/// Bits in words, and over these, level by level, bits that say which words have any, so that
/// numbers far apart are found without a look at what lies between. Allocates when it is made, and
/// never again.
class Bitset {
public:
    /// Holds numbers below `size`.
    explicit Bitset(std::size_t size)
    {
        do {
            size = (size + kBits - 1) / kBits;
            levels_.emplace_back(size);
        } while (size > 1);
    }

    bool is_empty() const { return levels_.back().empty() || levels_.back()[0] == 0; }

    void insert(std::uint32_t number)
    {
        for (std::vector<std::uint64_t>& level : levels_) {
            std::uint64_t& word = level[number / kBits];
            const bool is_known_above = word != 0;
            word |= std::uint64_t{1} << (number % kBits);
            if (is_known_above) {
                return;
            }
            number /= kBits;
        }
    }

    /// Removes the lowest number. There is one.
    std::uint32_t take_lowest()
    {
        std::uint32_t number = 0;
        for (std::size_t level = levels_.size(); level-- > 0;) {
            const std::uint64_t word = levels_[level][number];
            number = number * kBits + static_cast<std::uint32_t>(__builtin_ctzll(word));
        }
        remove(number);
        return number;
    }

private:
    static constexpr std::uint32_t kBits = 64;

    void remove(std::uint32_t number)
    {
        for (std::vector<std::uint64_t>& level : levels_) {
            std::uint64_t& word = level[number / kBits];
            word &= ~(std::uint64_t{1} << (number % kBits));
            if (word != 0) {
                return;
            }
            number /= kBits;
        }
    }

    std::vector<std::vector<std::uint64_t>> levels_;  // the lowest first; the last is one word
};

}  // namespace Quorval::runtime
