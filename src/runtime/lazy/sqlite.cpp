// SQLite, loaded when the first of these functions is called. Each hands its call on.

#include "lazy/library.h"

#include <sqlite3.h>

namespace {

const Quorval::runtime::Library& library()
{
    static const Quorval::runtime::Library loaded("libsqlite3.so.0");
    return loaded;
}

}  // namespace

extern "C" {

int sqlite3_bind_blob64(sqlite3_stmt* statement, int parameter, const void* bytes,
                        sqlite3_uint64 size, void (*destroy)(void*))
{
    static auto* const found = library().find<decltype(sqlite3_bind_blob64)>("sqlite3_bind_blob64");
    return found(statement, parameter, bytes, size, destroy);
}

int sqlite3_bind_int64(sqlite3_stmt* statement, int parameter, sqlite3_int64 value)
{
    static auto* const found = library().find<decltype(sqlite3_bind_int64)>("sqlite3_bind_int64");
    return found(statement, parameter, value);
}

int sqlite3_bind_null(sqlite3_stmt* statement, int parameter)
{
    static auto* const found = library().find<decltype(sqlite3_bind_null)>("sqlite3_bind_null");
    return found(statement, parameter);
}

int sqlite3_bind_text(sqlite3_stmt* statement, int parameter, const char* text, int size,
                      void (*destroy)(void*))
{
    static auto* const found = library().find<decltype(sqlite3_bind_text)>("sqlite3_bind_text");
    return found(statement, parameter, text, size, destroy);
}

int sqlite3_close(sqlite3* database)
{
    static auto* const found = library().find<decltype(sqlite3_close)>("sqlite3_close");
    return found(database);
}

const void* sqlite3_column_blob(sqlite3_stmt* statement, int column)
{
    static auto* const found = library().find<decltype(sqlite3_column_blob)>("sqlite3_column_blob");
    return found(statement, column);
}

int sqlite3_column_bytes(sqlite3_stmt* statement, int column)
{
    static auto* const found =
        library().find<decltype(sqlite3_column_bytes)>("sqlite3_column_bytes");
    return found(statement, column);
}

sqlite3_int64 sqlite3_column_int64(sqlite3_stmt* statement, int column)
{
    static auto* const found =
        library().find<decltype(sqlite3_column_int64)>("sqlite3_column_int64");
    return found(statement, column);
}

int sqlite3_column_type(sqlite3_stmt* statement, int column)
{
    static auto* const found = library().find<decltype(sqlite3_column_type)>("sqlite3_column_type");
    return found(statement, column);
}

const char* sqlite3_errmsg(sqlite3* database)
{
    static auto* const found = library().find<decltype(sqlite3_errmsg)>("sqlite3_errmsg");
    return found(database);
}

int sqlite3_exec(sqlite3* database, const char* sql, int (*callback)(void*, int, char**, char**),
                 void* context, char** error)
{
    static auto* const found = library().find<decltype(sqlite3_exec)>("sqlite3_exec");
    return found(database, sql, callback, context, error);
}

int sqlite3_finalize(sqlite3_stmt* statement)
{
    static auto* const found = library().find<decltype(sqlite3_finalize)>("sqlite3_finalize");
    return found(statement);
}

int sqlite3_limit(sqlite3* database, int id, int value)
{
    static auto* const found = library().find<decltype(sqlite3_limit)>("sqlite3_limit");
    return found(database, id, value);
}

int sqlite3_open_v2(const char* name, sqlite3** database, int flags, const char* system)
{
    static auto* const found = library().find<decltype(sqlite3_open_v2)>("sqlite3_open_v2");
    return found(name, database, flags, system);
}

int sqlite3_prepare_v2(sqlite3* database, const char* sql, int size, sqlite3_stmt** statement,
                       const char** rest)
{
    static auto* const found = library().find<decltype(sqlite3_prepare_v2)>("sqlite3_prepare_v2");
    return found(database, sql, size, statement, rest);
}

int sqlite3_reset(sqlite3_stmt* statement)
{
    static auto* const found = library().find<decltype(sqlite3_reset)>("sqlite3_reset");
    return found(statement);
}

int sqlite3_step(sqlite3_stmt* statement)
{
    static auto* const found = library().find<decltype(sqlite3_step)>("sqlite3_step");
    return found(statement);
}

}  // extern "C"
