#include "description/file.h"

#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ios>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using Quorval::runtime::GraphFile;
using Quorval::runtime::Interrupted;
using Quorval::runtime::IPatience;
using Quorval::runtime::is_refused_for_root;
using quorval_test::NoDescriptors;
using quorval_test::NoStandardInput;
using quorval_test::open_descriptors;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

namespace {

TEST(RefusedForRoot, IsWhatOthersMayWriteTo)
{
    struct Case {
        mode_t mode;
        gid_t group;
        bool is_open;  // to others
    };
    const std::vector<Case> cases = {
        {0644, 0, false}, {0600, 7, false}, {0755, 7, false}, {0664, 0, false}, {0664, 7, true},
        {0620, 7, true},  {0646, 0, true},  {0602, 0, true},  {01777, 0, true}, {0, 7, false},
    };
    for (const Case& one : cases) {
        struct stat status {};
        status.st_mode = S_IFREG | one.mode;
        status.st_gid = one.group;
        EXPECT_EQ(is_refused_for_root(status), one.is_open && ::geteuid() == 0)
            << std::oct << one.mode << ", group " << one.group;
    }
}

/// A pipe with a name whose writer is this test.
class NamedPipe {
public:
    NamedPipe()
    {
        EXPECT_EQ(::mkfifo(path().c_str(), S_IRUSR | S_IWUSR), 0);
        writer_ = ::open(path().c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_GE(writer_, 0);
    }
    NamedPipe(const NamedPipe&) = delete;
    NamedPipe& operator=(const NamedPipe&) = delete;
    ~NamedPipe() { close(); }

    std::string path() const { return directory_.store_path() + "pipe"; }

    void write(const std::string& text) const
    {
        EXPECT_EQ(::write(writer_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    void close()
    {
        if (writer_ >= 0) {
            ::close(writer_);
        }
        writer_ = -1;
    }

private:
    TemporaryDirectory directory_;
    int writer_ = -1;
};

/// Writes a part whenever the reader would have to wait, then closes.
class Writer final : public IPatience {
public:
    Writer(NamedPipe& pipe, std::vector<std::string> parts) : pipe_(pipe), parts_(std::move(parts))
    {
    }

    bool wait_readable(int fd) override
    {
        EXPECT_GE(fd, 0);
        if (next_ < parts_.size()) {
            pipe_.write(parts_[next_]);
        } else {
            pipe_.close();
        }
        ++next_;
        return true;
    }

    std::size_t count() const { return next_; }

private:
    NamedPipe& pipe_;
    std::vector<std::string> parts_;
    std::size_t next_ = 0;
};

TEST(GraphFileTest, WaitsForTheWriterOfAPipeUntilItIsClosed)
{
    NamedPipe pipe;
    Writer writer(pipe, {"o", "ne, ", std::string(20'000, 'x'), ", two"});

    GraphFile file(pipe.path());
    EXPECT_EQ(file.read(&writer), "one, " + std::string(20'000, 'x') + ", two");
    EXPECT_EQ(file.error(), "");
    EXPECT_EQ(writer.count(), 5U);
}

TEST(GraphFileTest, WaitsForAWriterByItself)
{
    NamedPipe pipe;
    GraphFile file(pipe.path());
    std::thread writer([&pipe] {
        pipe.write("text");
        pipe.close();
    });

    EXPECT_EQ(file.read(), "text");
    writer.join();
}

TEST(GraphFileTest, ReadsWhateverFailedBefore)
{
    const TemporaryDirectory directory;
    const std::string path = directory.store_path() + "file";
    write_file(path, "x");
    for (const int error : {EINTR, EAGAIN, EIO}) {
        GraphFile file(path);
        errno = error;
        EXPECT_EQ(file.read(), "x") << error;
        EXPECT_EQ(file.error(), "") << error;
    }
}

TEST(GraphFileTest, TellsWhyItCannotBeOpened)
{
    const TemporaryDirectory directory;
    const std::string path = directory.store_path() + "file";
    write_file(path, "x");
    const NoDescriptors none;

    EXPECT_EQ(GraphFile(path).error(), "Too many open files");
}

TEST(GraphFileTest, IsGivenUpWhenPatienceEnds)
{
    struct Impatient final : IPatience {
        bool wait_readable(int /*fd*/) override { return false; }
    } impatient;
    const NamedPipe pipe;
    GraphFile file(pipe.path());

    EXPECT_THROW(file.read(&impatient), Interrupted);
}

TEST(GraphFileTest, LeavesNoDescriptorOpen)
{
    const TemporaryDirectory directory;
    const std::string path = directory.store_path() + "file";
    write_file(path, "text");
    const std::vector<int> before = open_descriptors();

    EXPECT_EQ(GraphFile(path).read(), "text");
    EXPECT_EQ(GraphFile("/dev/null").error(), "not a regular file");

    EXPECT_EQ(open_descriptors(), before);
}

TEST(GraphFileTest, MayHaveTheFirstDescriptor)
{
    const TemporaryDirectory directory;
    const std::string path = directory.store_path() + "file";
    write_file(path, "text");
    const NoStandardInput none;
    {
        GraphFile file(path);
        EXPECT_TRUE(none.is_taken());
        EXPECT_EQ(file.error(), "");
        EXPECT_EQ(file.read(), "text");
    }

    EXPECT_FALSE(none.is_taken());
}

}  // namespace
