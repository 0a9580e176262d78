// Changes that were kept for the next start.
#include "graph/saved.h"

#include <quorval/runtime/config_files.h>
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::expect_throw;
using quorval_test::GraphFiles;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

using Lines = std::vector<std::string>;

Assignment assignment(const std::string& path, const std::string& key, const Value& value)
{
    return {path, {key, value, false, {}, {}, {}, true}};
}

Lines names_in(const std::filesystem::path& directory)
{
    Lines names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST(SavedChanges, ComeBackAsTheyWere)
{
    const TemporaryDirectory directory;
    const std::string path = directory.store_path() + "a/state";
    const std::vector<Assignment> values = {
        assignment("b", "x", 1),
        assignment("b", "y.z", true),
        assignment("c/d", "x", 0.5),
        assignment("e", "s", std::string("text")),
        assignment("e", "t", std::vector<int>{1, 2}),
        assignment("e", "u", std::vector<double>{0.5}),
        assignment("e", "v", std::vector<std::string>{"a", "b"}),
        assignment("e", "w", std::vector<bool>{true, false}),
    };

    write_saved(path, values);
    const std::vector<Assignment> saved = read_saved(path + "/");

    ASSERT_EQ(saved.size(), values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(saved[i].path, values[i].path);
        EXPECT_EQ(saved[i].setting.key, values[i].setting.key);
        EXPECT_EQ(saved[i].setting.value, values[i].setting.value);
        EXPECT_TRUE(saved[i].setting.is_saved);
        EXPECT_FALSE(saved[i].setting.is_wrong);
    }
    EXPECT_EQ(names_in(path), Lines{"overrides"});
    const BlockConfiguration file = read_store_file(saved_file(path)).config;
    EXPECT_EQ(file.getString("block.0.path"), "b");
    EXPECT_TRUE(file.getBool("block.0.set.y.z"));
    EXPECT_EQ(file.getString("block.1.path"), "c/d");
    EXPECT_EQ(file.getString("block.2.path"), "e");
    EXPECT_EQ(file.getString("block.3.path", "none"), "none");
    write_saved(path, {});
    EXPECT_TRUE(read_saved(path).empty());
}

TEST(SavedChanges, LeaveNothingThatAnotherRunLeft)
{
    const TemporaryDirectory directory;
    for (const char* const name :
         {".overrides.12", ".overrides.12.tmp", "overrides.12", ".other"}) {
        write_file(directory.path() / name, "");
    }

    write_saved(directory.path(), {assignment("b", "x", 1)});

    EXPECT_EQ(names_in(directory.path()), (Lines{".other", "overrides", "overrides.12"}));
}

TEST(SavedChanges, TellWhyTheyCannotBeWritten)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path();
    write_file(directory.path() / "file", "");

    expect_throw<std::system_error>([&] { write_saved(path + "/file", {}); },
                                    path + "/file: Not a directory");
    std::filesystem::create_directory(directory.path() / "overrides");
    expect_throw<std::runtime_error>(
        [&] { write_saved(path, {}); },
        "the changes cannot be saved: block 'overrides' keeps its state in '" + path +
            "/overrides/'");
}

/// What is found in a graph of which this was saved.
Lines findings_with(GraphFiles& files, const std::vector<Assignment>& saved)
{
    write_saved(files.path("state"), saved);
    files.write("g.toml",
                "format = 1\nblocks.a = { type = \"parts:Gain\", config.factor = 1.5 }\n"
                "blocks.b = { type = \"parts:Declared\", config.needed = 1 }\n"
                "blocks.c = { type = \"parts:Late\", config.late = 1 }\n"
                "connections = [\"a.out -> a.in\"]\n");
    GraphOptions options = files.options();
    options.state_directory = files.path("state");
    options.assignments = {"c.late=3"};
    Lines lines = files.findings(options);
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const std::string& line) {
                                   return line.find("make a cycle") != std::string::npos;
                               }),
                lines.end());
    return lines;
}

TEST(SavedChanges, OfBlocksThatAreGoneAreWarnings)
{
    GraphFiles files;

    EXPECT_EQ(findings_with(
                  files, {assignment("a", "factor", 2.0),
                          assignment("b", "mode", std::string("down")), assignment("b", "needd", 4),
                          assignment("c", "lte", 5), assignment("d", "x", 1)}),
              (Lines{"state/overrides: warning: there is no block 'd'",
                     "state/overrides: warning: block type 'parts:Declared' has no setting "
                     "'needd'; did you mean 'needed'?",
                     "state/overrides: warning: key 'lte' is not read by block 'c'"}));
}

TEST(SavedChanges, ThatAreNotAllowedAreErrors)
{
    GraphFiles files;

    EXPECT_EQ(findings_with(files, {assignment("b", "needed", 12)}),
              (Lines{"state/overrides: error: 'needed' has to be from 1 to 9, not 12"}));
}

class SavedGraph : public testing::Test {
protected:
    SavedGraph()
    {
        files_.write("g.toml",
                     "format = 1\nblocks.a = { type = \"parts:Late\", config.late = 1 }\n"
                     "blocks.b = { type = \"parts:Late\", config.late = 1 }\n");
        options_ = files_.options();
        options_.state_directory = files_.path("state");
    }

    GraphFiles files_;
    GraphOptions options_;
};

TEST_F(SavedGraph, StandsBetweenFilesAndAssignments)
{
    write_saved(files_.path("state"), {assignment("a", "late", 2), assignment("b", "late", 2)});
    options_.assignments = {"b.late=3"};

    const LoadedGraph graph = load_graph(options_);

    EXPECT_EQ(graph.blocks[0].config.getInt("late", 0), 2);
    EXPECT_EQ(graph.blocks[1].config.getInt("late", 0), 3);
    EXPECT_EQ(graph.saved.size(), 2U);
    EXPECT_EQ(graph.saved_file, files_.path("state/overrides"));
    ASSERT_EQ(graph.reading->sources.size(), 3U);
    EXPECT_EQ(graph.reading->sources[2].name, files_.path("state/overrides"));
    EXPECT_TRUE(graph.reading->sources[2].is_assignment);
    EXPECT_EQ(graph.blocks[0].place.settings[0].setting->value_place, (Place{2, 0, 0}));
    EXPECT_EQ(graph.blocks[0].place.settings[0].setting->key_place, (Place{2, 0, 0}));
}

TEST_F(SavedGraph, IsTakenAsItsFilesAreWhenNothingRuns)
{
    write_saved(files_.path("state"), {assignment("a", "late", 2)});
    options_.is_dry = true;

    const LoadedGraph graph = load_graph(options_);

    EXPECT_EQ(graph.blocks[0].config.getInt("late", 0), 1);
    EXPECT_EQ(graph.reading->sources.size(), 1U);
}

TEST_F(SavedGraph, CannotBeLoadedWhereItIsDamaged)
{
    const std::string state = files_.path("state");
    write_saved(state, {assignment("a", "late", 2)});
    std::filesystem::resize_file(state + "/overrides", 30);

    const Lines lines = files_.findings(options_);
    ASSERT_EQ(lines.size(), 1U);
    const std::string begin = "state/overrides: error: the saved changes cannot be read: ";
    EXPECT_EQ(lines[0].substr(0, begin.size()), begin);
    std::filesystem::remove(state + "/overrides");
    std::filesystem::create_symlink("/dev/null", state + "/overrides");
    EXPECT_EQ(files_.findings(options_),
              Lines{"state/overrides: error: cannot read: not a regular file"});
}

}  // namespace
