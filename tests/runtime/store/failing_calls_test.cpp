// What becomes of a store file when a system call fails while it is replaced.
#include <quorval/config.h>
#include <quorval/runtime/config_files.h>
#include "core/store/system_calls.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Quorval::BlockConfiguration;
using Quorval::read_store_file;
using Quorval::write_store_file;
using quorval_test::NoStandardInput;
using quorval_test::open_descriptors;
using quorval_test::SystemCalls;
using quorval_test::TemporaryDirectory;

/// What replacing a file throws, and what it leaves.
class ReplacedStore : public testing::Test {
protected:
    ReplacedStore() { write_store_file(path(), {{"old", 1}}); }

    std::string path() const { return directory_.store_path() + "store"; }

    /// The calls of replacing the file.
    std::vector<std::string> calls() const
    {
        const SystemCalls calls;
        write_store_file(path(), {{"old", 1}});
        return calls.made();
    }

    /// What is thrown when the call of that number fails; empty: nothing.
    std::string failure_of(std::size_t number) const
    {
        SystemCalls calls;
        calls.fail(number, EDQUOT);
        try {
            write_store_file(path(), {{"new", 1}});
            return "";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code().value(), EDQUOT);
            return error.what();
        }
    }

    TemporaryDirectory directory_;
};

TEST_F(ReplacedStore, SaysWhichCallFails)
{
    const std::vector<std::string> made = calls();
    const auto renames = std::find_if(made.begin(), made.end(), [](const std::string& call) {
        return call.rfind("rename(", 0) == 0;
    });
    ASSERT_NE(renames, made.end());
    const auto rename = static_cast<std::size_t>(renames - made.begin());
    const std::string reason = ": Disk quota exceeded";

    if (::geteuid() == 0) {
        EXPECT_EQ(failure_of(rename - 1), "chown" + reason);
    }
    EXPECT_EQ(failure_of(rename), "rename" + reason);
    EXPECT_EQ(read_store_file(path()).config, BlockConfiguration({{"old", 1}}));
    const std::vector<int> before = open_descriptors();
    EXPECT_EQ(failure_of(rename + 1), "open" + reason);
    EXPECT_EQ(failure_of(rename + 2), "fsync" + reason);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(read_store_file(path()).config, BlockConfiguration({{"new", 1}}));
    for (const auto& entry : fs::directory_iterator(directory_.path())) {
        EXPECT_EQ(entry.path().filename(), "store");
    }
}

TEST_F(ReplacedStore, LeavesNoDescriptorOpen)
{
    const NoStandardInput none;
    const std::vector<int> before = open_descriptors();

    EXPECT_NO_THROW(write_store_file(path(), {{"new", 1}}));

    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(read_store_file(path()).config, BlockConfiguration({{"new", 1}}));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ReplacedStore, KeepsItsOwner)
{
    // Nobody but root can give files away: for others the owner is the one of all their files.
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(path().c_str(), 12, 34), 0);
    }
    struct stat before {};
    ASSERT_EQ(::stat(path().c_str(), &before), 0);

    write_store_file(path(), {{"new", 1}});

    struct stat after {};
    ASSERT_EQ(::stat(path().c_str(), &after), 0);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(ReplacedStore, HasTheGroupOfItsFolderWhereItIsNew)
{
    const std::string folder = directory_.store_path() + "folder";
    fs::create_directory(folder);
    // Nobody but root can give files away: for others the group is the one of all their files.
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(folder.c_str(), 0, 34), 0);
    }
    ASSERT_EQ(::chmod(folder.c_str(), S_ISGID | S_IRWXU), 0);
    struct stat expected {};
    ASSERT_EQ(::stat(folder.c_str(), &expected), 0);

    write_store_file(folder + "/new", {{"new", 1}});

    struct stat made {};
    ASSERT_EQ(::stat((folder + "/new").c_str(), &made), 0);
    EXPECT_EQ(made.st_gid, expected.st_gid);
}

}  // namespace
