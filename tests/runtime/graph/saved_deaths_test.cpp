// What the next start finds when a process is killed while it saves changes.
#include "core/store/system_calls.h"
#include "graph/saved.h"
#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::dies;
using quorval_test::GraphFiles;
using quorval_test::SystemCalls;

namespace {

using Values = std::vector<int>;

std::vector<Assignment> to_assignments(const Values& values)
{
    return {{"a", {"x", values[0], false, {}, {}, {}, true}},
            {"b", {"y", values[1], false, {}, {}, {}, true}}};
}

const Values kNone = {1, 2};  // those of the file
const Values kOld = {3, 4};
const Values kNew = {5, 6};
const Values kNext = {7, 8};

/// A graph whose state directory is there already, with what was saved before, or is not.
class SavingDeath : public testing::TestWithParam<bool> {
protected:
    SavingDeath()
    {
        files_.write("g.toml",
                     "format = 1\n"
                     "blocks.a = { type = \"running:Tell\", config.x = 1 }\n"
                     "blocks.b = { type = \"running:Tell\", config.y = 2 }\n");
    }

    bool has_old_file() const { return GetParam(); }

    void save(const std::string& directory, const Values& values) const
    {
        write_saved(files_.path(directory), to_assignments(values));
    }

    /// As a process that dies before or after the call of that number finds the directory.
    void prepare(const std::string& directory) const
    {
        if (has_old_file()) {
            save(directory, kOld);
        }
    }

    /// The values of a graph that is started now.
    Values start(const std::string& directory) const
    {
        GraphOptions options = files_.options();
        options.state_directory = files_.path(directory);
        const LoadedGraph graph = load_graph(options, nullptr);
        return {graph.blocks[0].config.getInt("x", 0), graph.blocks[1].config.getInt("y", 0)};
    }

    std::vector<std::string> files_in(const std::string& directory) const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(files_.path(directory))) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::vector<std::string> calls_of_saving() const
    {
        prepare("watched");
        SystemCalls calls;
        save("watched", kNew);
        return calls.made();
    }

    GraphFiles files_;
};

void die_at(std::size_t number, std::size_t here)
{
    if (number == here) {
        ::raise(SIGKILL);
    }
}

/// The number of the first call whose text begins so; that of the calls where there is none.
std::size_t find_call(const std::vector<std::string>& calls, const std::string& begin)
{
    const auto found = std::find_if(calls.begin(), calls.end(), [&](const std::string& call) {
        return call.rfind(begin, 0) == 0;
    });
    return static_cast<std::size_t>(found - calls.begin());
}

TEST_P(SavingDeath, LeavesTheOldChangesOrTheNewOnesWhole)
{
    const std::vector<std::string> calls = calls_of_saving();
    const std::size_t rename = find_call(calls, "rename(");
    ASSERT_LT(rename, calls.size());

    for (std::size_t here = 0; here < calls.size(); ++here) {
        for (const bool is_before : {true, false}) {
            SCOPED_TRACE((is_before ? "before " : "after ") + calls[here]);
            const std::string directory = std::to_string(here) + (is_before ? "b" : "a");
            prepare(directory);

            const bool is_dead = dies([&] {
                SystemCalls watched;
                const auto hook = [here](std::size_t number) { die_at(number, here); };
                is_before ? watched.before_each(hook) : watched.after_each(hook);
                save(directory, kNew);
            });

            const bool is_replaced = here > rename || (here == rename && !is_before);
            EXPECT_TRUE(is_dead);
            EXPECT_EQ(start(directory), is_replaced ? kNew : has_old_file() ? kOld : kNone);
            save(directory, kNext);
            EXPECT_EQ(start(directory), kNext);
            EXPECT_EQ(files_in(directory), (std::vector<std::string>{"a", "b", "overrides"}));
        }
    }
}

TEST_P(SavingDeath, InTheMiddleOfTheWriteLeavesTheOldChanges)
{
    const std::vector<std::string> calls = calls_of_saving();
    const std::size_t write = find_call(calls, "write(file");
    ASSERT_LT(write, calls.size());
    prepare("state");

    const bool is_dead = dies([&] {
        SystemCalls watched;
        watched.shorten(write, 20);
        watched.after_each([write](std::size_t number) { die_at(number, write); });
        save("state", kNew);
    });

    EXPECT_TRUE(is_dead);
    EXPECT_EQ(start("state"), has_old_file() ? kOld : kNone);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutAFile, SavingDeath, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& with_file) {
                             return with_file.param ? "OldFile" : "NoFile";
                         });

}  // namespace
