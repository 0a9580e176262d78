#include <quorval/port.h>
#include "fake_updater.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace {

using Quorval::Datatype;
using Quorval::EventPort;
using Quorval::FDEvent;
using Quorval::FdPort;
using Quorval::Port;
using quorval_test::expect_throw;
using quorval_test::FakeUpdater;

static_assert(std::is_base_of_v<FdPort, EventPort>);
static_assert(sizeof(EventPort) == sizeof(FdPort), "it adds no data");

bool is_open(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

bool is_ready_to_read(int fd)
{
    pollfd request{fd, POLLIN, 0};
    return ::poll(&request, 1, 0) == 1 && (request.revents & POLLIN) != 0;
}

std::uint64_t read_count(int fd)
{
    std::uint64_t count = 0;
    EXPECT_EQ(::read(fd, &count, sizeof count), static_cast<ssize_t>(sizeof count));
    return count;
}

/// Frees the number of a standard descriptor for a test and puts the descriptor back.
class BorrowedNumber {
public:
    explicit BorrowedNumber(int number) : number_(number), saved_(::dup(number)) {}
    BorrowedNumber(const BorrowedNumber&) = delete;
    BorrowedNumber& operator=(const BorrowedNumber&) = delete;
    ~BorrowedNumber()
    {
        if (saved_ >= 0) {
            ::dup2(saved_, number_);
            ::close(saved_);
        } else {
            ::close(number_);
        }
    }

    /// Makes the number an event descriptor.
    void become_event_descriptor() const
    {
        const int fd = ::eventfd(0, 0);
        if (fd != number_) {
            ASSERT_EQ(::dup2(fd, number_), number_);
            ::close(fd);
        }
    }

private:
    int number_;
    int saved_;
};

template <class Action>
void expect_system_error(Action action, int code, const std::error_category& category,
                         const std::string& text)
{
    try {
        action();
        ADD_FAILURE() << "threw nothing, expected: " << text;
    } catch (const std::exception& error) {
        EXPECT_EQ(typeid(error), typeid(std::system_error));
        EXPECT_EQ(error.what(), text);
        const auto* system_error = dynamic_cast<const std::system_error*>(&error);
        ASSERT_NE(system_error, nullptr);
        EXPECT_EQ(system_error->code().value(), code);
        EXPECT_EQ(&system_error->code().category(), &category);
    }
}

TEST(EventPortConstruction, WaitsForItsDescriptorToBecomeReadable)
{
    const int fd = ::eventfd(0, 0);

    const EventPort port("wake", true, fd);

    EXPECT_EQ(port.get_name(), "wake");
    EXPECT_EQ(port.get_datatype(), Datatype("extfd"));
    EXPECT_EQ(port.get_fd(), fd);
    EXPECT_EQ(port.get_eventmask(), (FDEvent::EventMask{true, false}));
    EXPECT_EQ(port.get_value(), nullptr);
    EXPECT_EQ(port.get_event(), nullptr);
    EXPECT_FALSE(port.is_triggered());
}

TEST(EventPortConstruction, RefusesANegativeDescriptor)
{
    expect_throw<std::runtime_error>([] { EventPort port("wake", true, -1); },
                                     "Invalid fd supplied");
}

TEST(EventPortFire, MakesTheDescriptorReadable)
{
    EventPort port("wake", true, ::eventfd(0, 0));

    port.fire();

    EXPECT_TRUE(is_ready_to_read(port.get_fd()));
    EXPECT_EQ(read_count(port.get_fd()), 1U);
    EXPECT_FALSE(port.is_triggered());
}

TEST(EventPortFire, WritesTheNumberOneInEightBytes)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
    EventPort port("wake", true, ends[1]);

    port.fire();

    unsigned char bytes[16];
    ASSERT_EQ(::read(ends[0], bytes, sizeof bytes), 8);
    std::uint64_t number = 0;
    std::copy_n(bytes, sizeof number, reinterpret_cast<unsigned char*>(&number));
    EXPECT_EQ(number, 1U);
    ::close(ends[0]);
}

TEST(EventPortFire, ReportsTheErrnoOfTheFailedWrite)
{
    struct {
        const char* file;
        int flags;
        int error;
        const char* text;
    } const cases[] = {
        {"/dev/full", O_WRONLY, ENOSPC, "Failed to fire port: wake: No space left on device"},
        {"/dev/null", O_RDONLY, EBADF, "Failed to fire port: wake: Bad file descriptor"},
    };

    for (const auto& test : cases) {
        EventPort port("wake", true, ::open(test.file, test.flags));
        SCOPED_TRACE(test.file);

        expect_system_error([&] { port.fire(); }, test.error, std::system_category(), test.text);
        EXPECT_FALSE(port.is_triggered());
    }
}

TEST(EventPortFire, LeavesThePortUsableAfterAFailure)
{
    EventPort port("wake", true, ::eventfd(0, EFD_NONBLOCK));
    const std::uint64_t highest = UINT64_MAX - 1;
    ASSERT_EQ(::write(port.get_fd(), &highest, sizeof highest), 8);
    expect_system_error([&] { port.fire(); }, EAGAIN, std::system_category(),
                        "Failed to fire port: wake: Resource temporarily unavailable");
    ASSERT_EQ(read_count(port.get_fd()), highest);

    port.fire();

    EXPECT_EQ(read_count(port.get_fd()), 1U);
}

TEST(EventPortReset, DrainsTwoFiringsAtOnce)
{
    EventPort port("wake", true, ::eventfd(0, 0));
    port.fire();
    port.fire();
    port.trigger(true, false);

    port.reset(false);

    EXPECT_FALSE(is_ready_to_read(port.get_fd()));
    EXPECT_FALSE(port.is_triggered());
    EXPECT_TRUE(port.is_readable());
}

TEST(EventPortReset, ClearsTheTriggerWhateverForceAndPolicySay)
{
    for (const bool auto_reset : {false, true}) {
        for (const bool force : {false, true}) {
            EventPort port("wake", auto_reset, ::eventfd(0, 0));
            port.fire();
            port.trigger(true, false);
            Port& base = port;

            base.reset(force);

            EXPECT_FALSE(port.is_triggered()) << "auto_reset " << auto_reset << ", force " << force;
            EXPECT_FALSE(is_ready_to_read(port.get_fd()));
        }
    }
}

TEST(EventPortReset, LeavesTheDescriptorAloneWhenThePortIsNotTriggered)
{
    EventPort port("wake", true, ::eventfd(0, 0));
    port.fire();

    port.reset(true);

    EXPECT_TRUE(is_ready_to_read(port.get_fd()));
    EXPECT_FALSE(port.is_triggered());
}

TEST(EventPortReset, TakesAReadOfNothingForSuccess)
{
    EventPort port("wake", false, ::open("/dev/null", O_RDONLY));
    port.trigger(true, false);

    port.reset(false);

    EXPECT_FALSE(port.is_triggered());
}

TEST(EventPortReset, ReportsTheNegatedResultOfAFailedReadAsCode)
{
    EventPort port("wake", true, ::open("/dev/null", O_WRONLY));
    port.trigger(true, false);

    for (const bool force : {false, true}) {
        expect_system_error([&] { port.reset(force); }, 1, std::generic_category(),
                            "Failed to reset EventPort wake: Operation not permitted");
        EXPECT_TRUE(port.is_triggered());
    }
}

TEST(EventPortReset, LeavesThePortUsableAfterAFailure)
{
    EventPort port("wake", true, ::eventfd(0, EFD_NONBLOCK));
    port.trigger(true, false);
    expect_system_error([&] { port.reset(false); }, 1, std::generic_category(),
                        "Failed to reset EventPort wake: Operation not permitted");
    port.fire();

    port.reset(false);

    EXPECT_FALSE(port.is_triggered());
    EXPECT_FALSE(is_ready_to_read(port.get_fd()));
}

TEST(EventPortDestruction, ClosesTheDescriptor)
{
    const int fd = ::eventfd(0, 0);
    std::unique_ptr<Port> port = std::make_unique<EventPort>("wake", true, fd);

    port.reset();

    EXPECT_FALSE(is_open(fd));
}

TEST(EventPortDestruction, ClosesTheDescriptorBeforeItsRegistrationEnds)
{
    FakeUpdater updater;
    std::optional<bool> is_open_at_remove;
    updater.on_remove = [&](FDEvent& event) { is_open_at_remove = is_open(event.get_fd()); };
    const int fd = ::eventfd(0, 0);
    auto port = std::make_unique<EventPort>("wake", true, fd);
    port->set_event(std::make_unique<FDEvent>(fd, port->get_eventmask(), nullptr, updater));

    port.reset();

    EXPECT_EQ(updater.calls, std::vector<std::string>{"remove " + std::to_string(fd) + " r-"});
    EXPECT_EQ(is_open_at_remove, false);
}

TEST(EventPortDestruction, LeavesDescriptorZeroOpen)
{
    const BorrowedNumber zero(0);
    zero.become_event_descriptor();
    auto port = std::make_unique<EventPort>("wake", true, 0);
    port->fire();

    port.reset();

    EXPECT_TRUE(is_open(0));
    EXPECT_EQ(read_count(0), 1U);
}

TEST(EventPortDestruction, ClosesDescriptorOne)
{
    bool was_left_open = true;
    {
        const BorrowedNumber one(1);
        one.become_event_descriptor();

        std::make_unique<EventPort>("wake", true, 1).reset();

        was_left_open = is_open(1);
    }
    EXPECT_FALSE(was_left_open);
}

}  // namespace
