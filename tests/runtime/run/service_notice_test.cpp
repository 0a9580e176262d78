#include "run/service_notice.h"

#include "command/notify_socket.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

int interruptions = 0;  // of what is sent next

}  // namespace

// What the program defines goes before what the library has under the same name.
extern "C" ssize_t sendto(int fd, const void* data, size_t size, int flags,
                          const struct sockaddr* address, socklen_t length)
{
    if (interruptions > 0) {
        --interruptions;
        errno = EINTR;
        return -1;
    }
    return ::syscall(SYS_sendto, fd, data, size, flags, address, length);
}

using Quorval::runtime::ServiceNotice;
using quorval_test::NotifySocket;
using quorval_test::open_descriptors;
using quorval_test::ScopedEnvironment;
using quorval_test::TemporaryDirectory;
using namespace std::chrono_literals;

namespace {

class ServiceNoticeTest : public testing::Test {
protected:
    TemporaryDirectory directory_;
    std::string path_ = directory_.path() / "notify";
    NotifySocket socket_{path_};
    ScopedEnvironment socket_name_{"NOTIFY_SOCKET", path_};
    ScopedEnvironment no_time_{"WATCHDOG_USEC", std::nullopt};
    ScopedEnvironment no_process_{"WATCHDOG_PID", std::nullopt};
};

TEST_F(ServiceNoticeTest, TellsHowTheGraphIsGettingOn)
{
    ServiceNotice notice(true, 12);

    notice.tell_ready();
    EXPECT_EQ(socket_.take_present(), "READY=1\nSTATUS=running, 12 blocks");
    notice.tell_reloading(1'234'567ns);
    EXPECT_EQ(socket_.take_present(),
              "RELOADING=1\nMONOTONIC_USEC=1234\nSTATUS=reading its files again");
    notice.tell_stopping();
    EXPECT_EQ(socket_.take_present(), "STOPPING=1\nSTATUS=stopping");
    notice.keep_alive(1h);
    EXPECT_EQ(socket_.take_present(), "");
    EXPECT_FALSE(notice.next_time().has_value());
}

TEST_F(ServiceNoticeTest, TellsNothingWhereItIsSwitchedOff)
{
    const ScopedEnvironment time("WATCHDOG_USEC", "2000");
    ServiceNotice notice(false, 12);

    notice.tell_ready();
    notice.tell_reloading(1s);
    notice.tell_stopping();
    notice.keep_alive(1h);

    EXPECT_EQ(socket_.take_present(), "");
    EXPECT_FALSE(notice.next_time().has_value());
}

TEST_F(ServiceNoticeTest, ShowsThatItIsAliveAfterHalfTheTimeThatThereIs)
{
    const ScopedEnvironment time("WATCHDOG_USEC", "2000");
    const ScopedEnvironment process("WATCHDOG_PID", std::to_string(::getpid()));
    ServiceNotice notice(true, 1);
    EXPECT_FALSE(notice.next_time().has_value());
    notice.tell_ready();
    EXPECT_EQ(socket_.take_present(), "READY=1\nSTATUS=running, 1 blocks");

    ASSERT_TRUE(notice.next_time().has_value());
    EXPECT_LE(notice.next_time(), 1s);
    notice.keep_alive(1s);
    EXPECT_EQ(socket_.take_present(), "WATCHDOG=1");
    EXPECT_EQ(notice.next_time(), 1s + 1ms);
    notice.tell_ready();
    EXPECT_EQ(socket_.take_present(), "READY=1\nSTATUS=running, 1 blocks");
    EXPECT_EQ(notice.next_time(), 1s + 1ms);
    notice.keep_alive(1s + 1ms - 1ns);
    EXPECT_EQ(socket_.take_present(), "");
    notice.keep_alive(1s + 1ms);
    EXPECT_EQ(socket_.take_present(), "WATCHDOG=1");
}

/// How long a service may be silent, where the manager says so.
std::optional<std::chrono::nanoseconds> silence(const std::string& time,
                                                const std::string& process = "")
{
    const ScopedEnvironment time_name("WATCHDOG_USEC", time);
    const ScopedEnvironment process_name("WATCHDOG_PID", process);
    const ScopedEnvironment nobody("NOTIFY_SOCKET", std::nullopt);
    ServiceNotice notice(true, 1);
    notice.tell_ready();
    notice.keep_alive(1s);
    return notice.next_time() ? std::optional(*notice.next_time() - 1s) : std::nullopt;
}

TEST_F(ServiceNoticeTest, ReadsWhatTheManagerWaitsFor)
{
    const std::string mine = std::to_string(::getpid());

    EXPECT_EQ(silence("2"), 1us);
    EXPECT_EQ(silence("999999999999999", mine), 499'999'999'999'999us);
    for (const auto& [time, process] : std::vector<std::pair<std::string, std::string>>{
             {"2000", "1"},
             {"2000", "me"},
             {"", ""},
             {"0", ""},
             {"1", ""},
             {"2000 ", ""},
             {"-2000", ""},
             {"1000000000000000", ""},
             {"36893488147419104000", ""},
         }) {
        EXPECT_FALSE(silence(time, process).has_value()) << time << " " << process;
    }
}

TEST_F(ServiceNoticeTest, FindsASocketThatIsNoFileByANameThatFits)
{
    ServiceNotice notice(true, 1);
    const std::string name = path_ + std::string(108 - 1 - path_.size(), 'x');
    const std::string fits = name.substr(1);
    const NotifySocket fitting(std::string(1, '\0') + fits);
    const NotifySocket longer(std::string(1, '\0') + name);

    const ScopedEnvironment first("NOTIFY_SOCKET", "@" + fits);
    notice.tell_stopping();
    EXPECT_EQ(fitting.take_present(), "STOPPING=1\nSTATUS=stopping");

    for (const char* none : {"", "@", "/"}) {
        const ScopedEnvironment second("NOTIFY_SOCKET", none);
        notice.tell_stopping();
    }
    const ScopedEnvironment third("NOTIFY_SOCKET", "@" + name);
    notice.tell_stopping();
    EXPECT_EQ(longer.take_present(), "");
    EXPECT_EQ(fitting.take_present(), "");
}

TEST_F(ServiceNoticeTest, TakesTheLongestNameOfAFileThatFits)
{
    const quorval_test::ScopedWorkingDirectory there(directory_.path());
    const std::string file(107, 'x');
    const NotifySocket socket(file);
    ServiceNotice notice(true, 1);

    const ScopedEnvironment name("NOTIFY_SOCKET", file);
    notice.tell_stopping();

    EXPECT_EQ(socket.take_present(), "STOPPING=1\nSTATUS=stopping");
}

TEST_F(ServiceNoticeTest, TriesAgainWhenASignalComesBetween)
{
    interruptions = 2;
    ServiceNotice(true, 1).tell_stopping();

    EXPECT_EQ(interruptions, 0);
    EXPECT_EQ(socket_.take_present(), "STOPPING=1\nSTATUS=stopping");
    EXPECT_EQ(socket_.take_present(), "");
}

TEST_F(ServiceNoticeTest, LeavesNoDescriptorOpenAndNeedsNone)
{
    const std::vector<int> before = open_descriptors();
    const ServiceNotice notice(true, 1);
    notice.tell_stopping();
    {
        const ScopedEnvironment nobody("NOTIFY_SOCKET", path_ + "2");
        notice.tell_stopping();
    }
    {
        const quorval_test::NoDescriptors none;
        notice.tell_stopping();
    }

    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(socket_.take_present(), "STOPPING=1\nSTATUS=stopping");
    EXPECT_EQ(socket_.take_present(), "");
}

TEST_F(ServiceNoticeTest, TakesTheNumberOfStandardInputWhereThatIsClosed)
{
    const quorval_test::NoStandardInput none;

    ServiceNotice(true, 1).tell_stopping();

    EXPECT_EQ(socket_.take_present(), "STOPPING=1\nSTATUS=stopping");
}

}  // namespace
