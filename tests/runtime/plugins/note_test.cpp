#include "plugins/note.h"

#include <quorval/runtime/tools.h>
#include "plugins/plugin_set.h"
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <elf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

using Quorval::InitTools;
using Quorval::PluginNote;
using Quorval::runtime::parse_note;
using Quorval::runtime::PluginSet;
using quorval_test::LogLine;
using quorval_test::LogRecorder;
using quorval_test::TemporaryDirectory;

/// A plug-in that works, with a part of its file replaced by one of the same length.
class PluginNoteTest : public testing::Test {
protected:
    void write_plugin(const std::string& wanted, const std::string& replacement)
    {
        ASSERT_EQ(wanted.size(), replacement.size());
        std::string bytes =
            quorval_test::read_file(quorval_test::test_plugin_directory() + "/parts.so");
        std::size_t count = 0;
        for (std::size_t at = 0; (at = bytes.find(wanted, at)) != std::string::npos; ++count) {
            bytes.replace(at, wanted.size(), replacement);
        }
        ASSERT_GT(count, 0U) << wanted;
        quorval_test::write_file(file(), bytes);
    }

    /// Why it cannot be used; empty: it can.
    std::string load() const
    {
        const InitTools tools;
        PluginSet plugins({directory_.path()}, tools);
        return plugins.get("other").problem;
    }

    std::string file() const { return directory_.path() / "other.so"; }

private:
    TemporaryDirectory directory_;
};

/// How often a plug-in without a note was told of.
std::ptrdiff_t count_of_note(const LogRecorder& log)
{
    const std::string text = "plug-in 'other' has no note: what it was built with is not known";
    const LogLine line{LOGLEVEL_INFO, text, static_cast<int>(text.size())};
    return std::count(log.lines().begin(), log.lines().end(), line);
}

TEST_F(PluginNoteTest, IsReadWithoutLoading)
{
    write_plugin("g++ ", "xyz ");
    const std::optional<PluginNote> note = Quorval::read_plugin_note(file());

    ASSERT_TRUE(note);
    EXPECT_EQ(note->interface, 0);
    EXPECT_EQ(note->standard_library, "libstdc++");
    EXPECT_EQ(note->compiler.substr(0, 4), "xyz ");
    EXPECT_FALSE(note->version.empty());
}

TEST_F(PluginNoteTest, RefusesAnotherInterface)
{
    write_plugin(R"("interface": 0)", R"("interface": 7)");

    EXPECT_EQ(load(),
              "plug-in 'other' cannot be loaded: it was built for interface 7 with "
              "libstdc++, and this is interface 0 with libstdc++");
}

TEST_F(PluginNoteTest, RefusesAnotherStandardLibrary)
{
    write_plugin(R"("standard_library": "libstdc++")", R"("standard_library": "libc++"   )");

    EXPECT_EQ(load(),
              "plug-in 'other' cannot be loaded: it was built for interface 0 with "
              "libc++, and this is interface 0 with libstdc++");
}

TEST_F(PluginNoteTest, AcceptsAnotherCompiler)
{
    write_plugin("g++ ", "xyz ");
    const LogRecorder log(LOGLEVEL_INFO);

    EXPECT_EQ(load(), "");
    EXPECT_EQ(count_of_note(log), 0);
}

TEST_F(PluginNoteTest, TellsOfAPluginWithoutANote)
{
    write_plugin(".note.quorval", ".note.another");
    const LogRecorder log(LOGLEVEL_INFO);

    EXPECT_EQ(load(), "");
    EXPECT_EQ(count_of_note(log), 1);
}

TEST_F(PluginNoteTest, NamesAnotherMachine)
{
    write_plugin(".note.quorval", ".note.another");
    std::string bytes = quorval_test::read_file(file());
    const Elf64_Half machine = EM_S390;
    std::memcpy(bytes.data() + offsetof(Elf64_Ehdr, e_machine), &machine, sizeof machine);
    quorval_test::write_file(file(), bytes);

    const std::string problem = load();
    const std::string begin = "plug-in 'other' cannot be loaded: it was built for S/390, and this ";
    EXPECT_EQ(problem.substr(0, begin.size()), begin);
}

TEST_F(PluginNoteTest, DoesNotWaitForAPipe)
{
    ASSERT_EQ(::mkfifo(file().c_str(), S_IRUSR | S_IWUSR), 0);

    EXPECT_EQ(load(), "plug-in 'other' cannot be loaded: not a regular file");
}

TEST(ParseNote, ReadsWhatThereIs)
{
    const std::optional<PluginNote> note = parse_note(
        R"( {"version" : "2.0\"\\", "interface":12 ,"more": -1, "standard_library": "a", "compiler": ""} )");

    ASSERT_TRUE(note);
    EXPECT_EQ(note->interface, 12);
    EXPECT_EQ(note->standard_library, "a");
    EXPECT_EQ(note->compiler, "");
    EXPECT_EQ(note->version, "2.0\"\\");
}

TEST(ParseNote, RefusesWhatIsNone)
{
    for (const std::string text : {"",
                                   "{",
                                   "{}",
                                   "null",
                                   "[1]",
                                   R"({"interface"})",
                                   R"({"interface":})",
                                   R"({"interface": "})",
                                   R"({"interface": 0)",
                                   R"({"interface": 0} x)",
                                   R"({"interface": 0,})",
                                   R"({"interface": 99999999999999})",
                                   R"({"interface": --1})",
                                   R"({"interface": "zero"})",
                                   R"({"version": "0"})",
                                   R"({"a": "\)",
                                   R"({"a": "\n"})",
                                   R"({"interface": {"a": 0}})",
                                   R"({"interface": 1-1})",
                                   R"({"interface": -})",
                                   R"({"interface": 0 "a": 1})",
                                   R"({"interface": "0\\"})",
                                   R"({"a": "b\\"", "interface": 0})",
                                   R"({"interface": 0, "a": })",
                                   R"({"interface": 0, : 1})",
                                   R"({"interface": 0, "a": "\n"})"}) {
        EXPECT_FALSE(parse_note(text)) << text;
    }
}

}  // namespace
