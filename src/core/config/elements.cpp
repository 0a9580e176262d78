#include "config/elements.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <sys/auxv.h>

namespace Quorval {

namespace {

/// What makes the hashes of a process its own.
struct Secret {
    std::uint64_t seed = 0;
    std::uint64_t factor = 0;
};

__extension__ using Wide = unsigned __int128;

std::uint64_t fold(std::uint64_t a, std::uint64_t b)
{
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
}

/// From the 16 bytes by chance that the system gives to every program. They do not go in as they
/// are: the C library guards the stack with them.
Secret make_secret() noexcept
{
    constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15;
    std::array<std::uint64_t, 2> words{};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): this is how the system hands it out
    const auto* bytes = reinterpret_cast<const void*>(::getauxval(AT_RANDOM));
    if (bytes != nullptr) {
        std::memcpy(words.data(), bytes, sizeof words);
    }
    return {fold(words[0] ^ kOdd, words[1]), fold(words[0] ^ words[1], kOdd) | 1U};
}

// Before everything else: other objects of this kind may hold configurations.
[[gnu::init_priority(101)]] const Secret secret = make_secret();

std::uint64_t mix(std::uint64_t state)
{
    return fold(state, secret.factor);
}

/// Of the bits that least decide about the slot, and never that of a free one.
unsigned char mark_of(std::uint32_t hash)
{
    constexpr unsigned kTaken = 0x80;
    constexpr unsigned kShift = 25;
    return static_cast<unsigned char>(kTaken | hash >> kShift);
}

}  // namespace

std::uint32_t hash_of(const std::string& key)
{
    std::uint64_t state = secret.seed ^ key.size();
    std::uint64_t word = 0;
    const char* from = key.data();
    std::size_t left = key.size();
    for (; left >= sizeof word; left -= sizeof word, from += sizeof word) {
        std::memcpy(&word, from, sizeof word);
        state = mix(state ^ word);
    }
    for (word = 0; left > 0; --left) {
        word = word << 8U | static_cast<unsigned char>(*from++);
    }
    state = mix(state ^ word);
    // Once is not enough for keys of a few characters: with some factors they cluster.
    return static_cast<std::uint32_t>(mix(state ^ secret.seed));
}

/// The number of entries that so many slabs hold.
std::size_t Elements::capacity(std::size_t slabs)
{
    const std::size_t places = slabs <= kSmallSlabs ? std::size_t{kFirstPlace} << slabs
                                                    : (slabs - kSmallSlabs + 1) * kFullSlab;
    return places - kFirstPlace;
}

const Entry& Elements::at_small(Index place) const
{
    const Index size = std::bit_floor(place);
    return slabs_[static_cast<std::size_t>(std::countr_zero(size)) - 1][place - size];
}

Elements::Elements(const Elements& other)
{
    if (other.order_.size() != other.size_) {
        for (const Entry& entry : other) {
            put(entry.key, Element(entry.element));
        }
        return;
    }
    // Without gaps every entry keeps its place.
    slabs_ = Slabs(other.slabs_);
    slots_ = other.slots_;
    marks_ = other.marks_;
    order_ = other.order_;
    sorted_ = other.sorted_;
    size_ = other.size_;
}

/// The index of the entry of that key, kNone when there is none.
Elements::Index Elements::index_of(const std::string& key, std::uint32_t hash) const
{
    if (slots_.empty()) {
        return kNone;
    }
    const std::size_t mask = slots_.size() - 1;
    const unsigned char mark = mark_of(hash);
    for (std::size_t slot = hash & mask; marks_[slot] != kFree; slot = (slot + 1) & mask) {
        if (marks_[slot] == mark) {
            const Entry& entry = at(slots_[slot]);
            if (entry.hash == hash && entry.key == key) {
                return slots_[slot];
            }
        }
    }
    return kNone;
}

const Entry* Elements::find(const std::string& key) const
{
    const Index index = index_of(key, hash_of(key));
    return index != kNone ? &at(index) : nullptr;
}

Element& Elements::get_or_add(const std::string& key)
{
    const std::uint32_t hash = hash_of(key);
    if (const Index index = index_of(key, hash); index != kNone) {
        return at(index).element;
    }
    make_room();
    Entry& entry = at(order_[size_]);
    entry.key = key;
    // From here on nothing fails.
    entry.hash = hash;
    take_slot(order_[size_]);
    if (sorted_ == size_ && (size_ == 0 || at(order_[size_ - 1]).key < key)) {
        ++sorted_;
    }
    ++size_;
    ++changes_;
    return entry.element;
}

void Elements::prepend(const std::string& start)
{
    std::vector<std::string> keys;
    keys.reserve(size_);
    for (Index rank = 0; rank < size_; ++rank) {
        keys.push_back(start + at(order_[rank]).key);
    }
    // From here on nothing fails, and the order stays.
    for (Index rank = 0; rank < size_; ++rank) {
        Entry& entry = at(order_[rank]);
        entry.key.swap(keys[rank]);
        entry.hash = hash_of(entry.key);
    }
    fill_slots();
}

/// Makes sure of a slot and of a place behind the entries in `order_`.
void Elements::make_room()
{
    constexpr std::size_t kFewestSlots = 4;
    if (size_ == order_.size()) {
        if (size_ >= kNone - kFirstPlace) {
            throw std::bad_alloc();
        }
        const std::size_t slabs = slabs_.size();
        if (size_ == capacity(slabs)) {
            slabs_.emplace_back(capacity(slabs + 1) - capacity(slabs));
        }
        order_.push_back(size_);
    }
    if (std::size_t{size_} + 1 > slots_.size() / 4 * 3) {
        const std::size_t count = std::max(slots_.size() * 2, kFewestSlots);
        std::vector<Index> slots(count);
        marks_.resize(count);
        slots_.swap(slots);
        fill_slots();
    }
}

void Elements::fill_slots()
{
    std::fill(marks_.begin(), marks_.end(), kFree);
    for (Index rank = 0; rank < size_; ++rank) {
        take_slot(order_[rank]);
    }
}

/// Gives an entry, whose key no other has, its slot.
void Elements::take_slot(Index index)
{
    const std::uint32_t hash = at(index).hash;
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = hash & mask;
    while (marks_[slot] != kFree) {
        slot = (slot + 1) & mask;
    }
    slots_[slot] = index;
    marks_[slot] = mark_of(hash);
}

/// Keeps so many of the sorted entries. The places of the others are there for new ones.
void Elements::erase_behind(Index kept)
{
    if (kept == size_) {
        return;
    }
    if (kept == 0) {
        const Index changes = changes_;
        *this = Elements();
        changes_ = changes + 1;
        return;
    }
    for (Index rank = kept; rank < size_; ++rank) {
        // Moved out of its place, and not only replaced, it takes the memory of its key along.
        const Entry erased = std::exchange(at(order_[rank]), Entry());
    }
    size_ = sorted_ = kept;
    ++changes_;
    // To clear a table for far more would take the next ones too long.
    while (slots_.size() / 8 > kept) {
        slots_.resize(slots_.size() / 2);
        marks_.resize(marks_.size() / 2);
    }
    fill_slots();
}

/// Writes nothing when there is nothing to do.
void Elements::sort() const
{
    if (sorted_ == size_) {
        return;
    }
    // So few are each put into place; more are sorted and merged.
    constexpr std::ptrdiff_t kFew = 32;
    const auto is_less = [this](Index a, Index b) { return at(a).key < at(b).key; };
    const auto first = order_.begin();
    const auto middle = first + sorted_;
    const auto last = first + size_;
    if (last - middle <= kFew) {
        for (auto next = middle; next != last; ++next) {
            std::rotate(std::upper_bound(first, next, *next, is_less), next, next + 1);
        }
    } else {
        std::sort(middle, last, is_less);
        std::inplace_merge(std::upper_bound(first, middle, *middle, is_less), middle, last,
                           is_less);
    }
    sorted_ = size_;
}

Elements::Position Elements::begin() const
{
    sort();
    return Position(*this, 0);
}

Elements::Position Elements::end() const
{
    return Position(*this, kNone);
}

Elements::Position Elements::lower_bound(const std::string& key) const
{
    return Position(*this, rank_of(key));
}

/// The number of entries whose keys are less than `key`, which are the first ones.
Elements::Index Elements::rank_of(const std::string& key) const
{
    sort();
    const auto first = order_.begin();
    const auto found = std::partition_point(first, first + size_,
                                            [&](Index index) { return at(index).key < key; });
    return static_cast<Index>(found - first);
}

}  // namespace Quorval
