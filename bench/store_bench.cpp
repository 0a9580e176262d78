// Storing and loading a configuration, against the system calls that this takes, and against a map
// behind the same streams.

#include <cereal/archives/binary.hpp>
#include <cereal/types/map.hpp>
#include <cereal/types/string.hpp>
#include <cereal/types/variant.hpp>
#include <cereal/types/vector.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>
#ifdef QUORVAL_BENCH_HAS_SQLITE
#include <sqlite3.h>
#endif

#include <quorval/config.h>
#include <quorval/pstore.h>
#include "harness.h"
#include "workload.h"

namespace quorval_bench {

namespace {

using Quorval::BlockConfiguration;

constexpr const char* kName = "state";

std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// About 1 KB of numbers, bools and texts.
BlockConfiguration make_small()
{
    return make_config(make_mixed_scalars(35));
}

/// About 1 MB of numbers, bools and texts.
BlockConfiguration make_many()
{
    return make_config(make_mixed_scalars(25'000));
}

/// So many bytes of numbers.
template <std::size_t kBytes>
BlockConfiguration make_numbers()
{
    BlockConfiguration config;
    std::vector<double> numbers;
    for (std::size_t number = 0; number < kBytes / sizeof(double); ++number) {
        numbers.push_back(static_cast<double>(number));
    }
    config.set("history", numbers);
    return config;
}

/// Elements of all types under keys as blocks have them, of 8 to 24 characters.
PlainMap make_settings(std::size_t count)
{
    const std::vector<std::string> groups = {"in.0", "filter.1", "output.2", "ports.3"};
    const std::vector<std::string> fields = {"gain",         "enabled",      "cutoff_hz",
                                             "name",         "taps",         "weights.low",
                                             "labels.short", "mask.channels"};
    PlainMap elements;
    for (const auto& mixed : make_mixed(count)) {
        const std::size_t index = elements.size();
        const std::string number =
            index < fields.size() ? "" : std::to_string(index / fields.size());
        elements.emplace(groups[index / fields.size() % groups.size()] + number + "." +
                             fields[index % fields.size()],
                         mixed.second);
    }
    return elements;
}

std::string binary_form(const BlockConfiguration& config)
{
    Quorval::PStore(scratch_directory()).store("form", config);
    return read_file(scratch_directory() + "form");
}

void require(bool succeeded)
{
    if (!succeeded) {
        throw std::runtime_error("a system call failed");
    }
}

void check_target(const std::string& directory, const std::string& name)
{
    struct stat status {};
    require(::stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
    const std::string file = directory + name;
    require(::stat(file.c_str(), &status) != 0 || S_ISREG(status.st_mode));
    require(::stat((file + ".tmp").c_str(), &status) != 0);
}

/// The calls that the library makes, in their order: the target is checked when the stream is made
/// and again when it is closed.
void store_by_hand(const std::string& directory, const std::string& name,
                   const std::string& content)
{
    check_target(directory, name);
    check_target(directory, name);
    const std::string temporary = name + ".tmp";
    const int parent = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY);
    require(parent >= 0);
    const int file = ::openat(parent, temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    require(file >= 0);
    require(::write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    require(::fsync(file) == 0 && ::close(file) == 0);
    require(::renameat(parent, temporary.c_str(), parent, name.c_str()) == 0);
    require(::fsync(parent) == 0 && ::close(parent) == 0);
}

std::string load_by_hand(const std::string& file)
{
    const int descriptor = ::open(file.c_str(), O_RDONLY);
    struct stat status {};
    require(descriptor >= 0 && ::fstat(descriptor, &status) == 0);
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    require(::read(descriptor, content.data(), content.size()) == status.st_size);
    require(::close(descriptor) == 0);
    return content;
}

/// What one would write without configurations.
[[gnu::noinline]] void store_plain(Quorval::PStore& store, const PlainMap& elements)
{
    Quorval::POFStream out = store.ofstream(kName);
    cereal::BinaryOutputArchive archive(out);
    archive(elements);
    out.close();
}

[[gnu::noinline]] PlainMap load_plain(Quorval::PStore& store)
{
    Quorval::PIFStream in = store.ifstream(kName);
    cereal::BinaryInputArchive archive(in);
    PlainMap elements;
    archive(elements);
    return elements;
}

#ifdef QUORVAL_BENCH_HAS_SQLITE
/// A table of contents by name. Each store is a transaction, with the settings that a new database
/// has: the journal is deleted at its end, everything is synced.
class Database {
public:
    Database()
    {
        const std::string path = scratch_directory() + "store.db";
        require(sqlite3_open(path.c_str(), &db_) == SQLITE_OK);
        require(sqlite3_exec(db_,
                             "CREATE TABLE IF NOT EXISTS store (name TEXT PRIMARY KEY, data BLOB)",
                             nullptr, nullptr, nullptr) == SQLITE_OK);
        require(sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO store VALUES (?, ?)", -1, &insert_,
                                   nullptr) == SQLITE_OK);
        require(sqlite3_prepare_v2(db_, "SELECT data FROM store WHERE name = ?", -1, &select_,
                                   nullptr) == SQLITE_OK);
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database()
    {
        sqlite3_finalize(insert_);
        sqlite3_finalize(select_);
        sqlite3_close(db_);
    }

    void store(const std::string& name, const std::string& content)
    {
        sqlite3_reset(insert_);
        sqlite3_bind_text(insert_, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        sqlite3_bind_blob(insert_, 2, content.data(), static_cast<int>(content.size()),
                          SQLITE_STATIC);
        require(sqlite3_step(insert_) == SQLITE_DONE);
    }

    std::string load(const std::string& name)
    {
        sqlite3_reset(select_);
        sqlite3_bind_text(select_, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        require(sqlite3_step(select_) == SQLITE_ROW);
        const auto* bytes = static_cast<const char*>(sqlite3_column_blob(select_, 0));
        return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(select_, 0))};
    }

private:
    sqlite3* db_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
    sqlite3_stmt* select_ = nullptr;
};
#endif

void add_store(const std::string& name, BlockConfiguration (*make)(), std::size_t stores,
               std::size_t iterations = 0)
{
    add_time(
        name + "/quorval", stores,
        [make, stores] {
            auto config = std::make_shared<BlockConfiguration>(make());
            return Side{
                [config, stores] {
                    Quorval::PStore store(scratch_directory());
                    for (std::size_t count = 0; count < stores; ++count) {
                        store.store(kName, *config);
                    }
                },
                [config] { return Quorval::PStore(scratch_directory()).load(kName) == *config; },
                [] { ::unlink((scratch_directory() + kName).c_str()); }};
        },
        iterations);
    add_time(
        name + "/system", stores,
        [make, stores] {
            auto content = std::make_shared<std::string>(binary_form(make()));
            return Side{[content, stores] {
                            for (std::size_t count = 0; count < stores; ++count) {
                                store_by_hand(scratch_directory(), kName, *content);
                            }
                        },
                        [content] { return read_file(scratch_directory() + kName) == *content; },
                        [] { ::unlink((scratch_directory() + kName).c_str()); }};
        },
        iterations);
#ifdef QUORVAL_BENCH_HAS_SQLITE
    add_time(
        name + "/sqlite", stores,
        [make, stores] {
            auto database = std::make_shared<Database>();
            auto content = std::make_shared<std::string>(binary_form(make()));
            return Side{[database, content, stores] {
                            for (std::size_t count = 0; count < stores; ++count) {
                                database->store(kName, *content);
                            }
                        },
                        [database, content] { return database->load(kName) == *content; }};
        },
        iterations);
#endif
}

/// @param loads  in one run
void add_load(const std::string& name, BlockConfiguration (*make)(), std::size_t loads)
{
    struct State {
        Quorval::PStore store{scratch_directory()};
        BlockConfiguration expected;
        BlockConfiguration loaded;
        std::string content;
    };
    const auto make_state = [make] {
        auto state = std::make_shared<State>();
        state->expected = make();
        state->store.store(kName, state->expected);
        return state;
    };
    add_time(name + "/quorval", loads, [make_state, loads] {
        const auto state = make_state();
        return Side{[state, loads] {
                        for (std::size_t count = 0; count < loads; ++count) {
                            state->loaded = state->store.load(kName);
                        }
                    },
                    [state] { return state->loaded == state->expected; }};
    });
    add_time(name + "/system", loads, [make_state, loads] {
        const auto state = make_state();
        return Side{[state, loads] {
                        for (std::size_t count = 0; count < loads; ++count) {
                            state->content = load_by_hand(scratch_directory() + kName);
                        }
                    },
                    [state] { return state->content == binary_form(state->expected); }};
    });
}

/// Storing and loading elements of all types, in a configuration and in a map.
void add_settings(std::size_t count)
{
    constexpr std::size_t kTimes = 20;
    struct State {
        explicit State(std::size_t count) : map(make_settings(count)), config(make_config(map)) {}

        Quorval::PStore store{scratch_directory()};
        const PlainMap map;
        const BlockConfiguration config;
        PlainMap loaded_map;
        BlockConfiguration loaded_config;
    };
    const auto make_state = [count] { return std::make_shared<State>(count); };
    const std::string size = std::to_string(count);
    add_time("store_settings/" + size + "/quorval", kTimes, [make_state] {
        const auto state = make_state();
        return Side{[state] {
                        for (std::size_t time = 0; time < kTimes; ++time) {
                            state->store.store(kName, state->config);
                        }
                    },
                    [state] { return state->store.load(kName) == state->config; }};
    });
    add_time("store_settings/" + size + "/map", kTimes, [make_state] {
        const auto state = make_state();
        return Side{[state] {
                        for (std::size_t time = 0; time < kTimes; ++time) {
                            store_plain(state->store, state->map);
                        }
                    },
                    [state] { return load_plain(state->store) == state->map; }};
    });
    add_time("load_settings/" + size + "/quorval", kTimes, [make_state] {
        const auto state = make_state();
        return Side{[state] {
                        for (std::size_t time = 0; time < kTimes; ++time) {
                            state->loaded_config = state->store.load(kName);
                        }
                    },
                    [state] { return state->loaded_config == state->config; },
                    [state] { state->store.store(kName, state->config); }};
    });
    add_time("load_settings/" + size + "/map", kTimes, [make_state] {
        const auto state = make_state();
        return Side{[state] {
                        for (std::size_t time = 0; time < kTimes; ++time) {
                            state->loaded_map = load_plain(state->store);
                        }
                    },
                    [state] { return state->loaded_map == state->map; },
                    [state] { store_plain(state->store, state->map); }};
    });
}

const bool kAreAdded = [] {
    add_store("store_1k", make_small, 50);
    add_store("store_1m", make_numbers<1'000'000>, 5);
    add_store("store_100m", make_numbers<100'000'000>, 1, 1);
    add_store("store_small_1m", make_many, 5);
    add_load("load_1k", make_small, 50);
    for (const std::size_t count : {30, 100, 500}) {
        add_settings(count);
    }
    return true;
}();

}  // namespace

}  // namespace quorval_bench
