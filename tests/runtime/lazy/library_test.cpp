#include "lazy/library.h"

#include "schedule/workers.h"
#include "support/support.h"

#include <gtest/gtest.h>
#include <mosquitto.h>
#include <sqlite3.h>

#include <fstream>
#include <stdexcept>
#include <string>

using Quorval::runtime::Library;
using quorval_test::expect_throw;

namespace {

/// Whether a file with this in its name is mapped.
bool is_loaded(const std::string& name)
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(name) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(Library, FindsFunctions)
{
    const Library library("libm.so.6");

    EXPECT_EQ(library.find<double(double)>("floor")(2.5), 2);
}

TEST(Library, SaysWhatCannotBeLoaded)
{
    expect_throw<std::runtime_error>([] { const Library library("libmissing.so.0"); },
                                     "libmissing.so.0 cannot be loaded: libmissing.so.0: cannot "
                                     "open shared object file: No such file or directory");
}

TEST(Library, SaysWhatItDoesNotHave)
{
    const Library library("libm.so.6");

    expect_throw<std::runtime_error>([&] { library.find<void()>("no_such_function"); },
                                     "libm.so.6 has no no_such_function");
}

TEST(Library, IsLoadedWithTheFirstCall)
{
    ASSERT_FALSE(is_loaded("libsqlite3"));
    ASSERT_FALSE(is_loaded("libmosquitto"));

    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open_v2(":memory:", &database, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_close(database), SQLITE_OK);
    EXPECT_STREQ(mosquitto_strerror(MOSQ_ERR_SUCCESS), "No error.");

    EXPECT_TRUE(is_loaded("libsqlite3"));
    EXPECT_TRUE(is_loaded("libmosquitto"));
}

#ifdef QUORVAL_LOADS_TBB
TEST(Library, OfThreadsIsLoadedWithTheFirstOfThem)
{
    using Quorval::runtime::Workers;
    ASSERT_FALSE(is_loaded("libtbb.so"));

    EXPECT_GT(Workers::processors(), 0U);

    EXPECT_TRUE(is_loaded("libtbb.so"));
}
#endif

}  // namespace
