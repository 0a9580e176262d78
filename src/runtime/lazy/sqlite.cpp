// SQLite, loaded when the first of these functions is called. Each hands its call on.

#include "lazy/library.h"

#include <sqlite3.h>

#include <type_traits>

namespace {

const Quorval::runtime::Library& libsqlite()
{
    static const Quorval::runtime::Library kLoaded("libsqlite3.so.0");
    return kLoaded;
}

/// Calls the function of the library that has the name and the type of this one.
template <auto Function, class... Arguments>
auto call(const char* name, Arguments... arguments)
{
    static auto* const kFound = libsqlite().find<std::remove_pointer_t<decltype(Function)>>(name);
    return kFound(arguments...);
}

}  // namespace

// Its header has names of parameters of its own.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

extern "C" {

int sqlite3_bind_blob64(sqlite3_stmt* statement, int parameter, const void* bytes,
                        sqlite3_uint64 size, void (*destroy)(void*))
{
    return call<sqlite3_bind_blob64>("sqlite3_bind_blob64", statement, parameter, bytes, size,
                                     destroy);
}

int sqlite3_bind_int64(sqlite3_stmt* statement, int parameter, sqlite3_int64 value)
{
    return call<sqlite3_bind_int64>("sqlite3_bind_int64", statement, parameter, value);
}

int sqlite3_bind_null(sqlite3_stmt* statement, int parameter)
{
    return call<sqlite3_bind_null>("sqlite3_bind_null", statement, parameter);
}

int sqlite3_bind_text(sqlite3_stmt* statement, int parameter, const char* text, int size,
                      void (*destroy)(void*))
{
    return call<sqlite3_bind_text>("sqlite3_bind_text", statement, parameter, text, size, destroy);
}

int sqlite3_close(sqlite3* database)
{
    return call<sqlite3_close>("sqlite3_close", database);
}

const void* sqlite3_column_blob(sqlite3_stmt* statement, int column)
{
    return call<sqlite3_column_blob>("sqlite3_column_blob", statement, column);
}

int sqlite3_column_bytes(sqlite3_stmt* statement, int column)
{
    return call<sqlite3_column_bytes>("sqlite3_column_bytes", statement, column);
}

sqlite3_int64 sqlite3_column_int64(sqlite3_stmt* statement, int column)
{
    return call<sqlite3_column_int64>("sqlite3_column_int64", statement, column);
}

int sqlite3_column_type(sqlite3_stmt* statement, int column)
{
    return call<sqlite3_column_type>("sqlite3_column_type", statement, column);
}

const char* sqlite3_errmsg(sqlite3* database)
{
    return call<sqlite3_errmsg>("sqlite3_errmsg", database);
}

int sqlite3_exec(sqlite3* database, const char* sql, int (*callback)(void*, int, char**, char**),
                 void* context, char** error)
{
    return call<sqlite3_exec>("sqlite3_exec", database, sql, callback, context, error);
}

int sqlite3_finalize(sqlite3_stmt* statement)
{
    return call<sqlite3_finalize>("sqlite3_finalize", statement);
}

int sqlite3_limit(sqlite3* database, int id, int value)
{
    return call<sqlite3_limit>("sqlite3_limit", database, id, value);
}

int sqlite3_open_v2(const char* name, sqlite3** database, int flags, const char* system)
{
    return call<sqlite3_open_v2>("sqlite3_open_v2", name, database, flags, system);
}

int sqlite3_prepare_v2(sqlite3* database, const char* sql, int size, sqlite3_stmt** statement,
                       const char** rest)
{
    return call<sqlite3_prepare_v2>("sqlite3_prepare_v2", database, sql, size, statement, rest);
}

int sqlite3_reset(sqlite3_stmt* statement)
{
    return call<sqlite3_reset>("sqlite3_reset", statement);
}

int sqlite3_step(sqlite3_stmt* statement)
{
    return call<sqlite3_step>("sqlite3_step", statement);
}

}  // extern "C"

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
