// SQLite, loaded when the first of these functions is called. Each hands its call on.

#include "lazy/library.h"

#include <sqlite3.h>

namespace {

const Quorval::runtime::Library& libsqlite()
{
    static const Quorval::runtime::Library kLoaded("libsqlite3.so.0");
    return kLoaded;
}

}  // namespace

// Its header has names of parameters of its own.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

extern "C" {

int sqlite3_bind_blob64(sqlite3_stmt* statement, int parameter, const void* bytes,
                        sqlite3_uint64 size, void (*destroy)(void*))
{
    static auto* const kFound =
        libsqlite().find<decltype(sqlite3_bind_blob64)>("sqlite3_bind_blob64");
    return kFound(statement, parameter, bytes, size, destroy);
}

int sqlite3_bind_int64(sqlite3_stmt* statement, int parameter, sqlite3_int64 value)
{
    static auto* const kFound =
        libsqlite().find<decltype(sqlite3_bind_int64)>("sqlite3_bind_int64");
    return kFound(statement, parameter, value);
}

int sqlite3_bind_null(sqlite3_stmt* statement, int parameter)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_bind_null)>("sqlite3_bind_null");
    return kFound(statement, parameter);
}

int sqlite3_bind_text(sqlite3_stmt* statement, int parameter, const char* text, int size,
                      void (*destroy)(void*))
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_bind_text)>("sqlite3_bind_text");
    return kFound(statement, parameter, text, size, destroy);
}

int sqlite3_close(sqlite3* database)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_close)>("sqlite3_close");
    return kFound(database);
}

const void* sqlite3_column_blob(sqlite3_stmt* statement, int column)
{
    static auto* const kFound =
        libsqlite().find<decltype(sqlite3_column_blob)>("sqlite3_column_blob");
    return kFound(statement, column);
}

int sqlite3_column_bytes(sqlite3_stmt* statement, int column)
{
    static auto* const kFound =
        libsqlite().find<decltype(sqlite3_column_bytes)>("sqlite3_column_bytes");
    return kFound(statement, column);
}

sqlite3_int64 sqlite3_column_int64(sqlite3_stmt* statement, int column)
{
    static auto* const kFound =
        libsqlite().find<decltype(sqlite3_column_int64)>("sqlite3_column_int64");
    return kFound(statement, column);
}

int sqlite3_column_type(sqlite3_stmt* statement, int column)
{
    static auto* const kFound =
        libsqlite().find<decltype(sqlite3_column_type)>("sqlite3_column_type");
    return kFound(statement, column);
}

const char* sqlite3_errmsg(sqlite3* database)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_errmsg)>("sqlite3_errmsg");
    return kFound(database);
}

int sqlite3_exec(sqlite3* database, const char* sql, int (*callback)(void*, int, char**, char**),
                 void* context, char** error)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_exec)>("sqlite3_exec");
    return kFound(database, sql, callback, context, error);
}

int sqlite3_finalize(sqlite3_stmt* statement)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_finalize)>("sqlite3_finalize");
    return kFound(statement);
}

int sqlite3_limit(sqlite3* database, int id, int value)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_limit)>("sqlite3_limit");
    return kFound(database, id, value);
}

int sqlite3_open_v2(const char* name, sqlite3** database, int flags, const char* system)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_open_v2)>("sqlite3_open_v2");
    return kFound(name, database, flags, system);
}

int sqlite3_prepare_v2(sqlite3* database, const char* sql, int size, sqlite3_stmt** statement,
                       const char** rest)
{
    static auto* const kFound =
        libsqlite().find<decltype(sqlite3_prepare_v2)>("sqlite3_prepare_v2");
    return kFound(database, sql, size, statement, rest);
}

int sqlite3_reset(sqlite3_stmt* statement)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_reset)>("sqlite3_reset");
    return kFound(statement);
}

int sqlite3_step(sqlite3_stmt* statement)
{
    static auto* const kFound = libsqlite().find<decltype(sqlite3_step)>("sqlite3_step");
    return kFound(statement);
}

}  // extern "C"

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
