#include "loop/poller.h"

#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
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

TEST(Poller, HasNothingReadyBeforeAnythingIsWatched)
{
    Poller poller;

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

    const auto reading = poller.add(number, kReadable, 2);

    pipe.fill();
    EXPECT_THAT(ready_in(poller), UnorderedElementsAre("2 r"));
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

}  // namespace
