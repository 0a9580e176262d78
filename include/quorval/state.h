// The state of a block in its store: with a version, and with a seal, by which a file that was cut
// is found instead of being believed.
#pragma once

#include <quorval/config.h>
#include <quorval/pstore.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace Quorval {

/// Makes a state of the present version of one of an older version, which is 0 for a file that was
/// stored without a seal.
using StateMigration = std::function<BlockConfiguration(BlockConfiguration state, int version)>;

/// Replaces the file `name` of the store by a state. The file is that of PStore::store() with one
/// element more, the seal, whose key is "-": version, number of elements, and checksum.
/// @param version  of what the elements mean, 1 at least
/// @throws std::invalid_argument  the version is less than 1: "a state has a version of 1 or more";
///     or the state has the key "-", or an empty one: "a state cannot have the key '<key>'"
/// @throws std::runtime_error     only a part could be written, and the old state is gone: "there
///     is no room for the state <file>"
/// @throws what PStore::store() throws; the old state stays then
inline void save_state(PStore& store, const std::string& name, const BlockConfiguration& state,
                       int version = 1);

/// Reads the state in the file `name` of the store. A file without a seal, as PStore::store()
/// writes it, is a state of version 0.
/// @param version  the newest that is known
/// @param migrate  called for a state of an older version; without it such a state is given as it
/// is
/// @return nothing when there is no such file
/// @throws std::runtime_error      the file is damaged: "the state <file> is damaged: <text>"; or
/// it
///     is of a version to come: "the state <file> has the version <n>, newer than <n>"
/// @throws std::ios_base::failure  the file cannot be opened
/// @throws what `migrate` throws
inline std::optional<BlockConfiguration> load_state(PStore& store, const std::string& name,
                                                    int version = 1,
                                                    const StateMigration& migrate = {});

// ---- For tools ----

/// The version that the seal of a configuration gives; 0 where there is no seal.
inline int get_state_version(const BlockConfiguration& config);

/// The configuration with a seal, in place of one that it may have.
/// @throws what save_state() throws for a version and for a key
inline BlockConfiguration seal_state(const BlockConfiguration& state, int version);

/// How a configuration differs from what was sealed; empty where it does not, or has no seal.
inline std::string find_state_damage(const BlockConfiguration& config);

/// What this header keeps to itself.
namespace state_detail {

/// Where the parts of the seal stand in its list.
enum Part : std::size_t { kVersion, kCount, kChecksumLow, kChecksumHigh, kPartCount };

/// The first of all keys but the empty one: a file that is cut still has it.
inline std::string get_seal_key()
{
    return "-";
}

/// A sum of bytes, FNV-1a: it differs wherever two equally long rows of bytes differ in one place,
/// and nearly always where they differ in more.
class Checksum {
public:
    void add(std::int64_t number)
    {
        constexpr unsigned kByte = 8;
        auto bits = static_cast<std::uint64_t>(number);
        for (std::size_t i = 0; i < sizeof bits; ++i, bits >>= kByte) {
            add_byte(static_cast<unsigned char>(bits));
        }
    }

    void add(int number) { add(static_cast<std::int64_t>(number)); }
    void add(bool value) { add(static_cast<std::int64_t>(value)); }

    void add(double number)
    {
        std::int64_t bits = 0;
        static_assert(sizeof bits == sizeof number);
        std::memcpy(&bits, &number, sizeof bits);
        add(bits);
    }

    void add(const std::string& text)
    {
        add(static_cast<std::int64_t>(text.size()));
        for (const char character : text) {
            add_byte(static_cast<unsigned char>(character));
        }
    }

    template <class Item>
    void add(const std::vector<Item>& items)
    {
        add(static_cast<std::int64_t>(items.size()));
        for (const Item& item : items) {
            add(item);
        }
    }

    int get_low() const { return static_cast<int>(static_cast<std::uint32_t>(value_)); }
    int get_high() const { return static_cast<int>(static_cast<std::uint32_t>(value_ >> 32U)); }

private:
    void add_byte(unsigned char byte)
    {
        constexpr std::uint64_t kPrime = 0x100000001b3;
        value_ = (value_ ^ byte) * kPrime;
    }

    // NOLINTNEXTLINE(*-magic-numbers): the usual basis; a constant would be an inline variable
    std::uint64_t value_ = 0xcbf29ce484222325;
};

inline void add_element(Checksum& checksum, const BlockConfiguration& config,
                        const std::string& key)
{
    using Type = BlockConfiguration::Type;
    const Type type = config.getType(key);
    checksum.add(key);
    checksum.add(static_cast<int>(type));
    switch (type) {
        case Type::Int:
            return checksum.add(config.getInt(key));
        case Type::Bool:
            return checksum.add(config.getBool(key));
        case Type::Double:
            return checksum.add(config.getDouble(key));
        case Type::String:
            return checksum.add(config.getString(key));
        case Type::IntVector:
            return checksum.add(config.getIntVector(key));
        case Type::DoubleVector:
            return checksum.add(config.getDoubleVector(key));
        case Type::StringVector:
            return checksum.add(config.getStringVector(key));
        case Type::BoolVector:
            return checksum.add(config.getBoolVector(key));
    }
}

/// The seal for the elements of a configuration, its own seal left aside.
/// @param config  a copy, whose elements may be marked as read
// NOLINTNEXTLINE(performance-unnecessary-value-param): the caller's stay unmarked
inline std::vector<int> make_seal(BlockConfiguration config, int version)
{
    const std::string seal_key = get_seal_key();
    Checksum checksum;
    checksum.add(version);
    int count = 0;
    for (const auto element = config.iterate(""); !element->is_end(); element->advance()) {
        if (element->key() != seal_key) {
            add_element(checksum, config, element->key());
            ++count;
        }
    }
    return {version, count, checksum.get_low(), checksum.get_high()};
}

inline bool has_seal(const BlockConfiguration& config)
{
    const std::string key = get_seal_key();
    const auto first = config.iterate(key);  // a key comes before those that it begins
    return !first->is_end() && first->key() == key &&
           config.getType(key) == BlockConfiguration::Type::IntVector;
}

/// The seal of a configuration; empty where it has none.
inline std::vector<int> get_seal(const BlockConfiguration& config)
{
    return has_seal(config) ? config.getIntVector(get_seal_key()) : std::vector<int>();
}

inline bool is_whole(const std::vector<int>& seal)
{
    return seal.size() == kPartCount && seal[kVersion] > 0;
}

/// The configuration without its seal. Not by delete_element(), which would take other keys along.
inline BlockConfiguration remove_seal(const BlockConfiguration& config)
{
    BlockConfiguration seal;
    seal.set(get_seal_key(), get_seal(config));
    return config.diff(seal);
}

inline void refuse_key(const BlockConfiguration& state, const std::string& key)
{
    const auto first = state.iterate(key);
    if (!first->is_end() && first->key() == key) {
        throw std::invalid_argument("a state cannot have the key '" + key + "'");
    }
}

inline std::filesystem::path get_file(PStore& store, const std::string& name)
{
    return std::filesystem::path(store.get_path()) / name;
}

inline bool is_missing(const std::filesystem::path& file)
{
    std::error_code error;
    return std::filesystem::status(file, error).type() == std::filesystem::file_type::not_found;
}

[[noreturn]] inline void throw_damaged(const std::string& file, const std::string& text)
{
    throw std::runtime_error("the state " + file + " is damaged: " + text);
}

inline BlockConfiguration load_file(PStore& store, const std::string& name, const std::string& file)
{
    BlockConfiguration config;
    PIFStream in = store.ifstream(name);
    try {
        in >> config;
    } catch (const std::runtime_error& error) {
        throw_damaged(file, error.what());
    }
    if (config.iterate("")->is_end()) {
        throw_damaged(file, "it holds nothing");  // no state is: the seal at least is there
    }
    const std::string damage = find_state_damage(config);
    if (!damage.empty()) {
        throw_damaged(file, damage);
    }
    return config;
}

}  // namespace state_detail

inline int get_state_version(const BlockConfiguration& config)
{
    const std::vector<int> seal = state_detail::get_seal(config);
    return state_detail::is_whole(seal) ? seal[state_detail::kVersion] : 0;
}

inline BlockConfiguration seal_state(const BlockConfiguration& state, int version)
{
    if (version < 1) {
        throw std::invalid_argument("a state has a version of 1 or more");
    }
    BlockConfiguration sealed = state_detail::remove_seal(state);
    state_detail::refuse_key(sealed, "");
    state_detail::refuse_key(sealed, state_detail::get_seal_key());
    sealed.set(state_detail::get_seal_key(), state_detail::make_seal(sealed, version));
    return sealed;
}

inline std::string find_state_damage(const BlockConfiguration& config)
{
    using namespace state_detail;
    if (!has_seal(config)) {
        return "";
    }
    const std::vector<int> seal = get_seal(config);
    if (!is_whole(seal)) {
        return "its seal is wrong";
    }
    const std::vector<int> expected = make_seal(config, seal[kVersion]);
    if (expected[kCount] != seal[kCount]) {
        return "it holds " + std::to_string(expected[kCount]) + " of " +
               std::to_string(seal[kCount]) + " elements";
    }
    return expected == seal ? "" : "its checksum is wrong";
}

inline void save_state(PStore& store, const std::string& name, const BlockConfiguration& state,
                       int version)
{
    state_detail::refuse_key(state, state_detail::get_seal_key());
    const BlockConfiguration sealed = seal_state(state, version);
    POFStream out = store.ofstream(name);
    out << sealed;
    const auto size = static_cast<std::uintmax_t>(out.tellp());
    out.close();
    const std::filesystem::path file = state_detail::get_file(store, name);
    if (std::filesystem::file_size(file) != size) {
        throw std::runtime_error("there is no room for the state " + file.string());
    }
}

inline std::optional<BlockConfiguration> load_state(PStore& store, const std::string& name,
                                                    int version, const StateMigration& migrate)
{
    const std::filesystem::path file = state_detail::get_file(store, name);
    if (!store.get_path().empty() && state_detail::is_missing(file)) {
        return std::nullopt;
    }
    const BlockConfiguration config = state_detail::load_file(store, name, file.string());
    const int found = get_state_version(config);
    if (found > version) {
        throw std::runtime_error("the state " + file.string() + " has the version " +
                                 std::to_string(found) + ", newer than " + std::to_string(version));
    }
    BlockConfiguration state = found > 0 ? state_detail::remove_seal(config) : config;
    return found < version && migrate ? migrate(std::move(state), found) : std::move(state);
}

}  // namespace Quorval
