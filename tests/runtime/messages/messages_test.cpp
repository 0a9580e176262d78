#include <quorval/runtime/messages.h>
#include "messages/context.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Entries = std::vector<std::vector<std::string>>;

/// What was sent to the journal, a list of fields for each entry.
Entries entries;
int answer = 0;  // of the journal
int empty_entries = 0;

/// How often what is written next is interrupted, once before anything was written and then behind
/// one byte.
int interruptions = 0;

}  // namespace

// What the program defines goes before what the library has under the same name.
extern "C" int sd_journal_sendv(const struct iovec* fields, int count)
{
    if (count == 0) {
        ++empty_entries;
        return -EINVAL;  // as the library does
    }
    if (answer < 0) {
        return answer;
    }
    std::vector<std::string>& entry = entries.emplace_back();
    for (int at = 0; at < count; ++at) {
        entry.emplace_back(static_cast<const char*>(fields[at].iov_base), fields[at].iov_len);
    }
    return 0;
}

extern "C" ssize_t write(int fd, const void* data, size_t size)
{
    if (interruptions == 0) {
        return ::syscall(SYS_write, fd, data, size);
    }
    if (--interruptions == 0) {
        return ::syscall(SYS_write, fd, data, 1);
    }
    errno = EINTR;
    return -1;
}

using namespace Quorval;
using Quorval::runtime::ContextScope;
using Quorval::runtime::loading_graph;
using quorval_test::LogRecorder;
using quorval_test::ScopedEnvironment;

namespace {

/// What `action` writes to standard error.
template <class Action>
std::string written_by(Action&& action)
{
    ::testing::internal::CaptureStderr();
    action();
    return ::testing::internal::GetCapturedStderr();
}

TEST(Messages, AreShownUpToTheThreshold)
{
    const Messages messages(LOGLEVEL_ERROR);

    EXPECT_EQ(written_by([] {
                  logger(LOGLEVEL_ERROR, "shown");
                  logger(LOGLEVEL_WARNING, "not shown");
              }),
              "quorval: error: shown\n");
}

TEST(Messages, AreWarningsAndWorseByDefault)
{
    const Messages messages;

    EXPECT_EQ(written_by([] {
                  logger(LOGLEVEL_WARNING, "shown");
                  logger(LOGLEVEL_INFO, "not shown");
              }),
              "quorval: warning: shown\n");
}

TEST(Messages, CarryThePathOfTheBlockThatIsAtWork)
{
    const Messages messages(LOGLEVEL_INFO);

    EXPECT_EQ(written_by([] {
                  const ContextScope scope("left/gain", "run");
                  ilog(LOGLEVEL_INFO) << "loud" << std::endl;
              }),
              "quorval: left/gain: loud\n");
}

TEST(Messages, GiveWayToTheFormerSinkInTheEnd)
{
    const LogRecorder recorder;
    {
        const Messages messages;
    }

    logger(LOGLEVEL_ERROR, "recorded");

    EXPECT_EQ(recorder.texts(), std::vector<std::string>{"recorded"});
}

TEST(Messages, OfSeveralThreadsStayWhole)
{
    const Messages messages;
    const std::string written = written_by([] {
        std::vector<std::thread> threads;
        for (int number = 0; number < 4; ++number) {
            threads.emplace_back([] {
                for (int at = 0; at < 100; ++at) {
                    const ContextScope scope("a", "run");
                    logger(LOGLEVEL_ERROR, "one\ntwo");
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });

    std::string expected;
    for (int at = 0; at < 400; ++at) {
        expected += "quorval: error: a: one\nquorval: error: a: two\n";
    }
    EXPECT_EQ(written, expected);
}

TEST(Messages, AreLostWhereStandardErrorIsClosed)
{
    const ScopedEnvironment environment("JOURNAL_STREAM", "1:2");
    const int kept = ::dup(STDERR_FILENO);
    ::close(STDERR_FILENO);
    const Messages messages;
    EXPECT_NO_THROW(logger(LOGLEVEL_ERROR, "lost"));
    ::dup2(kept, STDERR_FILENO);
    ::close(kept);

    EXPECT_EQ(written_by([] { logger(LOGLEVEL_ERROR, "here"); }), "quorval: error: here\n");
}

TEST(Messages, AreWholeWhereASignalInterruptsThem)
{
    const Messages messages;

    EXPECT_EQ(written_by([] {
                  interruptions = 2;
                  logger(LOGLEVEL_ERROR, "here");
              }),
              "quorval: error: here\n");
}

TEST(Messages, GoToStandardErrorWhenTheJournalIsAnotherFile)
{
    const ScopedEnvironment environment("JOURNAL_STREAM", "1:2");
    const Messages messages;

    EXPECT_EQ(written_by([] { logger(LOGLEVEL_ERROR, "here"); }), "quorval: error: here\n");
}

/// Standard error as the service manager leads it to the journal.
class JournalMessages : public testing::Test {
protected:
    JournalMessages()
    {
        ::testing::internal::CaptureStderr();
        struct stat status = {};
        if (::fstat(STDERR_FILENO, &status) != 0) {
            throw std::system_error(errno, std::generic_category(), "fstat");
        }
        environment.emplace("JOURNAL_STREAM",
                            std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino));
        entries.clear();
    }
    ~JournalMessages() override { EXPECT_EQ(::testing::internal::GetCapturedStderr(), ""); }

    std::optional<ScopedEnvironment> environment;
};

TEST_F(JournalMessages, HaveTheGraphAndTheBlockAsFields)
{
    Messages messages;

    logger(LOGLEVEL_ERROR, "early");
    loading_graph() = "next";
    logger(LOGLEVEL_ERROR, "at its creation");
    loading_graph() = nullptr;
    messages.set_graph("loudness");
    logger(LOGLEVEL_WARNING, "of the graph");
    {
        const ContextScope scope("left/gain", "run");
        logger(LOGLEVEL_ERROR, "too loud\nby far");
    }

    EXPECT_EQ(entries, (Entries{{"MESSAGE=early", "PRIORITY=3"},
                                {"MESSAGE=at its creation", "PRIORITY=3", "QUORVAL_GRAPH=next"},
                                {"MESSAGE=of the graph", "PRIORITY=4", "QUORVAL_GRAPH=loudness"},
                                {"MESSAGE=left/gain: too loud\nby far", "PRIORITY=3",
                                 "QUORVAL_GRAPH=loudness", "QUORVAL_BLOCK=left/gain"}}));
}

TEST(Messages, GoToStandardErrorWhereTheJournalDoesNotTakeThem)
{
    entries.clear();
    answer = -EMFILE;
    const std::string text = written_by([] {
        struct stat status = {};
        ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
        const ScopedEnvironment environment(
            "JOURNAL_STREAM", std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino));
        const Messages messages;
        logger(LOGLEVEL_ERROR, "here");
    });
    answer = 0;

    EXPECT_EQ(text, "quorval: error: here\n");
    EXPECT_EQ(entries, Entries());
}

// The library may be loaded by its first call, which must not wait for a thread that loads a
// plug-in.
TEST_F(JournalMessages, HaveTheLibraryOfTheJournalLoadedAhead)
{
    empty_entries = 0;

    const Messages messages;

    EXPECT_EQ(empty_entries, 1);
    EXPECT_EQ(entries, Entries());
}

TEST_F(JournalMessages, HaveThePrioritiesOfSyslog)
{
    const Messages messages(LOGLEVEL_DEBUG);

    for (int level = LOGLEVEL_FATAL; level <= LOGLEVEL_DEBUG; ++level) {
        logger(static_cast<loglevel>(level), "x");
    }

    Entries expected;
    for (const char* priority : {"1", "2", "3", "4", "6", "7"}) {
        expected.push_back({"MESSAGE=x", std::string("PRIORITY=") + priority});
    }
    EXPECT_EQ(entries, expected);
}

TEST_F(JournalMessages, AreThoseUpToTheThreshold)
{
    const Messages messages(LOGLEVEL_ERROR);

    logger(LOGLEVEL_WARNING, "not shown");

    EXPECT_EQ(entries, Entries());
}

}  // namespace
