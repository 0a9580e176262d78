#include "record/database.h"

namespace Quorval::runtime {

namespace {

[[noreturn]] void throw_failure(int result, sqlite3* database)
{
    if (result == SQLITE_NOMEM) {
        throw NoMemory("out of memory");
    }
    throw std::runtime_error(sqlite3_errmsg(database));
}

}  // namespace

Database::Database(const std::string& name, int flags)
{
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(name.c_str(), &opened, flags, nullptr);
    database_.reset(opened);
    if (result != SQLITE_OK) {
        throw_failure(result, opened);
    }
}

void Database::execute(const std::string& sql)
{
    const int result = sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        throw_failure(result, database_.get());
    }
}

Statement::Statement(const Database& database, const std::string& sql) : database_(database.get())
{
    sqlite3_stmt* prepared = nullptr;
    const int result =
        sqlite3_prepare_v2(database_, sql.data(), static_cast<int>(sql.size()), &prepared, nullptr);
    statement_.reset(prepared);
    check(result);
}

void Statement::bind(int parameter, std::int64_t value)
{
    check(sqlite3_bind_int64(statement_.get(), parameter, value));
}

void Statement::bind(int parameter, std::string_view text)
{
    check(sqlite3_bind_text(statement_.get(), parameter, text.data(), static_cast<int>(text.size()),
                            SQLITE_STATIC));
}

void Statement::bind_bytes(int parameter, std::string_view bytes)
{
    check(sqlite3_bind_blob64(statement_.get(), parameter, bytes.data(), bytes.size(),
                              SQLITE_STATIC));
}

void Statement::bind_null(int parameter)
{
    check(sqlite3_bind_null(statement_.get(), parameter));
}

bool Statement::step()
{
    const int result = sqlite3_step(statement_.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        throw_failure(result, database_);
    }
    return result == SQLITE_ROW;
}

void Statement::reset()
{
    sqlite3_reset(statement_.get());
}

bool Statement::is_integer(int column) const
{
    return sqlite3_column_type(statement_.get(), column) == SQLITE_INTEGER;
}

bool Statement::is_null(int column) const
{
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::int64_t Statement::integer(int column) const
{
    return sqlite3_column_int64(statement_.get(), column);
}

std::string_view Statement::bytes(int column) const
{
    const void* const data = sqlite3_column_blob(statement_.get(), column);
    const int size = sqlite3_column_bytes(statement_.get(), column);
    return data != nullptr
               ? std::string_view(static_cast<const char*>(data), static_cast<std::size_t>(size))
               : std::string_view();
}

void Statement::check(int result) const
{
    if (result != SQLITE_OK) {
        throw_failure(result, database_);
    }
}

}  // namespace Quorval::runtime
