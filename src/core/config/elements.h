// How the elements of a configuration are kept.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <quorval/config.h>

#include "config/value.h"

namespace Quorval {

struct Element {
    Element() = default;
    Element(const Element& other) : value(copy_value(other.value)), consumed(other.consumed) {}
    Element(Element&&) noexcept = default;
    Element& operator=(const Element& other) = delete;
    Element& operator=(Element&&) noexcept = default;
    ~Element() = default;

    // Its padding holds the mark.
    [[no_unique_address]] Value value;
    // A typed getter has read the element since it was stored; getters are const.
    mutable bool consumed = false;
};

/// An element and its full key.
struct Entry {
    std::string key;
    [[no_unique_address]] Element element;
    std::uint32_t hash = 0;  // of the key; in the padding of the element
};

/// The hash of a key, another one in every process. Keys come out of files, and who makes a file
/// must not be able to choose keys of one hash: each of them would be as slow to find as all of
/// them are to walk.
std::uint32_t hash_of(const std::string& key);

static_assert(sizeof(Entry) == sizeof(std::string) + sizeof(Value));

/// The elements of a configuration. Entries are found by a table of hashes and walked in the order
/// of their keys, by bytes. An entry stays where it is in memory until it is erased; its place is
/// there for another one then, until none is left at all.
///
/// The order is made when it is asked for: entries that come sorted are in place at once, others
/// wait at the end until the next walk. So a walk may write even in a const configuration.
class Elements {
public:
    class Position;

    Elements() = default;
    Elements(const Elements& other);
    Elements& operator=(const Elements& other) = delete;
    // What is moved from is only fit to be destroyed.
    Elements& operator=(Elements&& other) noexcept = default;
    ~Elements() = default;

    std::size_t size() const { return size_; }

    /// The entry of exactly that key, null when there is none.
    const Entry* find(const std::string& key) const;

    /// The element of that key, a new one where there is none. Nothing is changed when that fails.
    Element& get_or_add(const std::string& key);

    /// Stores an element under a key, over whatever was there. Nothing is changed when that fails.
    void put(const std::string& key, Element&& element) { get_or_add(key) = std::move(element); }

    /// Puts `start` before all keys. Nothing is changed when that fails.
    void prepend(const std::string& start);

    /// Removes the entries whose key `is_erased` holds for. It is asked about all of them first,
    /// so it may refer to one that goes.
    template <class Predicate>
    void erase_if(Predicate is_erased)
    {
        sort();
        Index kept = 0;
        for (Index rank = 0; rank < size_; ++rank) {
            if (!is_erased(at(order_[rank]).key)) {
                std::swap(order_[kept++], order_[rank]);
            }
        }
        erase_behind(kept);
    }

    /// A walk sees what is added during it, if that lies ahead.
    Position begin() const;
    Position end() const;

    /// The first entry whose key is not less than `key`.
    Position lower_bound(const std::string& key) const;

private:
    using Index = std::uint32_t;
    using Slabs = std::vector<std::vector<Entry>>;

    static constexpr Index kNone = UINT32_MAX;
    static constexpr unsigned char kFree = 0;
    // Entries lie in slabs, so that they stay and are allocated together: 2, 4, 8, 16, 32, and from
    // there on 64 each. Places are counted from 2, which makes the place of an entry in binary the
    // number of its slab and the place in there.
    static constexpr Index kFirstPlace = 2;
    static constexpr Index kFullSlab = 64;
    static constexpr Index kSmallSlabs = 5;

    // A few instructions of every step of every walk.
    [[gnu::always_inline]] const Entry& at(Index index) const
    {
        const Index place = index + kFirstPlace;
        return place >= kFullSlab ? slabs_[kSmallSlabs - 1 + place / kFullSlab][place % kFullSlab]
                                  : at_small(place);
    }
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): this one is not const
    Entry& at(Index index) { return const_cast<Entry&>(std::as_const(*this).at(index)); }

    static std::size_t capacity(std::size_t slabs);

    const Entry& at_small(Index place) const;
    Index index_of(const std::string& key, std::uint32_t hash) const;
    Index rank_of(const std::string& key) const;
    void make_room();
    void take_slot(Index index);
    void fill_slots();
    void erase_behind(Index kept);
    void sort() const;

    Slabs slabs_;
    // Where the entries are found: each at the slot of its hash or in the next free one. As many
    // as a power of two, of which at least a quarter is free. The mark of a slot says that it is
    // free, or tells its entry from most others without looking at them.
    std::vector<Index> slots_;
    std::vector<unsigned char> marks_;
    // Places in the slabs: first those of the entries, then free ones. The first `sorted_` entries
    // are in the order of their keys.
    mutable std::vector<Index> order_;
    mutable Index sorted_ = 0;
    Index size_ = 0;
    Index changes_ = 0;  // counts them, so that a position can tell whether its rank still holds
};

/// A place in the order of the keys: on an entry, or at the end. It stays on its entry while
/// others come and go; the entry itself must not go.
class Elements::Position {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = const Entry*;
    using reference = const Entry&;

    bool is_end() const { return entry_ == nullptr; }

    reference operator*() const { return *entry_; }
    pointer operator->() const { return entry_; }

    Position& operator++()
    {
        find_rank();
        move_to(rank_ + 1);
        return *this;
    }

    /// Moves on to the first entry that `is_passed` does not hold for. It holds for this one, and
    /// for no entry behind one that it does not hold for. A long way takes few questions.
    template <class Predicate>
    void pass(Predicate is_passed)
    {
        find_rank();
        const auto passes = [&](Index index) { return is_passed(elements_->at(index)); };
        const auto first = elements_->order_.begin();
        const auto last = first + elements_->size_;
        auto from = first + rank_;
        // What is passed tends to be as much as the last time.
        if (way_ < last - from && passes(from[way_ - 1]) && !passes(from[way_])) {
            move_to(rank_ + static_cast<Index>(way_));
            return;
        }
        std::ptrdiff_t step = 1;
        while (step < last - from && passes(from[step])) {
            from += step;
            step *= 2;
        }
        const auto to = std::partition_point(from + 1, from + std::min(step, last - from), passes);
        way_ = to - first - rank_;
        move_to(static_cast<Index>(to - first));
    }

    friend bool operator==(const Position& a, const Position& b) { return a.entry_ == b.entry_; }

private:
    friend class Elements;

    Position(const Elements& elements, Index rank)
        : elements_(&elements), changes_(elements.changes_)
    {
        move_to(rank);
    }

    void move_to(Index rank)
    {
        rank_ = rank;
        entry_ = rank < elements_->size_ ? &elements_->at(elements_->order_[rank]) : nullptr;
    }

    void find_rank()
    {
        if (changes_ != elements_->changes_) [[unlikely]] {
            rank_ = elements_->rank_of(entry_->key);
            changes_ = elements_->changes_;
        }
    }

    const Elements* elements_;
    const Entry* entry_ = nullptr;  // null at the end
    Index rank_ = 0;
    Index changes_;
    std::ptrdiff_t way_ = 1;  // the last time
};

struct BlockConfiguration::Impl {
    Elements elements;

    /// The record of a configuration; a moved-from one has none.
    static const Impl& of(const BlockConfiguration& config);
    static Impl& of(BlockConfiguration& config);

    /// The element of exactly that key, null when there is none.
    const Element* get_element(const std::string& key) const;

    /// Stores a value under `key`, unread, over whatever was there.
    /// @throws std::runtime_error  the key is not valid
    void set(const std::string& key, Value&& value);
};

}  // namespace Quorval
