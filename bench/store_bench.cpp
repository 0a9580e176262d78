// Storing a configuration, against the system calls that this takes.

#include <cstddef>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

/// 1 MB of numbers.
BlockConfiguration make_large()
{
    BlockConfiguration config;
    std::vector<double> numbers;
    for (int number = 0; number < 125'000; ++number) {
        numbers.push_back(number);
    }
    config.set("history", numbers);
    return config;
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

void add_store(const std::string& name, BlockConfiguration (*make)(), std::size_t stores)
{
    add_time(name + "/quorval", stores, [make, stores] {
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
    });
    add_time(name + "/system", stores, [make, stores] {
        auto content = std::make_shared<std::string>(binary_form(make()));
        return Side{[content, stores] {
                        for (std::size_t count = 0; count < stores; ++count) {
                            store_by_hand(scratch_directory(), kName, *content);
                        }
                    },
                    [content] { return read_file(scratch_directory() + kName) == *content; },
                    [] { ::unlink((scratch_directory() + kName).c_str()); }};
    });
#ifdef QUORVAL_BENCH_HAS_SQLITE
    add_time(name + "/sqlite", stores, [make, stores] {
        auto database = std::make_shared<Database>();
        auto content = std::make_shared<std::string>(binary_form(make()));
        return Side{[database, content, stores] {
                        for (std::size_t count = 0; count < stores; ++count) {
                            database->store(kName, *content);
                        }
                    },
                    [database, content] { return database->load(kName) == *content; }};
    });
#endif
}

const bool kAreAdded = [] {
    add_store("store_1k", make_small, 50);
    add_store("store_1m", make_large, 5);
    return true;
}();

}  // namespace

}  // namespace quorval_bench
