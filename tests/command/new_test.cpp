#include "command.h"
#include "command/command_test.h"
#include "support/scopes.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_throw;
using quorval_test::expect_wrong_use;
using quorval_test::FileSizeLimit;
using quorval_test::read_file;
using quorval_test::ScopedWorkingDirectory;

class New : public CommandTest {
protected:
    fs::path path(const std::string& name) const { return fs::path(directory()) / name; }

    std::vector<std::string> list(const std::string& folder) const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(path(folder))) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(New, WritesAPluginOfTheName)
{
    expect_result(run({"new", "my-filter_2"}), 0,
                  "The plug-in is in the folder my-filter_2; its README.md says how it is built.\n",
                  "");

    const std::vector<std::string> files = {".gitignore",       "CMakeLists.txt",
                                            "README.md",        "my-filter_2.cpp",
                                            "my-filter_2.toml", "my-filter_2_test.cpp"};
    EXPECT_EQ(list("my-filter_2"), files);
    for (const std::string& file : files) {
        EXPECT_EQ(read_file(path("my-filter_2") / file).find('@'), std::string::npos) << file;
    }
    EXPECT_NE(read_file(path("my-filter_2/my-filter_2.toml")).find("\"my-filter_2:Smooth\""),
              std::string::npos);
}

TEST_F(New, LeavesWhatIsThereAlone)
{
    fs::create_directory(path("folder"));
    write("file", "content");

    expect_result(run({"new", "folder"}), 1, "", "quorval: error: 'folder' exists already\n");
    EXPECT_EQ(list("folder"), std::vector<std::string>());
    EXPECT_EQ(run({"new", "file"}).status, 1);
    EXPECT_EQ(read_file(path("file")), "content");
}

TEST_F(New, TakesAllLettersAndDigits)
{
    for (const char* name : {"a", "z", "A", "Z", "x-azAZ_09"}) {
        EXPECT_EQ(run({"new", name}).status, 0) << name;
    }
}

TEST_F(New, RefusesNamesThatAreNone)
{
    for (const char* name :
         {"9lives", "_x", "a b", "a/b", "a:b", "é", "..", "", "@", "[", "`", "{"}) {
        expect_wrong_use(run({"new", name}),
                         std::string("'") + name +
                             "' is not a valid name (a letter, then letters, digits, '_' and '-')");
    }
    expect_wrong_use(run({"new", "basic"}),
                     "'basic' is the name of a plug-in that comes with Quorval");
    EXPECT_EQ(list("."), std::vector<std::string>());
}

TEST_F(New, SaysWhyTheFolderCannotBeMade)
{
    const std::string name(300, 'a');

    expect_result(run({"new", name}), 1, "",
                  "quorval: error: '" + name + "' cannot be made: File name too long\n");
}

TEST_F(New, LeavesNothingWhenAFileCannotBeWritten)
{
    {
        const ScopedWorkingDirectory there(directory());
        const FileSizeLimit limit(100);
        expect_throw<std::system_error>(
            [] { new_command({"filters"}); },
            "'filters/CMakeLists.txt' cannot be written: File too large");
    }

    EXPECT_EQ(list("."), std::vector<std::string>());
}

TEST_F(New, RefusesWrongUse)
{
    expect_wrong_use(run({"new"}), "a name is missing");
    expect_wrong_use(run({"new", "a", "b"}), "'b' is too much");
}

}  // namespace
