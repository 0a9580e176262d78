// A set of small numbers from which the lowest one is taken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Quorval::runtime {

/// Bits in words, and over these, level by level, bits that say which words may have any, so that
/// numbers far apart are found without a look at what lies between. Allocates when it is made, and
/// never again.
///
/// Made for numbers that are put in shortly before they are taken, close to the last one taken: the
/// word in which the search stands needs no bit above.
class Bitset {
public:
    /// Holds numbers below `size`.
    explicit Bitset(std::size_t size)
    {
        do {
            size = (size + kBits - 1) / kBits;
            levels_.emplace_back(size > 0 ? size : 1);
        } while (size > 1);
        words_ = levels_.front().data();
    }
    Bitset(const Bitset&) = delete;
    Bitset& operator=(const Bitset&) = delete;

    /// Whether nothing was put in since take_lowest() found nothing.
    bool is_empty() const { return words_[present_] == 0 && levels_.back()[0] == 0; }

    void insert(std::uint32_t number)
    {
        std::uint32_t at = number / kBits;
        const std::uint64_t before = words_[at];
        words_[at] = before | bit(number);
        if (at == present_) {
            return;
        }
        if (at < present_) {
            std::swap(at, present_);
            insert_above(at);
        } else if (before == 0) {
            insert_above(at);
        }
    }

    /// Takes the lowest number out.
    /// @return false when there is none
    bool take_lowest(std::uint32_t& number)
    {
        while (words_[present_] == 0) {
            if (!go_on()) {
                return false;
            }
        }
        const std::uint64_t word = words_[present_];
        words_[present_] = word & (word - 1);
        number = present_ * kBits + lowest(word);
        return true;
    }

private:
    static constexpr std::uint32_t kBits = 64;

    static std::uint64_t bit(std::uint32_t number) { return std::uint64_t{1} << (number % kBits); }
    static std::uint32_t lowest(std::uint64_t word)
    {
        return static_cast<std::uint32_t>(__builtin_ctzll(word));
    }

    // Rarely needed, and to stay out of the way of what calls it.
    [[gnu::noinline]] void insert_above(std::uint32_t at)
    {
        for (std::size_t level = 1; level < levels_.size(); ++level) {
            std::uint64_t& word = levels_[level][at / kBits];
            if ((word & bit(at)) != 0) {
                return;
            }
            word |= bit(at);
            at /= kBits;
        }
    }

    /// Leaves the present word, which is empty, for the first one that may have bits.
    [[gnu::noinline]] bool go_on()
    {
        std::uint32_t at = present_;
        std::size_t level = 1;
        for (; level < levels_.size(); ++level) {
            std::uint64_t& word = levels_[level][at / kBits];
            word &= ~bit(at);
            at /= kBits;
            if (word != 0) {
                break;
            }
        }
        if (level == levels_.size()) {
            present_ = 0;
            return words_[0] != 0;
        }
        for (; level > 0; --level) {
            at = at * kBits + lowest(levels_[level][at]);
        }
        present_ = at;
        return true;
    }

    std::vector<std::vector<std::uint64_t>> levels_;  // the lowest first; the last is one word
    std::uint64_t* words_;                            // of the lowest level
    std::uint32_t present_ = 0;                       // no word before this one has bits
};

}  // namespace Quorval::runtime
