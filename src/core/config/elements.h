// How the elements of a configuration are kept.
#pragma once

#include "config/value.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace Quorval {

/// An element and its full key. Stays where it is in memory until it is erased.
struct Entry {
    std::string key;
    // Its padding holds what follows.
    [[no_unique_address]] Value value;
    // A typed getter has read the element since it was stored; getters are const.
    mutable bool consumed = false;
    std::uint32_t hash = 0;  // of the key, while the entry is in the table
};

static_assert(sizeof(Entry) == sizeof(std::string) + sizeof(Value));

/// The hash of a key. It differs from process to process: whoever makes a file must not be able to
/// choose keys of one hash, which would all be slow to find.
std::uint32_t hash_of(const std::string& key);

/// The elements of a configuration, in the order of their keys, by bytes.
///
/// The order is a list of short lists, so that a new entry moves only a few others. What is looked
/// up is found by a table of hashes, which the first look-up makes: one writes even in a const
/// configuration. Where there is no memory for the table, the lists are searched.
class Elements {
public:
    class Position;

    Elements() = default;
    Elements(const Elements& other);
    Elements& operator=(const Elements& other) = delete;
    ~Elements() { clear(); }

    std::size_t size() const { return size_; }

    /// The entry of exactly that key, null when there is none.
    const Entry* find(const std::string& key) const;

    /// Stores an element over whatever has its key. Nothing is changed when that fails.
    void put(const std::string& key, Value&& value, bool consumed = false)
    {
        put_at(place_of(key), key, std::move(value), consumed);
    }

    /// Stores copies of all elements of `other` over those that have their keys, until that fails.
    void merge(const Elements& other);

    /// Puts `start` before all keys. Nothing is changed when that fails.
    void prepend(const std::string& start);

    /// Removes the entries whose key `is_erased` holds for. It must not refer to one of them.
    template <class Predicate>
    void erase_if(Predicate is_erased)
    {
        const std::size_t before = size_;
        for (Block& block : blocks_) {
            std::erase_if(block, [&](const Entry* entry) {
                const bool goes = is_erased(entry->key);
                if (goes) {
                    --size_;
                    delete entry;  // NOLINT(cppcoreguidelines-owning-memory): owned by the block
                }
                return goes;
            });
        }
        if (size_ != before) {
            erased();
        }
    }

    /// A walk sees what is added during it, if that lies ahead.
    Position begin() const;
    Position end() const;

    /// The first entry whose key is not less than `key`.
    Position lower_bound(const std::string& key) const;

private:
    // Owns its entries, of which there are some. Pointers that do so by themselves would be moved
    // one by one.
    using Block = std::vector<Entry*>;
    using Blocks = std::vector<Block>;
    using Table = std::vector<Entry*>;

    struct Place {
        std::size_t block = 0;
        std::size_t index = 0;
    };

    Place place_of(const std::string& key) const;
    Place place_near(Place place, const std::string& key) const;
    Entry* entry_at(Place place, const std::string& key) const;
    Place put_at(Place place, const std::string& key, Value&& value, bool consumed);
    void make_room(Place& place);
    bool has_table() const;
    void add_to_table(Entry* entry) const;
    void clear() noexcept;
    void erased() noexcept;

    Blocks blocks_;
    // Each entry lies at the slot of its hash or in the next free one, which is null. There are as
    // many slots as a power of two, a quarter of them free; or none, and the table has to be made.
    mutable Table table_;
    std::size_t size_ = 0;
    std::size_t changes_ = 0;  // counts them, so that a position can tell whether it still holds
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
        if (next_ != end_ && changes_ == elements_->changes_) {
            entry_ = *next_++;
        } else {
            leave_block();
        }
        return *this;
    }

    /// Moves to the end.
    void end() { entry_ = nullptr; }

    /// Moves to the first entry behind this one that `is_passed` does not hold for. It holds for no
    /// entry behind that one.
    template <class Predicate>
    void pass(Predicate is_passed)
    {
        do {
            refresh();
            next_ = std::partition_point(next_, end_,
                                         [&](const Entry* entry) { return is_passed(*entry); });
            ++*this;
        } while (!is_end() && is_passed(*entry_));
    }

    friend bool operator==(const Position& a, const Position& b) { return a.entry_ == b.entry_; }

private:
    friend class Elements;

    Position(const Elements& elements, Place place)
        : elements_(&elements), changes_(elements.changes_)
    {
        move_to(place);
    }

    void move_to(Place place);
    void refresh();
    void leave_block();

    const Elements* elements_;
    const Entry* entry_ = nullptr;  // null at the end
    // The rest of its block.
    const Entry* const* next_ = nullptr;
    const Entry* const* end_ = nullptr;
    std::size_t block_ = 0;
    std::size_t changes_;
};

}  // namespace Quorval
