#include <quorval/config.h>
#include <quorval/pstore.h>
#include "support/scopes.h"
#include "support/support.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <ios>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

using Quorval::POFStream;
using quorval_test::expect_throw;
using quorval_test::read_file;
using quorval_test::ScopedLimit;
using quorval_test::ScopedWorkingDirectory;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

namespace fs = std::filesystem;

namespace {

/// Sets the file mode creation mask and puts it back.
class ScopedUmask {
public:
    explicit ScopedUmask(mode_t mask) : before_(::umask(mask)) {}
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;
    ~ScopedUmask() { ::umask(before_); }

private:
    mode_t before_;
};

/// The descriptor that the next open() gives.
rlim_t next_descriptor()
{
    const int next = ::dup(STDERR_FILENO);
    ::close(next);
    return static_cast<rlim_t>(next);
}

unsigned int mode_of(const fs::path& file)
{
    struct stat status = {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777U;
}

std::string what_of(const std::function<void()>& action)
{
    try {
        action();
        return "nothing was thrown";
    } catch (const std::system_error& error) {
        return error.what();
    }
}

/// The names in a directory, in order.
std::vector<std::string> names_in(const fs::path& directory)
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string content_of(POFStream& out)
{
    return dynamic_cast<std::stringbuf&>(*out.rdbuf()).str();
}

class POFStreamTest : public testing::Test {
protected:
    std::string names() const
    {
        std::string result;
        for (const std::string& name : names_in(directory_.path())) {
            result += name + " ";
        }
        return result;
    }

    const TemporaryDirectory directory_;
    const std::string path_ = directory_.store_path();
    const std::string file_ = path_ + "state";
    const std::string temporary_ = file_ + ".tmp";
};

using POFStreamCheck = POFStreamTest;
using POFStreamClose = POFStreamTest;
using POFStreamConstruction = POFStreamTest;
using POFStreamMove = POFStreamTest;
using POFStreamOpen = POFStreamTest;

}  // namespace

static_assert(std::is_base_of_v<std::ostream, POFStream>);
static_assert(!std::is_copy_constructible_v<POFStream>);
static_assert(std::is_move_constructible_v<POFStream>);

TEST_F(POFStreamCheck, RefusesNamesInThisOrder)
{
    struct Case {
        std::string path;
        std::string filename;
        std::string text;
    };
    const std::vector<Case> cases = {
        {"", "", "Failed due to unset path"},
        {"", "state", "Failed due to unset path"},
        {"relative/", "", "Failed due to unset filename"},
        {path_, "", "Failed due to unset filename"},
        {"relative/", "state", "Failed due to path not being absolute: relative/"},
        {"./", "state", "Failed due to path not being absolute: ./"},
        {" /", "state", "Failed due to path not being absolute:  /"},
        {"~/", "state", "Failed due to path not being absolute: ~/"},
    };
    const ScopedWorkingDirectory here(directory_.path());
    for (const Case& c : cases) {
        SCOPED_TRACE("'" + c.path + "' '" + c.filename + "'");

        expect_throw<std::runtime_error>([&] { POFStream(c.path, c.filename); }, c.text);

        EXPECT_EQ(names(), "") << "nothing is made";
    }
}

TEST_F(POFStreamCheck, RefusesARelativePathThatExists)
{
    fs::create_directory(path_ + "store");
    const ScopedWorkingDirectory here(directory_.path());

    expect_throw<std::runtime_error>([] { POFStream("store/", "state"); },
                                     "Failed due to path not being absolute: store/");
}

TEST_F(POFStreamCheck, MakesOneLevelOfAMissingDirectory)
{
    const POFStream out(path_ + "new/", "state");

    EXPECT_TRUE(fs::is_directory(path_ + "new"));
    EXPECT_EQ(names_in(path_ + "new"), std::vector<std::string>());
}

TEST_F(POFStreamCheck, RefusesAMissingDirectoryWithAMissingParent)
{
    expect_throw<std::runtime_error>([&] { POFStream(path_ + "a/b/", "state"); },
                                     "Failed to stat directory: " + path_ + "a/b/");

    EXPECT_EQ(names(), "");
}

TEST_F(POFStreamCheck, RefusesADirectoryBelowAFile)
{
    write_file(path_ + "plain", "old");

    expect_throw<std::runtime_error>([&] { POFStream(path_ + "plain/", "state"); },
                                     "Failed to stat directory: " + path_ + "plain/");

    EXPECT_EQ(read_file(path_ + "plain"), "old");
}

TEST_F(POFStreamCheck, RefusesADanglingLinkAsADirectory)
{
    fs::create_symlink(path_ + "nowhere/nowhere", path_ + "link");

    expect_throw<std::runtime_error>([&] { POFStream(path_ + "link", "state"); },
                                     "Failed to stat directory: " + path_ + "link");
}

TEST_F(POFStreamCheck, RefusesAPathThatIsNoDirectory)
{
    write_file(path_ + "plain", "old");

    expect_throw<std::runtime_error>([&] { POFStream(path_ + "plain", "state"); },
                                     "Failed to verify path is a directory: " + path_ + "plain");

    EXPECT_EQ(read_file(path_ + "plain"), "old");
}

TEST_F(POFStreamCheck, FollowsALinkToADirectory)
{
    fs::create_directory(path_ + "real");
    fs::create_directory_symlink(path_ + "real", path_ + "link");

    POFStream out(path_ + "link/", "state");
    out << "new";
    out.close();

    EXPECT_EQ(read_file(path_ + "real/state"), "new");
}

TEST_F(POFStreamCheck, RefusesAPathThatIsTooLong)
{
    const std::string path = path_ + std::string(5000, 'x') + "/";

    expect_throw<std::runtime_error>([&] { POFStream(path, "state"); },
                                     "Failed to stat directory: " + path);
}

TEST_F(POFStreamCheck, RefusesATargetThatIsNoRegularFile)
{
    fs::create_directory(path_ + "directory");
    ASSERT_EQ(::mkfifo((path_ + "pipe").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", path_ + "device");
    for (const std::string name : {"directory", "pipe", "device", ".", "..", "directory/"}) {
        expect_throw<std::runtime_error>([&] { POFStream(path_, name); },
                                         "Failed to verify file is a file: " + path_ + name);
    }

    EXPECT_EQ(names(), "device directory pipe ");
}

TEST_F(POFStreamCheck, RefusesATemporaryFileThatIsNoRegularFile)
{
    fs::create_directory(path_ + "directory.tmp");
    ASSERT_EQ(::mkfifo((path_ + "pipe.tmp").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", path_ + "device.tmp");
    for (const std::string name : {"directory", "pipe", "device"}) {
        expect_throw<std::runtime_error>(
            [&] { POFStream(path_, name); },
            "Failed to verify file is a file: " + path_ + name + ".tmp");
    }

    EXPECT_EQ(names(), "device.tmp directory.tmp pipe.tmp ");
}

TEST_F(POFStreamCheck, LooksAtTheFileBeforeTheTemporaryFile)
{
    fs::create_directory(file_);
    write_file(temporary_, "left");

    expect_throw<std::runtime_error>([&] { POFStream(path_, "state"); },
                                     "Failed to verify file is a file: " + file_);

    EXPECT_EQ(read_file(temporary_), "left");
}

TEST_F(POFStreamCheck, RemovesALeftTemporaryFileOfThatNameAlone)
{
    write_file(file_, "old");
    write_file(temporary_, "left");
    write_file(path_ + "other.tmp", "left");
    write_file(path_ + "state.tmp.tmp", "left");

    const POFStream out(path_, "state");

    EXPECT_EQ(names(), "other.tmp state state.tmp.tmp ");
    EXPECT_EQ(read_file(file_), "old");
}

TEST_F(POFStreamCheck, RemovesALinkAndNotTheFileBehindIt)
{
    write_file(path_ + "precious", "old");
    fs::create_symlink(path_ + "precious", temporary_);

    POFStream out(path_, "state");
    out << "new";
    out.close();

    EXPECT_EQ(read_file(path_ + "precious"), "old");
    EXPECT_EQ(names(), "precious state ");
}

TEST_F(POFStreamCheck, JoinsDirectoryAndFileNameAsTheyAre)
{
    fs::create_directory(path_ + "store");
    write_file(path_ + "storestate.tmp", "of another store");
    fs::create_directory(path_ + "storeother");

    POFStream out(path_ + "store", "state");
    out << "new";
    out.close();

    EXPECT_FALSE(fs::exists(path_ + "storestate.tmp")) << "removed as a left temporary file";
    EXPECT_EQ(read_file(path_ + "store/state"), "new") << "where the commit replaces";
    expect_throw<std::runtime_error>([&] { POFStream(path_ + "store", "other"); },
                                     "Failed to verify file is a file: " + path_ + "storeother");
}

TEST_F(POFStreamCheck, DoesNotSeeADirectoryInTheWayWithoutASlash)
{
    const std::string path = directory_.path();
    fs::create_directory(file_);
    POFStream out(path, "state");
    out << "new";

    const std::string text = what_of([&] { out.close(); });

    EXPECT_EQ(text, "Failed on call to linkat: " + std::system_category().message(EISDIR));
    EXPECT_TRUE(fs::is_directory(file_));
    EXPECT_EQ(read_file(temporary_), "new");
}

TEST_F(POFStreamCheck, GivesANewDirectoryTheMode0775LessTheMask)
{
    struct Case {
        mode_t mask;
        unsigned int mode;
    };
    for (const Case& c : std::vector<Case>{{0, 0775}, {022, 0755}, {027, 0750}, {077, 0700}}) {
        const ScopedUmask umask(c.mask);
        const std::string path = path_ + std::to_string(c.mask) + "/";

        const POFStream out(path, "state");

        EXPECT_EQ(mode_of(path), c.mode) << "mask " << std::oct << c.mask;
    }
}

TEST_F(POFStreamConstruction, WritesNothing)
{
    write_file(file_, "old");

    POFStream out(path_, "state");
    out << "new" << std::flush;

    EXPECT_EQ(names(), "state ");
    EXPECT_EQ(read_file(file_), "old");
}

TEST_F(POFStreamConstruction, GivesAGoodStreamWithABufferForInputAndOutput)
{
    POFStream out(path_, "state");

    out << "abc";

    EXPECT_TRUE(out.good());
    EXPECT_EQ(out.exceptions(), std::ios::goodbit);
    EXPECT_EQ(content_of(out), "abc");
    EXPECT_EQ(out.rdbuf()->sbumpc(), 'a') << "can be read back";
}

TEST_F(POFStreamConstruction, KeepsCopiesOfItsNames)
{
    std::string path = path_;
    std::string filename = "state";
    POFStream out(path, filename);
    out << "new";
    path = "changed";
    filename = "changed";

    out.close();

    EXPECT_EQ(read_file(file_), "new");
}

TEST_F(POFStreamConstruction, TakesANameBelowTheDirectory)
{
    fs::create_directory(path_ + "sub");

    POFStream out(path_, "sub/state");
    out << "new";
    out.close();

    EXPECT_EQ(read_file(path_ + "sub/state"), "new");
    EXPECT_EQ(names_in(path_ + "sub"), std::vector<std::string>{"state"});
}

TEST_F(POFStreamConstruction, TakesANameThatLeadsOutOfTheDirectory)
{
    POFStream out(path_ + "store/", "../state");
    out << "new";
    out.close();

    EXPECT_EQ(read_file(file_), "new");
    EXPECT_TRUE(fs::is_empty(path_ + "store"));
}

TEST_F(POFStreamConstruction, TakesAnAbsoluteNameWithoutTheDirectory)
{
    const TemporaryDirectory other;
    write_file(other.path() / "state", "old");
    write_file(other.path() / "state.tmp", "left, and longer than the content");

    POFStream out(path_, other.store_path() + "state");
    EXPECT_EQ(names_in(other.path()).size(), 2U) << "the check looks below the directory";
    out << "new";
    out.close();

    EXPECT_EQ(read_file(other.path() / "state"), "new");
    EXPECT_EQ(names_in(other.path()).size(), 1U);
    EXPECT_EQ(names(), "");
}

TEST_F(POFStreamConstruction, RefusesAPathWithAZeroInside)
{
    write_file(file_, "old");

    // The text goes as far as what() shows it.
    expect_throw<std::runtime_error>([&] { POFStream(path_ + std::string("\0/", 2), "state"); },
                                     "Failed to verify file is a file: " + path_);

    EXPECT_EQ(read_file(file_), "old");
}

TEST_F(POFStreamConstruction, DestructionLeavesAnExistingFileAndMakesNone)
{
    write_file(file_, "old");
    {
        POFStream out(path_, "state");
        out << "new";
        POFStream other(path_, "other");
        other << "new";
    }

    EXPECT_EQ(names(), "state ");
    EXPECT_EQ(read_file(file_), "old");
}

TEST_F(POFStreamConstruction, DestructionAfterAFailedCloseWritesNothing)
{
    {
        POFStream out(path_, "state");
        out << "new";
        fs::create_directory(file_);
        EXPECT_THROW(out.close(), std::runtime_error);
        fs::remove(file_);
    }

    EXPECT_EQ(names(), "");
}

TEST_F(POFStreamOpen, ChecksTheNameButKeepsTheTarget)
{
    fs::create_directory(path_ + "directory");
    write_file(path_ + "other.tmp", "left");
    POFStream out(path_, "state");
    out << "new";

    expect_throw<std::runtime_error>([&] { out.open("directory", std::ios::out); },
                                     "Failed to verify file is a file: " + path_ + "directory");
    out.open("other", std::ios::out);
    out.close();

    EXPECT_EQ(names(), "directory state ");
    EXPECT_EQ(read_file(file_), "new");
}

TEST_F(POFStreamOpen, TakesAStringToo)
{
    POFStream out(path_, "state");

    expect_throw<std::runtime_error>([&] { out.open(std::string(), std::ios::out); },
                                     "Failed due to unset filename");
    out.open(std::string("other"), std::ios::out);

    EXPECT_TRUE(out.good());
}

TEST_F(POFStreamOpen, RefusesANullNameBeforeAnythingElse)
{
    POFStream out(path_, "state");
    const char* const null = nullptr;
    const std::string text = "basic_string: construction from null is not valid";

    expect_throw<std::logic_error>([&] { out.open(null, std::ios::out); }, text);
    out.close();
    expect_throw<std::logic_error>([&] { out.open(null, std::ios::out); }, text);
}

TEST_F(POFStreamOpen, IgnoresTheModeAndKeepsTheContent)
{
    using std::ios;
    for (const ios::openmode mode :
         {ios::in, ios::out, ios::app, ios::ate, ios::trunc, ios::openmode{}}) {
        POFStream out(path_, "state");
        out << "one ";

        out.open("state", mode);
        out << "two";
        out.close();

        EXPECT_EQ(read_file(file_), "one two") << mode;
    }
}

TEST_F(POFStreamOpen, AttachesTheBufferAndClearsTheState)
{
    POFStream out(path_, "state");
    out << "one ";
    std::stringbuf other;
    static_cast<std::ios&>(out).rdbuf(&other);
    out << "lost";
    out.setstate(std::ios::badbit | std::ios::failbit | std::ios::eofbit);

    out.open("state", std::ios::out);
    out << "two";

    EXPECT_TRUE(out.good());
    EXPECT_EQ(content_of(out), "one two");
    EXPECT_EQ(other.str(), "lost");
}

TEST_F(POFStreamOpen, LeavesBufferAndStateWhenItRefuses)
{
    POFStream out(path_, "state");
    std::stringbuf other;
    static_cast<std::ios&>(out).rdbuf(&other);
    out.setstate(std::ios::failbit);

    EXPECT_THROW(out.open("", std::ios::out), std::runtime_error);

    EXPECT_EQ(out.rdbuf(), &other);
    EXPECT_EQ(out.rdstate(), std::ios::failbit);
}

TEST_F(POFStreamOpen, KeepsTheExceptionMask)
{
    POFStream out(path_, "state");
    out.exceptions(std::ios::badbit | std::ios::failbit);
    EXPECT_THROW(out.setstate(std::ios::badbit), std::ios_base::failure);

    EXPECT_NO_THROW(out.open("state", std::ios::out));

    EXPECT_TRUE(out.good());
    EXPECT_EQ(out.exceptions(), std::ios::badbit | std::ios::failbit);
}

TEST_F(POFStreamOpen, FailsAfterCloseForWantOfAPath)
{
    POFStream out(path_, "state");
    out.close();

    expect_throw<std::runtime_error>([&] { out.open("", std::ios::out); },
                                     "Failed due to unset path");
}

TEST_F(POFStreamClose, PutsTheContentInPlace)
{
    POFStream out(path_, "state");
    out << "gain " << 5 << std::string("\0\r\n", 3);

    out.close();

    EXPECT_EQ(names(), "state ");
    EXPECT_EQ(read_file(file_), std::string("gain 5\0\r\n", 9));
}

TEST_F(POFStreamClose, ReplacesALongerFile)
{
    write_file(file_, std::string(10'000, 'o'));
    POFStream out(path_, "state");
    out << "new";

    out.close();

    EXPECT_EQ(read_file(file_), "new");
}

TEST_F(POFStreamClose, WithNothingWrittenReplacesTheFileByAnEmptyOne)
{
    write_file(file_, "old");
    POFStream out(path_, "state");

    out.close();

    EXPECT_EQ(names(), "state ");
    EXPECT_EQ(read_file(file_), "");
}

TEST_F(POFStreamClose, WritesTheWholeBufferWhereverItStands)
{
    POFStream out(path_, "state");
    out << "abcdef";
    out.seekp(1);
    out << "X";

    out.close();

    EXPECT_EQ(read_file(file_), "aXcdef");
}

TEST_F(POFStreamClose, WritesItsOwnBufferWhenAnotherIsAttached)
{
    POFStream out(path_, "state");
    out << "own";
    std::stringbuf other;
    static_cast<std::ios&>(out).rdbuf(&other);
    out << "other";

    out.close();

    EXPECT_EQ(read_file(file_), "own");
}

TEST_F(POFStreamClose, FailsTheSecondTime)
{
    POFStream out(path_, "state");
    out << "new";
    out.close();
    write_file(file_, "newer");

    expect_throw<std::runtime_error>([&] { out.close(); }, "Failed due to unset path");

    EXPECT_EQ(read_file(file_), "newer");
}

TEST_F(POFStreamClose, KeepsTheBufferAndTheState)
{
    POFStream out(path_, "state");
    out << "new";
    out.setstate(std::ios::failbit | std::ios::badbit);

    out.close();

    EXPECT_EQ(content_of(out), "new");
    EXPECT_EQ(out.rdstate(), std::ios::failbit | std::ios::badbit);
    EXPECT_EQ(read_file(file_), "new") << "the state is not looked at";
}

TEST_F(POFStreamClose, ChecksTheTargetAgainAndCanBeTriedAgain)
{
    POFStream out(path_, "state");
    out << "new";
    fs::create_directory(file_);

    expect_throw<std::runtime_error>([&] { out.close(); },
                                     "Failed to verify file is a file: " + file_);
    EXPECT_EQ(names(), "state ") << "no temporary file";
    fs::remove(file_);
    out << "er";
    out.close();

    EXPECT_EQ(read_file(file_), "newer");
}

TEST_F(POFStreamClose, GivesTheFileTheMode0600LessTheMask)
{
    struct Case {
        mode_t mask;
        unsigned int mode;
    };
    for (const Case& c : std::vector<Case>{{0, 0600}, {077, 0600}, {0200, 0400}, {0400, 0200}}) {
        const ScopedUmask umask(c.mask);
        POFStream out(path_, "state");

        out.close();

        EXPECT_EQ(mode_of(file_), c.mode) << "mask " << std::oct << c.mask;
    }
}

TEST_F(POFStreamClose, DoesNotTakeTheModeOfTheOldFileOver)
{
    write_file(file_, "old");
    fs::permissions(file_, fs::perms(0644));
    POFStream out(path_, "state");

    out.close();

    EXPECT_EQ(mode_of(file_), 0600U);
}

TEST_F(POFStreamClose, ReplacesTheFileAndDoesNotWriteIntoIt)
{
    write_file(file_, "old");
    fs::create_hard_link(file_, path_ + "second name");
    POFStream out(path_, "state");
    out << "new";

    out.close();

    EXPECT_EQ(read_file(path_ + "second name"), "old");
    EXPECT_EQ(read_file(file_), "new");
}

TEST_F(POFStreamClose, ReplacesALinkByAFile)
{
    write_file(path_ + "real", "old");
    fs::create_symlink(path_ + "real", file_);
    POFStream out(path_, "state");
    out << "new";

    out.close();

    EXPECT_FALSE(fs::is_symlink(file_));
    EXPECT_EQ(read_file(file_), "new");
    EXPECT_EQ(read_file(path_ + "real"), "old");
}

TEST_F(POFStreamClose, FollowsALinkToNowhereInThePlaceOfTheTemporaryFile)
{
    write_file(file_, "old");
    const std::string elsewhere = path_ + "elsewhere";
    POFStream out(path_, "state");
    out << "new";
    fs::create_symlink(elsewhere, temporary_);

    out.close();

    EXPECT_EQ(read_file(elsewhere), "new");
    EXPECT_TRUE(fs::is_symlink(file_));
}

TEST_F(POFStreamClose, ReplacesTheFileByWhatThereWasRoomFor)
{
    write_file(file_, "the old content");
    POFStream out(path_, "state");
    out << "the new content";
    {
        const ScopedLimit limit(RLIMIT_FSIZE, 7);

        EXPECT_NO_THROW(out.close());
    }

    EXPECT_EQ(read_file(file_), "the new");
    EXPECT_EQ(names(), "state ");
}

TEST_F(POFStreamClose, ReportsThatDescriptorsRanOut)
{
    // By a stream, and what is thrown is looked at later: the sanitizer takes descriptors of its
    // own to look at objects of a class that it has not met before.
    POFStream old(path_, "state");
    old << "old";
    old.close();
    const std::string reason = std::system_category().message(EMFILE);
    const std::vector<std::string> texts = {"Failed to open directory: " + path_ + ": " + reason,
                                            "Failed to open: state.tmp: " + reason};
    for (rlim_t more = 0; more < texts.size(); ++more) {
        const std::vector<int> before = quorval_test::open_descriptors();
        POFStream out(path_, "state");
        out << "new";
        std::exception_ptr error;
        {
            const ScopedLimit limit(RLIMIT_NOFILE, next_descriptor() + more);
            try {
                out.close();
            } catch (...) {
                error = std::current_exception();
            }
        }

        EXPECT_EQ(what_of([&] { std::rethrow_exception(error); }), texts[more]);
        EXPECT_EQ(names(), "state ");
        EXPECT_EQ(read_file(file_), "old");

        for (const int descriptor : quorval_test::open_descriptors()) {
            if (!std::binary_search(before.begin(), before.end(), descriptor)) {
                ::close(descriptor);
            }
        }
    }
}

TEST_F(POFStreamClose, ReportsANameThatIsTooLong)
{
    const std::string name(255, 'x');
    POFStream out(path_, name);

    const std::string text = what_of([&] { out.close(); });

    EXPECT_EQ(text,
              "Failed to open: " + name + ".tmp: " + std::system_category().message(ENAMETOOLONG));
    EXPECT_EQ(names(), "");
}

TEST_F(POFStreamClose, TakesTheLongestNameThatLeavesRoomForTheSuffix)
{
    const std::string name(251, 'x');
    POFStream out(path_, name);
    out << "new";

    out.close();

    EXPECT_EQ(read_file(path_ + name), "new");
}

TEST_F(POFStreamMove, TakesTheTargetAndLeavesTheContent)
{
    POFStream source(path_, "state");
    source << "content";

    POFStream target(std::move(source));

    EXPECT_EQ(target.rdbuf(), nullptr);
    EXPECT_EQ(content_of(source), "content");
    target.close();
    EXPECT_EQ(read_file(file_), "");
    source.close();
    EXPECT_EQ(read_file(file_), "content") << "the names were copied";
}

TEST_F(POFStreamMove, ExchangesTheStateOfTheStreams)
{
    std::ostringstream tied;
    POFStream source(path_, "state");
    source.tie(&tied);
    source.fill('*');
    source << std::hex << std::setprecision(3);
    const int slot = std::ios_base::xalloc();
    source.iword(slot) = 42;
    source.setf(std::ios::boolalpha | std::ios::showbase | std::ios::uppercase | std::ios::unitbuf);
    source.unsetf(std::ios::skipws);
    source.width(7);
    source.setstate(std::ios::eofbit);
    const std::ios::fmtflags flags = source.flags();
    const std::ios::fmtflags flags_of_a_new_stream = std::ostream(nullptr).flags();

    const POFStream target(std::move(source));

    EXPECT_EQ(target.tie(), &tied);
    EXPECT_EQ(target.fill(), '*');
    EXPECT_EQ(target.flags(), flags);
    EXPECT_EQ(target.width(), 7);
    EXPECT_EQ(target.precision(), 3);
    EXPECT_EQ(const_cast<POFStream&>(target).iword(slot), 42);
    EXPECT_EQ(target.rdstate(), std::ios::eofbit);
    EXPECT_EQ(source.tie(), nullptr);
    EXPECT_EQ(source.fill(), ' ');
    EXPECT_EQ(source.flags(), flags_of_a_new_stream);
    EXPECT_EQ(source.width(), 0);
    EXPECT_EQ(source.precision(), 6);
    EXPECT_EQ(source.iword(slot), 0);
    EXPECT_EQ(source.rdstate(), std::ios::badbit) << "that of a stream without a buffer";
}

TEST_F(POFStreamMove, SourceLosesTextThatIsWrittenBeforeItIsOpened)
{
    POFStream source(path_, "state");
    source << "one ";
    const POFStream target(std::move(source));

    source << "lost";
    source.close();

    EXPECT_EQ(read_file(file_), "one ");
}

TEST_F(POFStreamMove, TakesTheExceptionMaskAlong)
{
    POFStream source(path_, "state");
    source.exceptions(std::ios::badbit);

    const POFStream target(std::move(source));

    EXPECT_EQ(target.exceptions(), std::ios::badbit);
    EXPECT_EQ(source.exceptions(), std::ios::goodbit);
}

TEST_F(POFStreamMove, TargetCarriesDataOnceItIsOpened)
{
    POFStream source(path_, "state");
    source << "left behind";
    POFStream target(std::move(source));

    target.open("state", std::ios::out);
    target << "new";
    target.close();

    EXPECT_EQ(read_file(file_), "new");
}

TEST_F(POFStreamMove, OfAClosedStreamHasNoTarget)
{
    POFStream source(path_, "state");
    source.close();

    POFStream target(std::move(source));

    expect_throw<std::runtime_error>([&] { target.close(); }, "Failed due to unset path");
}

TEST_F(POFStreamMove, SourceCanBeDestroyedFirst)
{
    auto source = std::make_unique<POFStream>(path_, "state");
    POFStream target(std::move(*source));
    source.reset();

    target.open("state", std::ios::out);
    target << "new";
    target.close();

    EXPECT_EQ(read_file(file_), "new");
}

TEST_F(POFStreamMove, SourceCarriesDataAgainOnceItIsOpened)
{
    POFStream source(path_, "state");
    source << "one ";
    const POFStream target(std::move(source));

    source.open("state", std::ios::out);
    source << "two";
    source.close();

    EXPECT_EQ(read_file(file_), "one two");
}

// The buffer of the new stream is not attached until open().
TEST_F(POFStreamMove, TargetRefusesAConfigurationInsteadOfCrashing)
{
    POFStream source(path_, "state");
    POFStream target(std::move(source));
    Quorval::BlockConfiguration config;
    config.set("gain", 0.5);

    EXPECT_NO_THROW(target << Quorval::BlockConfiguration()) << "writes nothing";
    try {
        target << config;
        ADD_FAILURE() << "threw nothing";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Failed to write 8 bytes to output stream! Wrote 0");
    }

    target.close();
    EXPECT_EQ(read_file(file_), "");
}
