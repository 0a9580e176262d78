#include "graph/state.h"

#include "graph/saved.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

using namespace Quorval::runtime;
using quorval_test::expect_throw;
using quorval_test::NoStandardInput;
using quorval_test::open_descriptors;
using quorval_test::ScopedEnvironment;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

namespace {

TEST(StateDirectory, IsTheGivenOneOrThatOfTheService)
{
    struct Case {
        std::string given;
        std::optional<std::string> service;
        std::string expected;
    };
    const std::string here = std::filesystem::current_path();
    const std::vector<Case> cases = {
        {"", std::nullopt, ""},           {"", "", ""},
        {"", "/first:/second", "/first"}, {"", ":/second", "/second"},
        {"/given", "/first", "/given"},   {"/given/", std::nullopt, "/given"},
        {"/", std::nullopt, "/"},         {"/a/../b/./c", std::nullopt, "/b/c"},
        {"s", std::nullopt, here + "/s"},
    };
    for (const Case& one : cases) {
        const ScopedEnvironment service("STATE_DIRECTORY", one.service);

        EXPECT_EQ(find_state_directory(one.given), one.expected) << one.given;
    }
}

TEST(StateDirectory, HasOneOfEachBlockAndAFile)
{
    EXPECT_EQ(state_directory_of("/state", "gain"), "/state/gain/");
    EXPECT_EQ(state_directory_of("/state", "left/gain"), "/state/left.gain/");
    EXPECT_EQ(state_directory_of("/", "gain"), "/gain/");
    EXPECT_EQ(saved_file("/state"), "/state/overrides");
    EXPECT_EQ(saved_file("/"), "/overrides");
}

TEST(StateDirectory, IsMadeForItsOwnerAlone)
{
    const TemporaryDirectory directory;
    const std::string path = directory.store_path() + "a/b/";

    make_state_directory(path);
    make_state_directory(path);

    struct stat status = {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
}

TEST(StateDirectory, IsNotMadeBelowAFile)
{
    const TemporaryDirectory directory;
    const std::string file = directory.store_path() + "file";
    write_file(file, "");

    expect_throw<std::system_error>([&] { make_state_directory(file + "/a/"); },
                                    file + ": Not a directory");
}

TEST(StateDirectory, IsForOneRunAtATime)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path();
    {
        const StateLock lock(path);
        expect_throw<std::runtime_error>([&] { const StateLock other(path); },
                                         "the state directory '" + path + "' is in use");
    }
    EXPECT_NO_THROW(const StateLock later(path));
}

TEST(StateDirectory, IsGivenBackWithItsDescriptor)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path();
    const NoStandardInput none;
    const std::vector<int> before = open_descriptors();
    {
        const StateLock lock(path);
        EXPECT_TRUE(none.is_taken());
        const std::vector<int> locked = open_descriptors();
        expect_throw<std::runtime_error>([&] { const StateLock other(path); },
                                         "the state directory '" + path + "' is in use");
        EXPECT_EQ(open_descriptors(), locked);
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_NO_THROW(const StateLock later(path));
}

TEST(StateDirectory, IsMadeToBeHeld)
{
    const TemporaryDirectory directory;

    EXPECT_NO_THROW(const StateLock lock(directory.store_path() + "new"));
    EXPECT_TRUE(std::filesystem::is_directory(directory.path() / "new"));
}

TEST(StateDirectory, TellsWhichOneCannotBeMade)
{
    const TemporaryDirectory directory;
    const std::string base = directory.store_path();
    write_file(base + "file", "");
    std::filesystem::create_symlink("nowhere", base + "dangling");
    std::filesystem::create_directory(base + "there");
    std::filesystem::create_directory_symlink("there", base + "link");

    EXPECT_NO_THROW(make_state_directory(base + "link/a/"));
    EXPECT_TRUE(std::filesystem::is_directory(base + "there/a"));
    expect_throw<std::system_error>([&] { make_state_directory(base + "file/"); },
                                    base + "file: Not a directory");
    expect_throw<std::system_error>([&] { make_state_directory(base + "dangling/a/"); },
                                    base + "dangling: No such file or directory");
    expect_throw<std::system_error>([] { make_state_directory("/proc/none/"); },
                                    "/proc/none: No such file or directory");
    const std::string name(300, 'n');
    expect_throw<std::system_error>([&] { make_state_directory(base + name + "/a/"); },
                                    base + name + ": File name too long");
}

/// What is wrong with it is told where something is to be kept there.
TEST(StateDirectory, IsNotLockedWhereThereIsNone)
{
    const TemporaryDirectory directory;
    const std::string file = directory.store_path() + "file";
    write_file(file, "");

    for (const std::string& path : {std::string(), file + "/state", file}) {
        EXPECT_NO_THROW((StateLock(path), StateLock(path))) << path;
    }
}

TEST(StateDirectory, HasNothingSavedWhereABlockHasThePlaceOfTheFile)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path();
    EXPECT_TRUE(read_saved(path).empty());

    std::filesystem::create_directory(saved_file(path));
    EXPECT_TRUE(read_saved(path).empty());
}

}  // namespace
