#include "link/files.h"

#include "loop/descriptor.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

using Quorval::runtime::Descriptor;
using Quorval::runtime::expect_usable;
using Quorval::runtime::read_password;
using quorval_test::expect_throw;
using quorval_test::NoDescriptors;
using quorval_test::NoStandardInput;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

namespace {

class LinkFilesTest : public testing::Test {
protected:
    std::string path(const std::string& name) const { return directory_.path() / name; }

    TemporaryDirectory directory_;
};

TEST_F(LinkFilesTest, HaveAPasswordInTheirFirstLine)
{
    const std::string file = path("password");
    for (const char* text : {"secret", "secret\n", "secret\r\n", "secret\nmore\n"}) {
        write_file(file, text);

        EXPECT_EQ(read_password(file), "secret") << text;
    }
    write_file(file, "\nsecret\n");
    EXPECT_EQ(read_password(file), "");
}

TEST_F(LinkFilesTest, AreNotWaitedFor)
{
    const std::string fifo = path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string missing = path("missing");

    for (const auto& [file, why] :
         std::vector<std::pair<std::string, std::string>>{{fifo, "not a regular file"},
                                                          {"/dev/zero", "not a regular file"},
                                                          {path(""), "not a regular file"},
                                                          {missing, "No such file or directory"}}) {
        const std::string text = "cannot read '" + file + "': " + why;
        expect_throw<std::runtime_error>([&name = file] { expect_usable(name); }, text);
        expect_throw<std::runtime_error>([&name = file] { read_password(name); }, text);
    }
}

TEST_F(LinkFilesTest, AreNotOpenedWhereTheyAreNone)
{
    const std::string fifo = path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const Descriptor watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC), "inotify_init1");
    ASSERT_GE(::inotify_add_watch(watch.get(), fifo.c_str(), IN_OPEN), 0);

    expect_throw<std::runtime_error>([&] { expect_usable(fifo); },
                                     "cannot read '" + fifo + "': not a regular file");

    std::array<char, 1024> event{};
    EXPECT_EQ(::read(watch.get(), event.data(), event.size()), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LinkFilesTest, AreReadWithoutAStandardInput)
{
    const std::string file = path("password");
    write_file(file, "secret");
    const NoStandardInput none;

    EXPECT_EQ(read_password(file), "secret");
}

TEST_F(LinkFilesTest, AreReadWhateverFailedBefore)
{
    const std::string file = path("password");
    write_file(file, "secret");
    errno = EINTR;

    EXPECT_EQ(read_password(file), "secret");
}

TEST_F(LinkFilesTest, SayWhyTheyCannotBeOpenedOrRead)
{
    const std::string file = path("password");
    write_file(file, "secret");

    expect_throw<std::runtime_error>([] { read_password("/proc/self/mem"); },
                                     "cannot read '/proc/self/mem': Input/output error");
    const NoDescriptors none;
    expect_throw<std::runtime_error>([&] { expect_usable(file); },
                                     "cannot read '" + file + "': Too many open files");
}

TEST_F(LinkFilesTest, HavePasswordsOfLimitedSize)
{
    const std::string file = path("password");
    write_file(file, std::string(65536, 'x'));
    EXPECT_EQ(read_password(file).size(), 65536U);

    write_file(file, std::string(65537, 'x'));
    expect_throw<std::runtime_error>([&] { read_password(file); },
                                     "cannot read '" + file + "': more than 65536 bytes");
    write_file(file, "");
    expect_throw<std::runtime_error>([&] { read_password(file); },
                                     "cannot read '" + file + "': it is empty");
}

}  // namespace
