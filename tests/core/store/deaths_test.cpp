// What a reader finds when a process dies while it stores, or has not finished yet.
#include <quorval/config.h>
#include <quorval/pstore.h>
#include "core/store/system_calls.h"
#include "support/support.h"

#include <csignal>
#include <filesystem>
#include <ios>
#include <optional>
#include <string>
#include <vector>

using Quorval::BlockConfiguration;
using Quorval::PStore;
using quorval_test::dies;
using quorval_test::SystemCalls;
using quorval_test::TemporaryDirectory;

namespace fs = std::filesystem;

namespace {

// Where some calls of a store stand: three of a check at construction, three of that in close(),
// and the commit. A left temporary file is removed by a fourth call of the first check.
constexpr std::size_t kUnlink = 3;
constexpr std::size_t kWrite = 8;
constexpr std::size_t kRename = 11;
constexpr std::size_t kCallCount = 14;

/// All types, so that a mix of two contents cannot read as either.
BlockConfiguration make_configuration(int seed)
{
    BlockConfiguration config;
    config.set("int", seed);
    config.set("bool", seed % 2 == 0);
    config.set("double", seed + 0.5);
    config.set("string", std::string(static_cast<std::size_t>(seed) * 1000, 's'));
    config.set("ints", std::vector<int>(static_cast<std::size_t>(seed) * 100, seed));
    config.set("doubles", std::vector<double>(static_cast<std::size_t>(seed) * 100, seed));
    config.set("strings", std::vector<std::string>(10, std::to_string(seed)));
    config.set("bools", std::vector<bool>(static_cast<std::size_t>(seed) * 10 + 1, true));
    return config;
}

void die_at(std::size_t number, std::size_t here)
{
    if (number == here) {
        ::raise(SIGKILL);
    }
}

enum class Moment { kBefore, kAfter };

class StoreDeath : public testing::TestWithParam<bool> {
protected:
    StoreDeath() : store_(directory_.store_path())
    {
        if (has_old_file()) {
            store_.store("state", old_);
        }
    }

    bool has_old_file() const { return GetParam(); }
    std::string temporary() const { return directory_.store_path() + "state.tmp"; }

    /// What a reader finds; nothing when there is no file.
    std::optional<BlockConfiguration> find()
    {
        try {
            return store_.load("state");
        } catch (const std::ios_base::failure&) {
            return std::nullopt;
        }
    }

    std::optional<BlockConfiguration> found_before() const
    {
        return has_old_file() ? std::optional(old_) : std::nullopt;
    }

    /// The calls of one store into a directory of its own that looks as this one does.
    std::vector<std::string> calls_of_a_store()
    {
        const TemporaryDirectory other;
        PStore store(other.store_path());
        SystemCalls calls;
        store.store("state", new_);
        return calls.made();
    }

    const BlockConfiguration old_ = make_configuration(3);
    const BlockConfiguration new_ = make_configuration(5);
    const BlockConfiguration next_ = make_configuration(7);
    const TemporaryDirectory directory_;
    PStore store_;
};

}  // namespace

TEST_P(StoreDeath, LeavesTheOldContentOrTheNewOneWhole)
{
    const std::vector<std::string> calls = calls_of_a_store();
    ASSERT_EQ(calls.size(), kCallCount);
    ASSERT_EQ(calls.at(kRename), "renameat(directory, state.tmp, directory, state)");

    for (std::size_t here = 0; here < calls.size(); ++here) {
        for (const Moment moment : {Moment::kBefore, Moment::kAfter}) {
            SCOPED_TRACE((moment == Moment::kBefore ? "before " : "after ") + calls[here]);
            fs::remove(directory_.store_path() + "state");
            if (has_old_file()) {
                store_.store("state", old_);
            }

            const bool is_dead = dies([&] {
                SystemCalls watched;
                const auto hook = [here](std::size_t number) { die_at(number, here); };
                if (moment == Moment::kBefore) {
                    watched.before_each(hook);
                } else {
                    watched.after_each(hook);
                }
                store_.store("state", new_);
            });

            const bool is_replaced =
                here > kRename || (here == kRename && moment == Moment::kAfter);
            EXPECT_TRUE(is_dead);
            EXPECT_EQ(find(), is_replaced ? std::optional(new_) : found_before());
            store_.store("state", next_);
            EXPECT_EQ(find(), next_);
            EXPECT_FALSE(fs::exists(temporary())) << "the next store cleans up";
        }
    }
}

TEST_P(StoreDeath, InTheMiddleOfTheWriteLeavesTheOldContent)
{
    ASSERT_EQ(calls_of_a_store().at(kWrite).substr(0, 12), "write(file, ");

    const bool is_dead = dies([&] {
        SystemCalls watched;
        watched.shorten(kWrite, 100);
        watched.after_each([](std::size_t number) { die_at(number, kWrite); });
        store_.store("state", new_);
    });

    EXPECT_TRUE(is_dead);
    EXPECT_EQ(fs::file_size(temporary()), 100U);
    EXPECT_EQ(find(), found_before());
    store_.store("state", next_);
    EXPECT_EQ(find(), next_);
    EXPECT_FALSE(fs::exists(temporary()));
}

TEST_P(StoreDeath, WhileALeftTemporaryFileIsRemovedChangesNoContent)
{
    for (const Moment moment : {Moment::kBefore, Moment::kAfter}) {
        SCOPED_TRACE(moment == Moment::kBefore ? "before" : "after");
        quorval_test::write_file(temporary(), "left");

        const bool is_dead = dies([&] {
            SystemCalls watched;
            const auto hook = [](std::size_t number) { die_at(number, kUnlink); };
            if (moment == Moment::kBefore) {
                watched.before_each(hook);
            } else {
                watched.after_each(hook);
            }
            store_.store("state", new_);
        });

        EXPECT_TRUE(is_dead);
        EXPECT_EQ(fs::exists(temporary()), moment == Moment::kBefore);
        EXPECT_EQ(find(), found_before());
    }
}

TEST_P(StoreDeath, OfAProcessThatWroteNothingYetLeavesEverythingAsItWas)
{
    const bool is_dead = dies([&] {
        Quorval::POFStream out = store_.ofstream("state");
        out << new_;
        ::raise(SIGKILL);
    });

    EXPECT_TRUE(is_dead);
    EXPECT_EQ(find(), found_before());
    EXPECT_FALSE(fs::exists(temporary()));
}

// The reader is let in at each call; the writer goes on afterwards.
TEST_P(StoreDeath, AReaderInBetweenFindsTheOldContentOrTheNewOneWhole)
{
    std::vector<std::optional<BlockConfiguration>> found;
    SystemCalls calls;
    calls.before_each([&](std::size_t) { found.push_back(find()); });

    store_.store("state", new_);

    ASSERT_EQ(found.size(), kCallCount);
    for (std::size_t number = 0; number < found.size(); ++number) {
        EXPECT_EQ(found[number], number > kRename ? std::optional(new_) : found_before())
            << "before " << calls.made()[number];
    }
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutAFile, StoreDeath, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& with_file) {
                             return with_file.param ? "OldFile" : "NoFile";
                         });
