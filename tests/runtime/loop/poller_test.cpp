#include "loop/poller.h"

#include "runtime/loop/descriptors.h"
#include "support/allocations.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::is_readable;
using quorval_test::TemporaryDirectory;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

constexpr FDEvent::EventMask kNothing{false, false};
constexpr FDEvent::EventMask kReadable{true, false};
constexpr FDEvent::EventMask kWritable{false, true};
constexpr FDEvent::EventMask kBoth{true, true};

/// What is ready now, as "tag r", "tag w", "tag rw".
std::vector<std::string> ready_in(Poller& poller)
{
    std::vector<std::string> all;
    for (const Ready& ready : poller.wait(false)) {
        all.push_back(std::to_string(ready.tag) + " " + (ready.readable ? "r" : "") +
                      (ready.writable ? "w" : ""));
    }
    return all;
}

/// The two ends of a pipe.
struct Pipe {
    Pipe()
    {
        std::array<int, 2> ends = {};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
        read_end = ends[0];
        write_end = ends[1];
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        close_end(read_end);
        close_end(write_end);
    }

    static void close_end(int& end)
    {
        if (end >= 0) {
            ::close(end);
        }
        end = -1;
    }
    void fill() const { EXPECT_EQ(::write(write_end, "x", 1), 1); }

    int read_end = -1;
    int write_end = -1;
};

/// The descriptor of the one poller that there is. While it is readable, no wait would wait.
int find_set()
{
    return quorval_test::find_descriptor("[eventpoll]");
}

TEST(Poller, HasNothingReadyBeforeAnythingIsWatched)
{
    Poller poller;
    errno = EBADF;  // of whatever call before

    EXPECT_THAT(ready_in(poller), IsEmpty());
}

TEST(Poller, ReportsWhatIsReadyWithItsTag)
{
    Poller poller;
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kReadable, 7);
    const auto writing = poller.add(pipe.write_end, kWritable, 8);

    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("8 w"));
    pipe.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("7 r", "8 w"));
}

TEST(Poller, WaitsUntilSomethingIsReady)
{
    Poller poller;
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kReadable, 7);
    pipe.fill();

    EXPECT_EQ(poller.wait(true).size(), 1U);
}

TEST(Poller, EndsItsWaitForASignal)
{
    Poller poller;
    struct sigaction ignore = {};
    struct sigaction before = {};
    ignore.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &ignore, &before);
    std::atomic<bool> has_ended{false};
    const pthread_t waiting = ::pthread_self();
    std::thread thread([&] {
        while (!has_ended) {
            ::pthread_kill(waiting, SIGUSR1);
            std::this_thread::yield();
        }
    });

    EXPECT_THAT(poller.wait(true), IsEmpty());

    has_ended = true;
    thread.join();
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(Poller, SaysWhyItCannotWait)
{
    Poller poller;
    const int other = ::eventfd(0, EFD_CLOEXEC);
    const int set = find_set();
    const int kept = ::fcntl(set, F_DUPFD_CLOEXEC, 0);

    ::close(set);
    quorval_test::expect_throw<std::system_error>(
        [&] { poller.wait(false); },
        "cannot wait for descriptors, of which a block may have closed one that is not its own: "
        "Bad file descriptor");
    ::dup3(other, set, O_CLOEXEC);
    quorval_test::expect_throw<std::system_error>([&] { poller.wait(false); },
                                                  "cannot wait for descriptors: Invalid argument");

    ::dup3(kept, set, O_CLOEXEC);
    ::close(kept);
    ::close(other);
}

TEST(Poller, KeepsNothingInItsSetThatNobodyWaitsFor)
{
    Poller poller;
    Pipe pipe;
    Pipe other;
    const int set = find_set();
    auto reading = poller.add(pipe.read_end, kReadable, 1);
    pipe.fill();
    EXPECT_TRUE(is_readable(set));

    reading->change_fd(other.read_end);
    EXPECT_FALSE(is_readable(set));
    reading->change_fd(pipe.read_end);
    EXPECT_TRUE(is_readable(set));
    reading->change_mask(kNothing);
    EXPECT_FALSE(is_readable(set));
    reading->change_mask(kReadable);
    EXPECT_TRUE(is_readable(set));
    reading.reset();
    EXPECT_FALSE(is_readable(set));
}

TEST(Poller, ServesTwoOnOneDescriptor)
{
    Poller poller;
    std::array<int, 2> ends = {};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    auto first = poller.add(ends[0], kReadable, 1);
    auto second = poller.add(ends[0], kBoth, 2);

    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("2 w"));
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r", "2 rw"));
    second.reset();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
    first.reset();
    EXPECT_THAT(ready_in(poller), IsEmpty());
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(Poller, TakesARegularFileForAlwaysReady)
{
    const TemporaryDirectory directory;
    const int fd =
        ::open((directory.store_path() + "file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    Poller poller;
    auto event = poller.add(fd, kReadable, 1);

    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
    EXPECT_EQ(poller.wait(true).size(), 1U);
    event->change_mask(kBoth);
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 rw"));
    event->change_mask(kNothing);
    EXPECT_THAT(ready_in(poller), IsEmpty());
    event->change_mask(kWritable);
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 w"));
    event.reset();
    EXPECT_THAT(ready_in(poller), IsEmpty());
    ::close(fd);
}

TEST(Poller, FollowsAChangeOfTheMask)
{
    Poller poller;
    Pipe pipe;
    const auto writing = poller.add(pipe.write_end, kNothing, 1);
    EXPECT_THAT(ready_in(poller), IsEmpty());

    writing->change_mask(kWritable);
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 w"));
    writing->change_mask(kNothing);
    EXPECT_THAT(ready_in(poller), IsEmpty());
}

TEST(Poller, DoesNotReportAHangUpToAnEmptyMask)
{
    Poller poller;
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kNothing, 1);
    Pipe::close_end(pipe.write_end);

    EXPECT_THAT(ready_in(poller), IsEmpty());
}

TEST(Poller, TakesAHangUpForReadable)
{
    Poller poller;
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kReadable, 1);
    Pipe::close_end(pipe.write_end);

    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
}

TEST(Poller, TakesAnErrorForBoth)
{
    Poller poller;
    Pipe pipe;
    const auto writing = poller.add(pipe.write_end, kWritable, 1);
    Pipe::close_end(pipe.read_end);

    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 rw"));
}

TEST(Poller, ReportsNoMoreThanWhatIsReady)
{
    Poller poller;
    std::array<int, 2> ends = {};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
    const auto event = poller.add(ends[0], kBoth, 1);
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 rw"));

    while (::write(ends[0], "x", 1) == 1) {}  // until there is no room
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));

    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(Poller, FollowsAChangeOfTheDescriptor)
{
    Poller poller;
    Pipe first;
    Pipe second;
    const auto reading = poller.add(first.read_end, kReadable, 1);
    first.fill();

    reading->change_fd(second.read_end);

    EXPECT_THAT(ready_in(poller), IsEmpty());
    second.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
}

TEST(Poller, KeepsTheDescriptorWhenTheNewOneCannotBeWatched)
{
    Poller poller;
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kReadable, 1);
    pipe.fill();

    quorval_test::expect_throw<std::system_error>(
        [&] { reading->change_fd(1000000); },
        "cannot watch descriptor 1000000: Bad file descriptor");

    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
}

TEST(Poller, ForgetsADescriptorThatItCouldNotChangeTo)
{
    Poller poller;
    Pipe pipe;
    Pipe old;
    const int number = old.read_end;
    const auto reading = poller.add(pipe.read_end, kReadable, 1);
    Pipe::close_end(old.read_end);
    quorval_test::expect_throw<std::system_error>(
        [&] { reading->change_fd(number); },
        "cannot watch descriptor " + std::to_string(number) + ": Bad file descriptor");
    Pipe fresh;
    ASSERT_EQ(fresh.read_end, number);

    const auto other = poller.add(number, kReadable, 2);

    fresh.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("2 r"));
}

TEST(Poller, TakesThePlacesOfRegistrationsThatEnded)
{
    Poller poller;
    std::array<Pipe, 2> pipes;
    poller.add(pipes[0].read_end, kReadable, 1).reset();
    const auto before = quorval_test::live_bytes();
    for (int round = 0; round < 1000; ++round) {
        poller.add(pipes[0].read_end, kReadable, 1).reset();
    }
    EXPECT_EQ(quorval_test::live_bytes(), before);

    const auto first = poller.add(pipes[0].read_end, kReadable, 2);
    const auto second = poller.add(pipes[1].read_end, kReadable, 3);

    pipes[0].fill();
    pipes[1].fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("2 r", "3 r"));
}

TEST(Poller, RefusesADescriptorThatIsNotOpen)
{
    Poller poller;

    quorval_test::expect_throw<std::system_error>(
        [&] { poller.add(1000000, kReadable, 1); },
        "cannot watch descriptor 1000000: Bad file descriptor");

    EXPECT_THAT(ready_in(poller), IsEmpty());
}

TEST(Poller, BearsADescriptorThatIsClosedBeforeItsRegistrationEnds)
{
    Poller poller;
    Pipe pipe;
    auto reading = poller.add(pipe.read_end, kReadable, 1);
    pipe.fill();

    Pipe::close_end(pipe.read_end);

    EXPECT_THAT(ready_in(poller), IsEmpty());
    reading.reset();
}

TEST(Poller, WatchesANewFileUnderTheNumberOfAClosedOne)
{
    Poller poller;
    Pipe old;
    auto stale = poller.add(old.read_end, kReadable, 1);
    const int number = old.read_end;
    Pipe::close_end(old.read_end);
    Pipe fresh;
    ASSERT_EQ(fresh.read_end, number);

    const auto reading = poller.add(number, kReadable, 2);
    stale.reset();

    fresh.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("2 r"));
}

TEST(Poller, GetsRidOfAClosedDescriptorThatLivesOnInAnother)
{
    Poller poller;
    Pipe pipe;
    Pipe other;
    auto stale = poller.add(pipe.read_end, kReadable, 1);
    const auto reading = poller.add(other.read_end, kReadable, 2);
    const int copy = ::dup(pipe.read_end);
    pipe.fill();
    Pipe::close_end(pipe.read_end);
    stale.reset();

    poller.wait(false);

    EXPECT_THAT(ready_in(poller), IsEmpty());
    other.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("2 r"));
    ::close(copy);
}

TEST(Poller, WatchesTheOthersAnewWhereItGetsRidOfAClosedDescriptor)
{
    const TemporaryDirectory directory;
    const int file =
        ::open((directory.store_path() + "file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    for (const std::uint32_t stale : {0U, 1U, 2U}) {
        Poller poller;
        std::array<Pipe, 3> pipes;
        std::vector<std::unique_ptr<FDEvent>> events;
        std::vector<std::string> expected = {"9 r"};
        for (std::uint32_t tag = 0; tag < pipes.size(); ++tag) {
            events.push_back(poller.add(pipes[tag].read_end, kReadable, tag));
            pipes[tag].fill();
            if (tag != stale) {
                expected.push_back(std::to_string(tag) + " r");
            }
        }
        events.push_back(poller.add(file, kReadable, 9));
        const int copy = ::dup(pipes[stale].read_end);
        Pipe::close_end(pipes[stale].read_end);
        events[stale].reset();

        poller.wait(false);

        EXPECT_THAT(ready_in(poller), testing::UnorderedElementsAreArray(expected)) << stale;
        events.clear();
        EXPECT_FALSE(is_readable(find_set())) << stale;
        ::close(copy);
    }
    ::close(file);
}

TEST(Poller, WatchesAFileAgainThatIsBackUnderItsNumber)
{
    Poller poller;
    Pipe pipe;
    auto stale = poller.add(pipe.read_end, kReadable, 1);
    const int copy = ::dup(pipe.read_end);
    const int number = pipe.read_end;
    Pipe::close_end(pipe.read_end);
    stale.reset();
    pipe.read_end = ::dup2(copy, number);
    ::close(copy);

    auto reading = poller.add(number, kReadable, 2);

    pipe.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("2 r"));
    reading.reset();
    EXPECT_FALSE(is_readable(find_set()));
}

TEST(Poller, KeepsTheMaskWhenTheNewOneCannotBeWatched)
{
    Poller poller;
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kReadable, 1);
    const int number = pipe.read_end;
    Pipe::close_end(pipe.read_end);

    quorval_test::expect_throw<std::system_error>(
        [&] { reading->change_mask(kBoth); },
        "cannot watch descriptor " + std::to_string(number) + ": Bad file descriptor");

    EXPECT_EQ(reading->get_mask(), kReadable);
    // A socket that is ready for both gets the number.
    std::array<int, 2> ends = {};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    pipe.read_end = ends[0] == number ? number : ::dup2(ends[0], number);
    const auto other = poller.add(number, kReadable, 2);
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r", "2 r"));
    ::close(ends[1]);
    if (ends[0] != number) {
        ::close(ends[0]);
    }
}

TEST(Poller, BearsAChangeToTheSameDescriptor)
{
    Poller poller;
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kReadable, 1);

    reading->change_fd(pipe.read_end);

    pipe.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
}

TEST(Poller, HasReadyWhatTheCallbackOfARegistrationSays)
{
    Poller poller;
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kReadable, 1);
    const std::vector<Ready>& ready = poller.wait(false);
    ASSERT_THAT(ready, IsEmpty());

    reading->get_callback()(true, false);

    ASSERT_EQ(ready.size(), 1U);
    EXPECT_EQ(ready[0].tag, 1U);
    EXPECT_TRUE(ready[0].readable);
    EXPECT_FALSE(ready[0].writable);
}

TEST(Poller, KnowsARegistrationThatWasMoved)
{
    Poller poller;
    Pipe pipe;
    auto reading = poller.add(pipe.read_end, kWritable, 1);
    {
        FDEvent moved(std::move(*reading));
        reading.reset();
        moved.change_mask(kReadable);
        pipe.fill();
        EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
    }

    EXPECT_THAT(ready_in(poller), IsEmpty());
}

TEST(Poller, ReportsAllThatIsReadyAtOnce)
{
    Poller poller;
    std::vector<std::unique_ptr<Pipe>> pipes;
    std::vector<std::unique_ptr<FDEvent>> events;
    for (std::uint32_t tag = 0; tag < 100; ++tag) {
        pipes.push_back(std::make_unique<Pipe>());
        events.push_back(poller.add(pipes.back()->read_end, kReadable, tag));
        pipes.back()->fill();
    }

    EXPECT_EQ(ready_in(poller).size(), 100U);
}

/// With the number 0 for the next descriptor that is opened.
class PollerAtZero : public testing::Test {
private:
    quorval_test::NoStandardInput none_;
};

TEST_F(PollerAtZero, MayHaveItsSetThere)
{
    Poller poller;
    ASSERT_EQ(find_set(), 0);
    Pipe pipe;
    const auto reading = poller.add(pipe.read_end, kReadable, 1);

    pipe.fill();

    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
}

TEST_F(PollerAtZero, WatchesADescriptorThere)
{
    Pipe pipe;
    ASSERT_EQ(pipe.read_end, 0);
    Poller poller;
    Pipe other;
    auto reading = poller.add(pipe.read_end, kReadable, 1);
    auto stale = poller.add(other.read_end, kReadable, 2);
    const int copy = ::dup(other.read_end);
    other.fill();
    Pipe::close_end(other.read_end);
    stale.reset();
    poller.wait(false);  // makes a new set

    pipe.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("1 r"));
    reading.reset();
    EXPECT_THAT(ready_in(poller), IsEmpty());
    EXPECT_FALSE(is_readable(find_set()));
    ::close(copy);
}

}  // namespace
