// The system calls of a POFStream: their order, and what each of their failures leads to.
#include <quorval/config.h>
#include <quorval/pstore.h>
#include "core/store/system_calls.h"
#include "support/support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

using Quorval::POFStream;
using quorval_test::expect_throw;
using quorval_test::hexadecimal;
using quorval_test::open_descriptors;
using quorval_test::read_file;
using quorval_test::SystemCalls;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

namespace fs = std::filesystem;

namespace {

const std::string kOpenDirectory = hexadecimal(O_RDONLY | O_DIRECTORY);

// Where the calls of close() stand when the directory is there and no temporary file is left.
enum Call : std::size_t {
    kStatDirectory,
    kStatFile,
    kStatTemporary,
    kOpen,
    kOpenAt,
    kWrite,
    kSyncFile,
    kCloseFile,
    kRename,
    kSyncDirectory,
    kCloseDirectory,
    kCallCount
};

void expect_system_error(const std::function<void()>& action, const std::string& text, int error)
{
    try {
        action();
        ADD_FAILURE() << "threw nothing, expected: " << text;
    } catch (const std::system_error& failure) {
        EXPECT_EQ(typeid(failure), typeid(std::system_error));
        EXPECT_EQ(failure.what(), text + ": " + std::system_category().message(error));
        EXPECT_EQ(failure.code().value(), error);
        EXPECT_EQ(&failure.code().category(), &std::system_category());
    }
}

/// Closes the descriptors that were not open when it was made.
class DescriptorGuard {
public:
    DescriptorGuard() : before_(open_descriptors()) {}
    DescriptorGuard(const DescriptorGuard&) = delete;
    DescriptorGuard& operator=(const DescriptorGuard&) = delete;
    ~DescriptorGuard()
    {
        for (const int descriptor : added()) {
            ::close(descriptor);
        }
    }

    std::vector<int> added() const
    {
        const std::set<int> before(before_.begin(), before_.end());
        std::vector<int> result;
        for (const int descriptor : open_descriptors()) {
            if (before.count(descriptor) == 0) {
                result.push_back(descriptor);
            }
        }
        return result;
    }

    /// What the added descriptors refer to.
    std::vector<std::string> added_files() const
    {
        std::vector<std::string> result;
        for (const int descriptor : added()) {
            result.push_back(fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor)));
        }
        return result;
    }

private:
    std::vector<int> before_;
};

class POFStreamCalls : public testing::Test {
protected:
    const TemporaryDirectory directory_;
    const DescriptorGuard descriptors_;
    const std::string path_ = directory_.store_path();
    const std::string file_ = path_ + "state";
    const std::string temporary_ = file_ + ".tmp";
};

using POFStreamCheck = POFStreamCalls;
using POFStreamCommit = POFStreamCalls;
using PStoreCalls = POFStreamCalls;

// What a failed step of a commit leads to.
struct Step {
    Call call;
    std::string name;
    std::vector<int> errors;
    std::string text;  // without the path, which is appended where `names_path` is set
    bool names_path;
    bool is_replaced;  // the file has the new content
    bool leaves_temporary;
    std::string temporary;  // its content
    bool leaves_directory_open;
    bool leaves_file_open;
};

const std::vector<Step> kSteps = {
    {kOpen,
     "open",
     {EMFILE, ENFILE, EACCES, ENOENT, ENOTDIR, ELOOP, ENOMEM, EINTR},
     "Failed to open directory: ",
     true,
     false,
     false,
     "",
     false,
     false},
    {kOpenAt,
     "openat",
     {EMFILE, ENFILE, EACCES, ENOSPC, EDQUOT, EROFS, EISDIR, EINTR, EPERM},
     "Failed to open: state.tmp",
     false,
     false,
     false,
     "",
     true,
     false},
    {kWrite,
     "write",
     {ENOSPC, EDQUOT, EIO, EFBIG, EINTR, EAGAIN},
     "Failed to write: state.tmp",
     false,
     false,
     true,
     "",
     true,
     true},
    {kSyncFile,
     "fsync of the file",
     {EIO, ENOSPC, EDQUOT, EROFS, EINVAL, EINTR},
     "Failed fsync: state.tmp",
     false,
     false,
     true,
     "new",
     true,
     true},
    {kCloseFile,
     "close of the file",
     {EIO, EINTR, ENOSPC, EDQUOT},
     "Failed close: state.tmp",
     false,
     false,
     true,
     "new",
     true,
     false},
    {kRename,
     "renameat",
     {EACCES, EPERM, EBUSY, ENOSPC, EROFS, EIO, EISDIR, ENOENT, EXDEV},
     "Failed on call to linkat",
     false,
     false,
     true,
     "new",
     true,
     false},
    {kSyncDirectory,
     "fsync of the directory",
     {EIO, ENOSPC, EROFS, EINVAL, EINTR},
     "Failed on call to fsync",
     false,
     true,
     false,
     "",
     true,
     false},
    {kCloseDirectory,
     "close of the directory",
     {EIO, EINTR, ENOSPC},
     "Failed on call to close",
     false,
     true,
     false,
     "",
     false,
     false},
};

/// Runs `test` for each step and each of its errors, with a text that tells which it is.
void for_each_failure(const std::function<void(const Step&, int)>& test)
{
    for (const Step& step : kSteps) {
        for (const int error : step.errors) {
            SCOPED_TRACE(step.name + ": " + std::strerror(error));
            test(step, error);
        }
    }
}

}  // namespace

TEST_F(POFStreamCheck, LooksAtTheDirectoryThenTheFileThenTheTemporaryFile)
{
    SystemCalls calls;

    const POFStream out(path_, "state");

    const std::vector<std::string> expected = {"stat(" + path_ + ")", "stat(" + file_ + ")",
                                               "stat(" + temporary_ + ")"};
    EXPECT_EQ(calls.made(), expected);
}

TEST_F(POFStreamCheck, MakesTheSameCallsInOpenForTheNameThatIsGiven)
{
    POFStream out(path_, "state");
    SystemCalls calls;

    out.open("other", std::ios::in | std::ios::app);

    const std::vector<std::string> expected = {"stat(" + path_ + ")", "stat(" + path_ + "other)",
                                               "stat(" + path_ + "other.tmp)"};
    EXPECT_EQ(calls.made(), expected);
}

TEST_F(POFStreamCheck, MakesAMissingDirectoryAndLooksAgain)
{
    const std::string path = path_ + "new/";
    SystemCalls calls;

    const POFStream out(path, "state");

    const std::vector<std::string> expected = {
        "stat(" + path + ")",      "mkdir(" + path + ", 0775)",   "stat(" + path + ")",
        "stat(" + path + "state)", "stat(" + path + "state.tmp)",
    };
    EXPECT_EQ(calls.made(), expected);
}

TEST_F(POFStreamCheck, RemovesALeftTemporaryFile)
{
    write_file(temporary_, "left");
    SystemCalls calls;

    const POFStream out(path_, "state");

    const std::vector<std::string> expected = {"stat(" + path_ + ")", "stat(" + file_ + ")",
                                               "stat(" + temporary_ + ")",
                                               "unlink(" + temporary_ + ")"};
    EXPECT_EQ(calls.made(), expected);
    EXPECT_FALSE(fs::exists(temporary_));
}

TEST_F(POFStreamCheck, MakesNoCallForNamesThatItRefuses)
{
    SystemCalls calls;

    expect_throw<std::runtime_error>([] { POFStream("", ""); }, "Failed due to unset path");
    expect_throw<std::runtime_error>([&] { POFStream(path_, ""); }, "Failed due to unset filename");
    expect_throw<std::runtime_error>([] { POFStream("store/", "state"); },
                                     "Failed due to path not being absolute: store/");

    EXPECT_EQ(calls.made(), std::vector<std::string>());
}

TEST_F(POFStreamCheck, StopsAtWhatItRefuses)
{
    write_file(path_ + "plain", "");
    fs::create_directory(path_ + "file");
    fs::create_directory(path_ + "left.tmp");
    const std::string plain = path_ + "plain";
    SystemCalls calls;

    expect_throw<std::runtime_error>([&] { POFStream(plain, "state"); },
                                     "Failed to verify path is a directory: " + plain);
    expect_throw<std::runtime_error>([&] { POFStream(path_, "file"); },
                                     "Failed to verify file is a file: " + path_ + "file");
    expect_throw<std::runtime_error>([&] { POFStream(path_, "left"); },
                                     "Failed to verify file is a file: " + path_ + "left.tmp");

    const std::vector<std::string> expected = {
        "stat(" + plain + ")", "stat(" + path_ + ")",     "stat(" + path_ + "file)",
        "stat(" + path_ + ")", "stat(" + path_ + "left)", "stat(" + path_ + "left.tmp)"};
    EXPECT_EQ(calls.made(), expected);
}

TEST_F(POFStreamCheck, TakesADirectoryThatItFailsToSeeForAMissingOne)
{
    for (const int error : {ENOENT, EACCES, ENOTDIR, ELOOP, ENOMEM, EIO, EINTR}) {
        SCOPED_TRACE(std::strerror(error));
        SystemCalls calls;
        calls.fail(0, error);

        EXPECT_NO_THROW(POFStream(path_, "state"));

        const std::vector<std::string> expected = {
            "stat(" + path_ + ")", "mkdir(" + path_ + ", 0775)", "stat(" + path_ + ")",
            "stat(" + file_ + ")", "stat(" + temporary_ + ")"};
        EXPECT_EQ(calls.made(), expected);
    }
}

TEST_F(POFStreamCheck, RefusesADirectoryThatItFailsToSeeTwice)
{
    for (const int error : {ENOENT, EACCES, EIO, EINTR}) {
        SCOPED_TRACE(std::strerror(error));
        SystemCalls calls;
        calls.fail(0, error);
        calls.fail(2, error);

        expect_throw<std::runtime_error>([&] { POFStream(path_, "state"); },
                                         "Failed to stat directory: " + path_);

        EXPECT_EQ(calls.made().size(), 3U);
    }
}

TEST_F(POFStreamCheck, DoesNotLookAtWhyADirectoryCouldNotBeMade)
{
    const std::string path = path_ + "new/";
    for (const int error : {ENOSPC, EDQUOT, EACCES, EROFS, EMLINK, EEXIST, EIO}) {
        SCOPED_TRACE(std::strerror(error));
        {
            SystemCalls calls;
            calls.fail(1, error);

            expect_throw<std::runtime_error>([&] { POFStream(path, "state"); },
                                             "Failed to stat directory: " + path);
        }

        EXPECT_FALSE(fs::exists(path));
    }

    EXPECT_NO_THROW(POFStream(path, "state"));
    EXPECT_TRUE(fs::is_directory(path));
}

TEST_F(POFStreamCheck, TakesAFileThatItFailsToSeeForAMissingOne)
{
    fs::create_directory(file_);
    for (const int error : {ENOENT, EACCES, EIO, EINTR}) {
        SCOPED_TRACE(std::strerror(error));
        SystemCalls calls;
        calls.fail(1, error);

        EXPECT_NO_THROW(POFStream(path_, "state"));

        EXPECT_EQ(calls.made().size(), 3U);
    }
}

TEST_F(POFStreamCheck, LeavesATemporaryFileThatItFailsToSee)
{
    write_file(temporary_, "left");
    for (const int error : {ENOENT, EACCES, EIO, EINTR}) {
        SCOPED_TRACE(std::strerror(error));
        SystemCalls calls;
        calls.fail(2, error);

        EXPECT_NO_THROW(POFStream(path_, "state"));

        EXPECT_EQ(calls.made().size(), 3U);
        EXPECT_EQ(read_file(temporary_), "left");
    }
}

TEST_F(POFStreamCheck, RefusesATemporaryFileThatCannotBeRemoved)
{
    write_file(file_, "old");
    write_file(temporary_, "left");
    for (const int error : {EACCES, EPERM, EBUSY, EROFS, EIO, ENOMEM}) {
        SCOPED_TRACE(std::strerror(error));
        SystemCalls calls;
        calls.fail(3, error);

        expect_throw<std::runtime_error>([&] { POFStream(path_, "state"); },
                                         "Failed to remove temporary file: " + temporary_);

        EXPECT_EQ(calls.made().size(), 4U);
        EXPECT_EQ(read_file(temporary_), "left");
        EXPECT_EQ(read_file(file_), "old");
    }

    EXPECT_NO_THROW(POFStream(path_, "state"));
    EXPECT_FALSE(fs::exists(temporary_));
}

TEST_F(POFStreamCheck, CountsOnlyANegativeResultAsAFailedRemoval)
{
    write_file(temporary_, "left");
    SystemCalls calls;
    calls.fail(3, EIO, 1);

    EXPECT_NO_THROW(POFStream(path_, "state"));

    EXPECT_EQ(calls.made().size(), 4U);
}

TEST_F(POFStreamCheck, RunsAgainInCloseAndCanBeTriedAgain)
{
    POFStream out(path_, "state");
    out << "new";
    write_file(file_, "old");
    write_file(temporary_, "left");
    {
        SystemCalls calls;
        calls.fail(3, EACCES);

        expect_throw<std::runtime_error>([&] { out.close(); },
                                         "Failed to remove temporary file: " + temporary_);

        EXPECT_EQ(calls.made().size(), 4U);
    }
    EXPECT_EQ(read_file(file_), "old");
    EXPECT_EQ(read_file(temporary_), "left");

    out.close();

    EXPECT_EQ(read_file(file_), "new");
    EXPECT_FALSE(fs::exists(temporary_));
}

TEST_F(POFStreamCheck, MakesADirectoryInCloseThatWasLostSinceConstruction)
{
    const std::string path = path_ + "new/";
    POFStream out(path, "state");
    out << "new";
    fs::remove(path);
    SystemCalls calls;

    out.close();

    EXPECT_EQ(calls.made().at(1), "mkdir(" + path + ", 0775)");
    EXPECT_EQ(read_file(path + "state"), "new");
}

TEST_F(POFStreamCommit, MakesItsCallsInOneOrder)
{
    POFStream out(path_, "state");
    out << "new";
    SystemCalls calls;

    out.close();

    const std::vector<std::string> expected = {
        "stat(" + path_ + ")",
        "stat(" + file_ + ")",
        "stat(" + temporary_ + ")",
        "open(" + path_ + ", " + kOpenDirectory + ")",
        "openat(directory, state.tmp, 0x242, 0600)",
        "write(file, 3)",
        "fsync(file)",
        "close(file)",
        "renameat(directory, state.tmp, directory, state)",
        "fsync(directory)",
        "close(directory)",
    };
    EXPECT_EQ(calls.made(), expected);
    EXPECT_EQ(calls.made().size(), std::size_t{kCallCount});
    EXPECT_EQ(calls.written(), "new");
    EXPECT_EQ(descriptors_.added(), std::vector<int>());
    EXPECT_EQ(O_RDWR | O_CREAT | O_TRUNC, 0x242);
}

TEST_F(POFStreamCommit, WritesAnEmptyContentWithOneCall)
{
    write_file(file_, "old");
    POFStream out(path_, "state");
    SystemCalls calls;

    out.close();

    EXPECT_EQ(calls.made().size(), std::size_t{kCallCount});
    EXPECT_EQ(calls.made().at(kWrite), "write(file, 0)");
    EXPECT_EQ(read_file(file_), "");
}

TEST_F(POFStreamCommit, WritesALargeContentWithOneCall)
{
    const std::string content(5'000'001, 'x');
    POFStream out(path_, "state");
    out << content;
    SystemCalls calls;

    out.close();

    EXPECT_EQ(calls.made().size(), std::size_t{kCallCount});
    EXPECT_EQ(calls.made().at(kWrite), "write(file, 5000001)");
    EXPECT_EQ(read_file(file_), content);
}

TEST_F(POFStreamCommit, MakesNoCallWhenTheStreamIsDestroyed)
{
    write_file(file_, "old");
    SystemCalls calls;
    {
        POFStream out(path_, "state");
        out << "new";
    }

    EXPECT_EQ(calls.made().size(), 3U) << "those of the check at construction";
    EXPECT_EQ(read_file(file_), "old");
}

TEST_F(POFStreamCommit, MarksItsDescriptorsForInheritance)
{
    POFStream out(path_, "state");
    std::map<int, int> flags;
    SystemCalls calls;
    calls.before_each([&](std::size_t number) {
        if (number == kWrite) {
            for (const int descriptor : descriptors_.added()) {
                flags[descriptor] = ::fcntl(descriptor, F_GETFD);
            }
        }
    });

    out.close();

    EXPECT_EQ(flags.size(), 2U);
    for (const auto& [descriptor, flag] : flags) {
        EXPECT_EQ(flag, 0) << descriptor;
    }
}

TEST_F(POFStreamCommit, ReportsEachFailedCallWithItsErrorAndGoesNoFurther)
{
    for_each_failure([&](const Step& step, int error) {
        const DescriptorGuard descriptors;
        POFStream out(path_, "state");
        out << "new";
        SystemCalls calls;
        calls.fail(step.call, error);

        expect_system_error([&] { out.close(); }, step.text + (step.names_path ? path_ : ""),
                            error);

        EXPECT_EQ(calls.made().size(), step.call + 1U);
    });
}

TEST_F(POFStreamCommit, KeepsTheOldFileUntilTheRename)
{
    for_each_failure([&](const Step& step, int error) {
        const DescriptorGuard descriptors;
        write_file(file_, "old");
        POFStream out(path_, "state");
        out << "new";
        SystemCalls calls;
        calls.fail(step.call, error);

        EXPECT_THROW(out.close(), std::system_error);

        EXPECT_EQ(read_file(file_), step.is_replaced ? "new" : "old");
    });
}

TEST_F(POFStreamCommit, MakesNoFileBeforeTheRename)
{
    for_each_failure([&](const Step& step, int error) {
        const DescriptorGuard descriptors;
        fs::remove(file_);
        POFStream out(path_, "state");
        out << "new";
        SystemCalls calls;
        calls.fail(step.call, error);

        EXPECT_THROW(out.close(), std::system_error);

        EXPECT_EQ(fs::exists(file_), step.is_replaced);
    });
}

TEST_F(POFStreamCommit, LeavesDescriptorsOpenAndTheTemporaryFileAfterAFailure)
{
    const std::string directory = directory_.path();
    for_each_failure([&](const Step& step, int error) {
        const DescriptorGuard descriptors;
        POFStream out(path_, "state");
        out << "new";
        std::vector<std::string> expected;
        if (step.leaves_directory_open) {
            expected.push_back(directory);
        }
        if (step.leaves_file_open) {
            expected.push_back(temporary_);
        }

        {
            SystemCalls calls;
            calls.fail(step.call, error);
            EXPECT_THROW(out.close(), std::system_error);
        }

        EXPECT_EQ(descriptors.added_files(), expected);
        EXPECT_EQ(fs::exists(temporary_), step.leaves_temporary);
        if (step.leaves_temporary) {
            EXPECT_EQ(read_file(temporary_), step.temporary);
        }
    });
}

TEST_F(POFStreamCommit, CanBeTriedAgainAfterEachFailure)
{
    for_each_failure([&](const Step& step, int error) {
        const DescriptorGuard descriptors;
        write_file(file_, "old");
        POFStream out(path_, "state");
        out << "new";
        {
            SystemCalls calls;
            calls.fail(step.call, error);
            EXPECT_THROW(out.close(), std::system_error);
        }
        const std::vector<int> left = descriptors.added();

        out.close();

        EXPECT_EQ(read_file(file_), "new");
        EXPECT_FALSE(fs::exists(temporary_));
        EXPECT_EQ(descriptors.added(), left) << "the second attempt uses descriptors of its own";
        expect_throw<std::runtime_error>([&] { out.close(); }, "Failed due to unset path");
    });
}

TEST_F(POFStreamCommit, RemovesTheTemporaryFileOfAFailedAttemptBeforeTheNext)
{
    POFStream out(path_, "state");
    out << "new";
    SystemCalls calls;
    calls.fail(kRename, EIO);
    EXPECT_THROW(out.close(), std::system_error);

    out.close();

    const std::vector<std::string> first_calls_of_the_second = {
        "stat(" + path_ + ")", "stat(" + file_ + ")", "stat(" + temporary_ + ")",
        "unlink(" + temporary_ + ")", "open(" + path_ + ", " + kOpenDirectory + ")"};
    const auto from = calls.made().begin() + kRename + 1;
    EXPECT_EQ(std::vector<std::string>(from, from + 5), first_calls_of_the_second);
    EXPECT_EQ(calls.made().size(), kRename + 1U + kCallCount + 1U);
}

TEST_F(POFStreamCommit, NamesLinkatWhenTheRenameFails)
{
    POFStream out(path_, "state");
    SystemCalls calls;
    calls.fail(kRename, EXDEV);

    expect_system_error([&] { out.close(); }, "Failed on call to linkat", EXDEV);

    EXPECT_EQ(calls.made().back(), "renameat(directory, state.tmp, directory, state)");
}

TEST_F(POFStreamCommit, ReplacesTheFileByWhatAShortWriteTook)
{
    for (const std::size_t taken : {0, 1, 2}) {
        SCOPED_TRACE(taken);
        write_file(file_, "old");
        POFStream out(path_, "state");
        out << "new";
        SystemCalls calls;
        calls.shorten(kWrite, taken);

        out.close();

        EXPECT_EQ(read_file(file_), std::string("new").substr(0, taken));
        EXPECT_EQ(calls.made().size(), std::size_t{kCallCount}) << "written once";
        expect_throw<std::runtime_error>([&] { out.close(); }, "Failed due to unset path");
    }
}

// The system sees a name up to its first zero, so that file and temporary file are the same.
TEST_F(POFStreamCommit, RemovesTheFileAndWritesItAnewUnderANameWithAZeroInside)
{
    write_file(file_, "old");
    POFStream out(path_, std::string("state\0x", 7));
    out << "new";
    SystemCalls calls;

    out.close();

    const std::vector<std::string> expected = {
        "stat(" + path_ + ")",
        "stat(" + file_ + ")",
        "stat(" + file_ + ")",
        "unlink(" + file_ + ")",
        "open(" + path_ + ", " + kOpenDirectory + ")",
        "openat(directory, state, 0x242, 0600)",
        "write(file, 3)",
        "fsync(file)",
        "close(file)",
        "renameat(directory, state, directory, state)",
        "fsync(directory)",
        "close(directory)",
    };
    EXPECT_EQ(calls.made(), expected);
    EXPECT_EQ(read_file(file_), "new");
}

// The second writer is let in before each call of the first one, and finishes there.
TEST_F(POFStreamCommit, FailsOrLosesItsContentToASecondWriterOfTheFile)
{
    for (std::size_t here = 0; here < kCallCount; ++here) {
        SCOPED_TRACE(here);
        const DescriptorGuard descriptors;
        write_file(file_, "old");
        POFStream first(path_, "state");
        first << "of the first";
        SystemCalls calls;
        calls.before_each([&](std::size_t number) {
            if (number == here) {
                POFStream second(path_, "state");
                second << "of the second";
                second.close();
            }
        });

        // The check of the second one removes the temporary file of the first one.
        const bool has_lost_its_file = here > kOpenAt && here <= kRename;
        if (has_lost_its_file) {
            expect_system_error([&] { first.close(); }, "Failed on call to linkat", ENOENT);
        } else {
            first.close();
        }

        EXPECT_EQ(read_file(file_), here <= kOpenAt ? "of the first" : "of the second");
        EXPECT_FALSE(fs::exists(temporary_));
    }
}

TEST_F(POFStreamCommit, LosesItsTemporaryFileToAStreamThatIsOnlyMade)
{
    const DescriptorGuard descriptors;
    write_file(file_, "old");
    POFStream out(path_, "state");
    out << "new";
    SystemCalls calls;
    calls.before_each([&](std::size_t number) {
        if (number == kRename) {
            const POFStream other(path_, "state");
        }
    });

    expect_system_error([&] { out.close(); }, "Failed on call to linkat", ENOENT);

    EXPECT_EQ(read_file(file_), "old");
}

TEST_F(POFStreamCommit, MixesItsContentWithThatOfAWriterWhoOpenedTheSameTemporaryFile)
{
    POFStream out(path_, "state");
    out << "new";
    SystemCalls calls;
    calls.before_each([&](std::size_t number) {
        if (number == kWrite) {
            write_file(temporary_, "of another writer");
        }
    });

    out.close();

    EXPECT_EQ(read_file(file_), "newanother writer");
}

TEST_F(POFStreamCommit, CountsOnlyANegativeResultAsAFailureUpToTheRename)
{
    for (const Call call : {kSyncFile, kCloseFile, kRename}) {
        SCOPED_TRACE(call);
        const DescriptorGuard descriptors;
        POFStream out(path_, "state");
        SystemCalls calls;
        calls.fail(call, EIO, 1);

        EXPECT_NO_THROW(out.close());

        EXPECT_EQ(calls.made().size(), std::size_t{kCallCount});
    }
}

TEST_F(POFStreamCommit, CountsAnyOtherResultThanZeroAsAFailureAfterTheRename)
{
    for (const Call call : {kSyncDirectory, kCloseDirectory}) {
        SCOPED_TRACE(call);
        const DescriptorGuard descriptors;
        POFStream out(path_, "state");
        SystemCalls calls;
        calls.fail(call, EIO, 1);

        expect_system_error(
            [&] { out.close(); },
            call == kSyncDirectory ? "Failed on call to fsync" : "Failed on call to close", EIO);

        EXPECT_EQ(calls.made().size(), call + 1U);
    }
}

TEST_F(POFStreamCommit, TakesADescriptorOfTheNumberZero)
{
    POFStream out(path_, "state");
    out << "new";
    const int input = ::dup(STDIN_FILENO);
    ::close(STDIN_FILENO);

    std::vector<std::string> made;
    {
        SystemCalls calls;
        EXPECT_NO_THROW(out.close());
        made = calls.made();
    }
    const bool was_used = ::fcntl(STDIN_FILENO, F_GETFD) == -1;
    if (input >= 0) {
        ::dup2(input, STDIN_FILENO);
        ::close(input);
    }

    EXPECT_TRUE(was_used) << "closed again";
    EXPECT_EQ(made.size(), std::size_t{kCallCount});
    EXPECT_EQ(read_file(file_), "new");
}

TEST_F(PStoreCalls, StoreChecksTheTargetTwiceAndCommitsOnce)
{
    Quorval::PStore store(path_);
    Quorval::BlockConfiguration config;
    config.set("gain", 0.5);
    SystemCalls calls;

    store.store("state", config);

    const std::vector<std::string> expected = {
        "stat(" + path_ + ")",
        "stat(" + file_ + ")",
        "stat(" + temporary_ + ")",
        "stat(" + path_ + ")",
        "stat(" + file_ + ")",
        "stat(" + temporary_ + ")",
        "open(" + path_ + ", " + kOpenDirectory + ")",
        "openat(directory, state.tmp, 0x242, 0600)",
        "write(file, 34)",
        "fsync(file)",
        "close(file)",
        "renameat(directory, state.tmp, directory, state)",
        "fsync(directory)",
        "close(directory)",
    };
    EXPECT_EQ(calls.made(), expected);
}

TEST_F(PStoreCalls, StoreSyncsADirectoryThatItMadeAndNotItsParent)
{
    SystemCalls calls;

    Quorval::PStore(path_ + "new/").store("state", {});

    std::vector<std::string> opened_and_synced;
    for (const std::string& call : calls.made()) {
        if (call.rfind("open(", 0) == 0 || call.rfind("fsync(", 0) == 0) {
            opened_and_synced.push_back(call);
        }
    }
    const std::vector<std::string> expected = {"open(" + path_ + "new/, " + kOpenDirectory + ")",
                                               "fsync(file)", "fsync(directory)"};
    EXPECT_EQ(opened_and_synced, expected);
}

TEST_F(PStoreCalls, AStoreThatWasCutIsFoundByLoadingIt)
{
    constexpr std::size_t kCallsOfConstruction = 3;
    Quorval::PStore store(path_);
    const Quorval::BlockConfiguration config = {{"gain", 0.5}, {"name", "left"}, {"taps", {1, 2}}};
    store.store("state", config);
    const std::size_t size = read_file(file_).size();
    for (std::size_t written = 0; written < size; ++written) {
        {
            SystemCalls calls;
            calls.shorten(kCallsOfConstruction + kWrite, written);
            EXPECT_NO_THROW(store.store("state", config));
        }

        bool is_found = false;
        try {
            is_found = store.load("state") != config;
        } catch (const std::runtime_error&) {
            is_found = true;
        }
        EXPECT_TRUE(is_found) << written;
    }
}

TEST_F(PStoreCalls, NoCallIsMadeWithoutAPath)
{
    Quorval::PStore store;
    const std::string text = "PStore path is not configured";
    SystemCalls calls;

    expect_throw<std::runtime_error>([&] { store.store("state", {}); }, text);
    expect_throw<std::runtime_error>([&] { store.load("state"); }, text);
    expect_throw<std::runtime_error>([&] { store.ofstream("state"); }, text);
    expect_throw<std::runtime_error>([&] { store.ifstream("state"); }, text);

    EXPECT_EQ(calls.made(), std::vector<std::string>());
}

TEST_F(PStoreCalls, AFailedStoreLeavesTheOldConfigurationAndTheNextOneSucceeds)
{
    constexpr std::size_t kCallsOfConstruction = 3;
    Quorval::PStore store(path_);
    Quorval::BlockConfiguration before;
    before.set("gain", 1);
    Quorval::BlockConfiguration after;
    after.set("gain", 2);
    for_each_failure([&](const Step& step, int error) {
        const DescriptorGuard descriptors;
        store.store("state", before);
        {
            SystemCalls calls;
            calls.fail(kCallsOfConstruction + step.call, error);

            expect_system_error([&] { store.store("state", after); },
                                step.text + (step.names_path ? path_ : ""), error);
        }
        EXPECT_EQ(store.load("state"), step.is_replaced ? after : before);

        store.store("state", after);

        EXPECT_EQ(store.load("state"), after);
        EXPECT_FALSE(fs::exists(temporary_));
    });
}
