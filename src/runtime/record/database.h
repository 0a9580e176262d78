// SQLite with exceptions and owners.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Quorval::runtime {

struct DatabaseCloser {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
};
struct StatementCloser {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

/// SQLite had not enough memory, which says nothing about the database.
class NoMemory : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// An open database. What goes wrong is a std::runtime_error with the text of SQLite.
class Database {
public:
    /// @param name   a file, or a URI where the flags have SQLITE_OPEN_URI
    /// @param flags  of sqlite3_open_v2()
    Database(const std::string& name, int flags);

    void execute(const std::string& sql);
    sqlite3* get() const { return database_.get(); }

private:
    std::unique_ptr<sqlite3, DatabaseCloser> database_;
};

/// A prepared statement of a database that outlives it.
class Statement {
public:
    Statement(const Database& database, const std::string& sql);

    /// Parameters count from 1. What is bound has to stay in its place until the next reset().
    void bind(int parameter, std::int64_t value);
    void bind(int parameter, std::string_view text);
    void bind_bytes(int parameter, std::string_view bytes);
    void bind_null(int parameter);

    /// @return whether there is a row
    bool step();
    void reset();

    // Columns count from 0.
    bool is_integer(int column) const;
    bool is_null(int column) const;
    std::int64_t integer(int column) const;
    /// A text or bytes; valid until the next step.
    std::string_view bytes(int column) const;

private:
    void check(int result) const;

    sqlite3* database_;
    std::unique_ptr<sqlite3_stmt, StatementCloser> statement_;
};

}  // namespace Quorval::runtime
