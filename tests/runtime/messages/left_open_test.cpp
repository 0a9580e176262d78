#include "messages/left_open.h"

#include "loop/descriptor.h"
#include "messages/context.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

using namespace Quorval::runtime;
using quorval_test::expect_throw;
using quorval_test::LogRecorder;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

;

class LeftOpenTest : public testing::Test {
protected:
    /// Opens a file of the directory as an operation of a block does.
    std::unique_ptr<Descriptor> open(const char* path, const std::string& name)
    {
        const ContextScope scope(path, "start");
        auto opened = open(name);
        note_left_open();
        return opened;
    }

    /// Opens one where a block ends.
    std::unique_ptr<Descriptor> open_at_end(const char* path, const std::string& name)
    {
        auto opened = open(name);
        note_left_open_at_end(path);
        return opened;
    }

    std::unique_ptr<Descriptor> open(const std::string& name)
    {
        write_file(file(name), "");
        return std::make_unique<Descriptor>(::open(file(name).c_str(), O_RDONLY | O_CLOEXEC),
                                            "open");
    }

    /// The file of the loop once more, as the last of the first 64 numbers and behind it.
    std::array<Descriptor, 2> open_around_64() const
    {
        const auto copy = [this](int number) {
            return Descriptor(::fcntl(loop_.get(), F_DUPFD_CLOEXEC, number), "dup");
        };
        return {copy(63), copy(64)};
    }

    void expect_one_of_two_known() const
    {
        EXPECT_THAT(log_.texts(), ElementsAre("a block left a descriptor open: '/dev/null'",
                                              "block 'mixer' left a descriptor open: '/dev/null'"));
    }

    std::string file(const std::string& name) const { return directory_.path() / name; }

    LogRecorder log_;
    TemporaryDirectory directory_;
    std::optional<LeftOpen> watch_{true};
    // As that of the loop of a graph, it has the number that the first look itself used.
    Descriptor loop_{::open("/dev/null", O_RDONLY | O_CLOEXEC), "open"};
};

TEST_F(LeftOpenTest, AreToldBlockByBlock)
{
    const auto first = open("left/gain", "first");
    const auto other = open("mixer", "other");
    const auto second = open("left/gain", "second");

    watch_.reset();

    EXPECT_THAT(log_.texts(),
                ElementsAre("block 'left/gain' left 2 descriptors open, the first is '" +
                                file("first") + "'",
                            "block 'mixer' left a descriptor open: '" + file("other") + "'"));
}

TEST_F(LeftOpenTest, AreNotThoseThatWereClosedOrThereBefore)
{
    watch_.reset();
    const auto before = open("before");
    watch_.emplace(true);
    open("left/gain", "closed").reset();

    watch_.reset();

    EXPECT_THAT(log_.texts(), IsEmpty());
}

TEST_F(LeftOpenTest, HaveNoBlockWhereNobodyWasSeenToOpenThem)
{
    const auto opened = open("unseen");

    watch_.reset();

    EXPECT_THAT(log_.texts(),
                ElementsAre("a block left a descriptor open: '" + file("unseen") + "'"));
}

TEST_F(LeftOpenTest, HaveNoBlockWhereTheNumberStandsForAnotherFileByNow)
{
    auto opened = open("left/gain", "first");
    const int number = opened->get();
    opened.reset();
    const auto other = open("second");
    ASSERT_EQ(other->get(), number);

    watch_.reset();

    EXPECT_THAT(log_.texts(),
                ElementsAre("a block left a descriptor open: '" + file("second") + "'"));
}

TEST_F(LeftOpenTest, AreToldOfABlockThatFailedAlso)
{
    auto lower = open("lower");
    const ContextScope scope("mixer", "start");
    const auto kept = open("kept");
    lower.reset();
    note_left_open_of_failure();

    watch_.reset();

    EXPECT_THAT(log_.texts(),
                ElementsAre("block 'mixer' left a descriptor open: '" + file("kept") + "'"));
}

TEST_F(LeftOpenTest, AreToldOfABlockThatFailedAmongTheNext64Numbers)
{
    note_left_open();
    const auto lowest = open("lowest");
    const int number = lowest->get();
    const Descriptor last(::fcntl(number, F_DUPFD_CLOEXEC, number + 63), "dup");
    const Descriptor behind(::fcntl(number, F_DUPFD_CLOEXEC, number + 64), "dup");
    const ContextScope scope("mixer", "start");
    note_left_open_of_failure();

    watch_.reset();

    EXPECT_THAT(log_.texts(),
                ElementsAre("a block left a descriptor open: '" + file("lowest") + "'",
                            "block 'mixer' left 2 descriptors open, the first is '" +
                                file("lowest") + "'"));
}

TEST_F(LeftOpenTest, AreToldOfTheFirstBlockThatFailedAmongTheFirst64Numbers)
{
    const auto opened = open_around_64();
    const ContextScope scope("mixer", "start");
    note_left_open_of_failure();

    watch_.reset();

    expect_one_of_two_known();
}

TEST_F(LeftOpenTest, AreToldOfABlockAtItsEndWhereOthersBehindAHoleAreToo)
{
    watch_->guard(loop_.get());
    note_open_before_end();
    const auto first = open("first");
    auto hole = open("hole");
    const auto second = open("second");
    hole.reset();
    note_left_open_at_end("mixer");

    watch_.reset();

    EXPECT_THAT(log_.texts(), ElementsAre("block 'mixer' left 2 descriptors open, the first is '" +
                                          file("first") + "'"));
}

TEST_F(LeftOpenTest, AreToldWithoutABlockWhereNothingIsNotedAfterTheOperation)
{
    const auto seen = open("gain", "seen");
    watch_.reset();
    note_left_open();
    note_left_open_of_failure();

    EXPECT_THAT(log_.texts(),
                ElementsAre("block 'gain' left a descriptor open: '" + file("seen") + "'"));
}

TEST_F(LeftOpenTest, AreToldOfBlocksThatEndAlso)
{
    watch_->guard(loop_.get());
    auto first = open("left/gain", "first");
    const auto kept = open("mixer", "kept");
    auto hole = open("hole");
    const auto of_run = open("of run");
    hole.reset();
    note_open_before_end();
    first.reset();
    note_left_open_at_end("left/gain");
    const auto instead = open_at_end("meter", "instead");
    const auto next = open_at_end("meter", "next");

    watch_.reset();

    EXPECT_THAT(
        log_.texts(),
        ElementsAre("a block left a descriptor open: '" + file("of run") + "'",
                    "block 'meter' left 2 descriptors open, the first is '" + file("instead") + "'",
                    "block 'mixer' left a descriptor open: '" + file("kept") + "'"));
}

TEST_F(LeftOpenTest, AreNotToldOfABlockThatClosedThemBeforeAnotherOpensTheSame)
{
    watch_->guard(loop_.get());
    auto first = open("left/gain", "same");
    auto second = open("left/gain", "same");
    note_open_before_end();
    first.reset();
    second.reset();
    note_left_open_at_end("left/gain");
    first = open("same");
    second = open("same");
    note_left_open_at_end("meter");

    watch_.reset();

    EXPECT_THAT(log_.texts(), ElementsAre("block 'meter' left 2 descriptors open, the first is '" +
                                          file("same") + "'"));
}

TEST_F(LeftOpenTest, AreToldOfBlocksThatEndWhereNoDescriptorIsToBeHad)
{
    watch_->guard(loop_.get());
    note_open_before_end();
    const auto opened = open("kept");
    {
        const quorval_test::NoDescriptors none;
        note_left_open_at_end("mixer");
    }

    watch_.reset();

    EXPECT_THAT(log_.texts(),
                ElementsAre("block 'mixer' left a descriptor open: '" + file("kept") + "'"));
}

TEST_F(LeftOpenTest, AreToldOfBlocksThatEndAmongTheFirst64NumbersWhereNoDescriptorWasToBeHad)
{
    watch_->guard(loop_.get());
    {
        const quorval_test::NoDescriptors none;
        note_open_before_end();
    }
    const auto opened = open_around_64();
    note_left_open_at_end("mixer");

    watch_.reset();

    expect_one_of_two_known();
}

TEST_F(LeftOpenTest, AreToldAmongTheFirst64NumbersWhereNoDescriptorWasToBeHadForTheBlockBefore)
{
    watch_->guard(loop_.get());
    note_open_before_end();
    {
        const quorval_test::NoDescriptors none;
        note_left_open_at_end("gain");
    }
    const auto opened = open_around_64();
    note_left_open_at_end("mixer");

    watch_.reset();

    expect_one_of_two_known();
}

TEST_F(LeftOpenTest, LeaveStandardInputClosed)
{
    const quorval_test::NoStandardInput closed;
    watch_->guard(loop_.get());

    note_open_before_end();

    EXPECT_FALSE(closed.is_taken());
}

TEST_F(LeftOpenTest, AreNotWhatMessagesAreSentThrough)
{
    const Descriptor log(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");

    watch_.reset();

    EXPECT_THAT(log_.texts(), IsEmpty());
}

TEST_F(LeftOpenTest, AreOtherSocketsThanThoseOfMessages)
{
    const Descriptor stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const Descriptor network(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");

    watch_.reset();

    const std::string name = std::filesystem::read_symlink(
        "/proc/self/fd/" + std::to_string(std::min(stream.get(), network.get())));
    EXPECT_THAT(log_.texts(),
                ElementsAre("a block left 2 descriptors open, the first is '" + name + "'"));
}

TEST_F(LeftOpenTest, TellOnceThatOneWasClosedThatNoBlockHadAnyBusinessWith)
{
    auto guarded = open("guarded");
    watch_->guard(guarded->get());
    EXPECT_NO_THROW(note_left_open());
    guarded.reset();

    expect_throw<std::runtime_error>(note_left_open, "it closed a descriptor that is not its own");
    EXPECT_NO_THROW(note_left_open());
}

TEST_F(LeftOpenTest, AreToldOfABlockThatClosedAnotherOneAlso)
{
    auto guarded = open("guarded");
    watch_->guard(guarded->get());
    note_left_open();
    const ContextScope scope("mixer", "run");
    const auto kept = open("kept");
    guarded.reset();

    expect_throw<std::runtime_error>(note_left_open, "it closed a descriptor that is not its own");
    watch_.reset();

    EXPECT_THAT(log_.texts(),
                ElementsAre("block 'mixer' left a descriptor open: '" + file("kept") + "'"));
}

TEST_F(LeftOpenTest, AreNotLookedForAfterTheEnd)
{
    auto guarded = open("guarded");
    watch_->guard(guarded->get());
    watch_.reset();
    guarded.reset();

    EXPECT_NO_THROW(note_left_open());
}

TEST_F(LeftOpenTest, AreNotLookedForWhereNobodyAsksForThem)
{
    watch_.emplace(false);
    const auto opened = open("left/gain", "first");
    note_left_open_of_failure();
    note_open_before_end();
    note_left_open_at_end("left/gain");

    watch_.reset();

    EXPECT_THAT(log_.texts(), IsEmpty());
}

}  // namespace
