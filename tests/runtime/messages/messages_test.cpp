#include <quorval/runtime/messages.h>
#include "messages/context.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

using namespace Quorval;
using Quorval::runtime::ContextScope;
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

TEST(Messages, GoToStandardErrorWhenTheJournalIsAnotherFile)
{
    const ScopedEnvironment environment("JOURNAL_STREAM", "1:2");
    const Messages messages;

    EXPECT_EQ(written_by([] { logger(LOGLEVEL_ERROR, "here"); }), "quorval: error: here\n");
}

TEST(Messages, DoNotGoToStandardErrorWhenThatIsTheJournal)
{
    EXPECT_EQ(written_by([] {
                  struct stat status = {};
                  ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
                  const ScopedEnvironment environment(
                      "JOURNAL_STREAM",
                      std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino));
                  Messages messages;
                  messages.set_graph("loudness");
                  logger(LOGLEVEL_ERROR, "elsewhere");
              }),
              "");
}

}  // namespace
