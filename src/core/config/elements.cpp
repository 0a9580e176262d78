#include "config/elements.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorval {

namespace {

// Entries of a full block. A block of that many pointers is small for the allocator too.
constexpr std::size_t kFull = 64;

// The room of the first block.
constexpr std::size_t kFewest = 8;

// Up to so many entries are searched faster than hashed.
constexpr std::size_t kFew = 8;

constexpr std::size_t kWord = sizeof(std::uint64_t);
static_assert(std::endian::native == std::endian::little);

__extension__ using Wide = unsigned __int128;

/// The product, its high half over its low one: every bit of both factors has a say.
std::uint64_t mix(std::uint64_t a, std::uint64_t b)
{
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
}

std::uint64_t load_word(const char* from)
{
    std::uint64_t word = 0;
    std::memcpy(&word, from, sizeof word);
    return word;
}

/// Whether `a` comes before `b`, by bytes. Compares a word at a time, the last one with what is
/// known to be equal before it: nearly all of a search is spent here.
[[gnu::always_inline]] inline bool is_less(std::string_view a, std::string_view b)
{
    const std::size_t common = std::min(a.size(), b.size());
    if (common < kWord) {
        return a < b;
    }
    for (std::size_t at = 0;; at = std::min(at + kWord, common - kWord)) {
        const auto word_a = load_word(a.data() + at);
        const auto word_b = load_word(b.data() + at);
        if (word_a != word_b) {
            return __builtin_bswap64(word_a) < __builtin_bswap64(word_b);
        }
        if (at + kWord == common) {
            return a.size() < b.size();
        }
    }
}

}  // namespace

std::uint32_t hash_of(const std::string& key)
{
    constexpr std::uint64_t kOdd = 0x9e3779b97f4a7c15;
    // Where the system has put the library, which cannot be told from outside.
    static const char kHere = 0;
    const std::uint64_t secret = (reinterpret_cast<std::uintptr_t>(&kHere) * kOdd) | 1U;

    std::uint64_t state = secret ^ key.size();
    std::size_t done = 0;
    for (; done + kWord <= key.size(); done += kWord) {
        state = mix(state ^ load_word(key.data() + done), secret);
    }
    std::uint64_t rest = 0;
    for (; done < key.size(); ++done) {
        rest = rest << 8U | static_cast<unsigned char>(key[done]);
    }
    state = mix(state ^ rest, secret);
    // Once is not enough for keys of a few characters: with some secrets they cluster.
    return static_cast<std::uint32_t>(mix(state, kOdd));
}

Elements::Elements(const Elements& other)
{
    try {
        blocks_.reserve(other.blocks_.size());
        for (const Block& block : other.blocks_) {
            Block& copy = blocks_.emplace_back();
            copy.reserve(block.size());
            for (const Entry* entry : block) {
                // Room is there, so nothing fails between the two.
                // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
                copy.push_back(new Entry{entry->key, copy_value(entry->value), entry->consumed});
            }
        }
    } catch (...) {
        clear();
        throw;
    }
    size_ = other.size_;
}

const Entry* Elements::find(const std::string& key) const
{
    if (size_ <= kFew || !has_table()) {
        return entry_at(place_of(key), key);
    }
    const std::uint32_t hash = hash_of(key);
    const std::size_t mask = table_.size() - 1;
    std::size_t slot = hash & mask;
    const Entry* entry = table_[slot];
    while (entry != nullptr && (entry->hash != hash || entry->key != key)) {
        slot = (slot + 1) & mask;
        entry = table_[slot];
    }
    return entry;
}

void Elements::merge(const Elements& other)
{
    Place place;
    for (const Entry& entry : other) {
        Value value = copy_value(entry.value);
        place = put_at(place_near(place, entry.key), entry.key, std::move(value), entry.consumed);
    }
}

/// Where an entry of that key is, or would have to be: in the last block that does not begin behind
/// it, maybe at its end.
Elements::Place Elements::place_of(const std::string& key) const
{
    if (blocks_.empty()) {
        return {};
    }
    if (is_less(blocks_.back().back()->key, key)) {
        return {blocks_.size() - 1, blocks_.back().size()};
    }
    const auto begins_before = [&key](const Block& block) {
        return !is_less(key, block.front()->key);
    };
    const auto block = std::partition_point(blocks_.begin() + 1, blocks_.end(), begins_before) - 1;
    const auto is_before = [&key](const Entry* entry) { return is_less(entry->key, key); };
    const auto found = std::partition_point(block->begin(), block->end(), is_before);
    return {static_cast<std::size_t>(block - blocks_.begin()),
            static_cast<std::size_t>(found - block->begin())};
}

/// The same for a key that may well follow the one at `place`.
Elements::Place Elements::place_near(Place place, const std::string& key) const
{
    if (place.block < blocks_.size()) {
        const Block& block = blocks_[place.block];
        const std::size_t next = place.index + 1;
        if (next < block.size() && is_less(block[place.index]->key, key) &&
            !is_less(block[next]->key, key)) {
            return {place.block, next};
        }
    }
    return place_of(key);
}

/// The entry at a place, null when it has another key.
Entry* Elements::entry_at(Place place, const std::string& key) const
{
    if (place.block == blocks_.size() || place.index == blocks_[place.block].size()) {
        return nullptr;
    }
    Entry* entry = blocks_[place.block][place.index];
    return entry->key == key ? entry : nullptr;
}

/// Stores an element at the place of its key, and gives the place where it is then.
Elements::Place Elements::put_at(Place place, const std::string& key, Value&& value, bool consumed)
{
    if (Entry* entry = entry_at(place, key); entry != nullptr) {
        entry->value = std::move(value);
        entry->consumed = consumed;
        return place;
    }
    std::unique_ptr<Entry> entry(new Entry{key, std::move(value), consumed});
    make_room(place);
    Block& block = blocks_[place.block];
    block.insert(block.begin() + static_cast<std::ptrdiff_t>(place.index), entry.get());
    // From here on nothing fails.
    ++size_;
    ++changes_;
    if (!table_.empty()) {
        add_to_table(entry.get());
    }
    static_cast<void>(entry.release());
    return place;
}

/// Makes sure of a block that takes one more entry there.
void Elements::make_room(Place& place)
{
    if (blocks_.empty()) {
        Block first;
        first.reserve(kFewest);
        blocks_.push_back(std::move(first));
    }
    Block& block = blocks_[place.block];
    if (block.size() < kFull) {
        if (block.size() == block.capacity()) {
            block.reserve(std::clamp(block.size() * 4, kFewest, kFull));
        }
        return;
    }
    // What comes in order leaves full blocks behind.
    const std::size_t kept = place.index == kFull ? kFull : kFull / 2;
    const auto full = blocks_.begin() + static_cast<std::ptrdiff_t>(place.block);
    Block rest;
    rest.reserve(kFull);
    rest.assign(full->begin() + static_cast<std::ptrdiff_t>(kept), full->end());
    const auto next = blocks_.insert(full + 1, std::move(rest));
    (next - 1)->resize(kept);
    if (place.index > kept || kept == kFull) {
        place = {place.block + 1, place.index - kept};
    }
}

/// Makes the table where there is none. False when there is no memory for it.
bool Elements::has_table() const
{
    if (!table_.empty()) {
        return true;
    }
    try {
        // Room for half as many again, at three quarters.
        table_.resize(std::bit_ceil(size_ * 2));
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (const Block& block : blocks_) {
        for (Entry* entry : block) {
            add_to_table(entry);
        }
    }
    return true;
}

/// Adds an entry, whose key no other has. A table that is full has to be made again.
void Elements::add_to_table(Entry* entry) const
{
    if (size_ > table_.size() / 4 * 3) {
        table_ = Table();
        return;
    }
    entry->hash = hash_of(entry->key);
    const std::size_t mask = table_.size() - 1;
    std::size_t slot = entry->hash & mask;
    while (table_[slot] != nullptr) {
        slot = (slot + 1) & mask;
    }
    table_[slot] = entry;
}

void Elements::prepend(const std::string& start)
{
    std::vector<std::string> keys;
    keys.reserve(size_);
    for (const Entry& entry : *this) {
        keys.push_back(start + entry.key);
    }
    // From here on nothing fails, and the order stays.
    auto key = keys.begin();
    for (const Block& block : blocks_) {
        for (Entry* entry : block) {
            entry->key.swap(*key++);
        }
    }
    table_ = Table();
}

void Elements::clear() noexcept
{
    for (const Block& block : blocks_) {
        for (const Entry* entry : block) {
            delete entry;  // NOLINT(cppcoreguidelines-owning-memory)
        }
    }
}

/// Ends the erasing of entries.
void Elements::erased() noexcept
{
    std::erase_if(blocks_, [](const Block& block) { return block.empty(); });
    if (blocks_.empty()) {
        blocks_ = Blocks();
    }
    table_ = Table();
    ++changes_;
}

Elements::Position Elements::begin() const
{
    return Position(*this, Place());
}

Elements::Position Elements::end() const
{
    return Position(*this, Place{blocks_.size(), 0});
}

Elements::Position Elements::lower_bound(const std::string& key) const
{
    return Position(*this, place_of(key));
}

void Elements::Position::move_to(Place place)
{
    const auto& blocks = elements_->blocks_;
    if (place.block < blocks.size() && place.index == blocks[place.block].size()) {
        place = {place.block + 1, 0};
    }
    if (place.block >= blocks.size()) {
        entry_ = nullptr;
        return;
    }
    const Block& block = blocks[place.block];
    block_ = place.block;
    next_ = block.data() + place.index;
    end_ = block.data() + block.size();
    entry_ = *next_++;
}

/// Finds its entry again where others have come or gone.
void Elements::Position::refresh()
{
    if (changes_ != elements_->changes_) {
        *this = elements_->lower_bound(entry_->key);
    }
}

void Elements::Position::leave_block()
{
    refresh();
    if (next_ != end_) {
        entry_ = *next_++;
    } else {
        move_to({block_ + 1, 0});
    }
}

}  // namespace Quorval
