#include <quorval/config.h>
#include <quorval/pstore.h>
#include <quorval/state.h>
#include "command/command_test.h"

#include <filesystem>
#include <string>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;
using quorval_test::ProcessOptions;
using quorval_test::read_file;
using quorval_test::run_process;

class Config : public CommandTest {
protected:
    void store(const std::string& name, const BlockConfiguration& config) const
    {
        Quorval::PStore(directory() + "/").store(name, config);
    }

    BlockConfiguration load(const std::string& name) const
    {
        return Quorval::PStore(directory() + "/").load(name);
    }

    std::string content(const std::string& name) const
    {
        return read_file(directory() + "/" + name);
    }

    /// Cuts bytes off the end of a file.
    void cut(const std::string& name, std::size_t bytes) const
    {
        const std::string whole = content(name);
        write(name, whole.substr(0, whole.size() - bytes));
    }

    /// Expects that a file is wrong: status 3, and one line on standard error.
    void expect_wrong(const std::vector<std::string>& arguments, const std::string& line) const
    {
        expect_result(run(arguments), 3, "", line + "\n");
    }

    const BlockConfiguration state_ = {
        {"gain", 0.5}, {"name", "left \"1\""}, {"taps", {1, -2}}, {"x", {{"y", true}}}};
};

TEST_F(Config, IsShownInTheTextForm)
{
    store("state", state_);

    expect_result(run({"config", "show", "state"}), 0,
                  "BlockConfiguration:\n"
                  "gain (double) = 0.5\n"
                  "name (string) = left \"1\"\n"
                  "taps (IntVector) = {1, -2}\n"
                  "x.y (bool) = 1\n",
                  "");
}

TEST_F(Config, GivesSingleValues)
{
    store("state", state_);

    expect_result(run({"config", "get", "state", "gain"}), 0, "0.5\n", "");
    expect_result(run({"config", "get", "state", "name"}), 0, "\"left \\\"1\\\"\"\n", "");
    expect_result(run({"config", "get", "state", "name", "--raw"}), 0, "left \"1\"\n", "");
    expect_result(run({"config", "get", "--raw", "state", "taps"}), 0, "[1, -2]\n", "");
    expect_wrong({"config", "get", "state", "x"}, "state: error: there is no key 'x'");
    expect_wrong({"config", "get", "state", "gian2"}, "state: error: there is no key 'gian2'");
    expect_wrong({"config", "get", "state", "tabs"},
                 "state: error: there is no key 'tabs'; did you mean 'taps'?");
}

TEST_F(Config, IsSetToValuesOfToml)
{
    expect_result(run({"config", "set", "state", "a.b=0.5", "list=[1, 2]", "word=on the left",
                       "t={x=1, y='z'}"}),
                  0, "", "");
    EXPECT_EQ(load("state"), BlockConfiguration({{"a.b", 0.5},
                                                 {"list", {1, 2}},
                                                 {"word", "on the left"},
                                                 {"t", {{"x", 1}, {"y", "z"}}}}));

    expect_result(run({"config", "set", "state", "a.b=1", "a=2", "a=3"}), 0, "", "");
    EXPECT_EQ(load("state"), BlockConfiguration({{"a", 3},
                                                 {"a.b", 1},
                                                 {"list", {1, 2}},
                                                 {"word", "on the left"},
                                                 {"t", {{"x", 1}, {"y", "z"}}}}));
}

TEST_F(Config, StaysAsItIsWhenAnAssignmentIsWrong)
{
    store("state", state_);

    expect_wrong_use(run({"config", "set", "state", "gain=1", "taps"}),
                     "'taps' is not of the form KEY=VALUE");
    expect_wrong_use(run({"config", "set", "state", "gain=1", "taps=[]"}),
                     "'taps' is an empty list");
    expect_wrong_use(run({"config", "set", "state", "a b=1"}),
                     "Parameter name 'a b' not valid (should be [a-z0-9_.-]).");

    EXPECT_EQ(load("state"), state_);
}

TEST_F(Config, LosesKeysAndAllBelowThem)
{
    BlockConfiguration config = {{"a", {{"b", 1}, {"c", 2}}}, {"ab", 3}, {"x.a", 4}, {"z.a.b", 5}};
    config.set("a", 6);
    store("state", config);

    expect_result(run({"config", "unset", "state", "a", "z.a"}), 0, "", "");

    EXPECT_EQ(load("state"), BlockConfiguration({{"ab", 3}, {"x.a", 4}}));
    BlockConfiguration stops;
    stops.set("...", 1);
    store("stops", stops);
    expect_result(run({"config", "unset", "stops", "."}), 0, "", "");
    EXPECT_EQ(load("stops"), BlockConfiguration());
}

TEST_F(Config, KeepsValuesOfEachKindWhenAnotherOneGoes)
{
    const BlockConfiguration kept = {{"b", true},
                                     {"i", -3},
                                     {"d", 0.1},
                                     {"s", "text"},
                                     {"is", {1, 2}},
                                     {"ds", {0.5, 1.0}},
                                     {"ss", {"x", ""}},
                                     {"bs", {true, false}},
                                     {"none", std::vector<std::string>()}};
    store("state", kept + BlockConfiguration({{"gone", 1}}));

    expect_result(run({"config", "unset", "state", "gone"}), 0, "", "");

    EXPECT_EQ(load("state"), kept);
    EXPECT_EQ(run({"config", "show", "state"}).out,
              "BlockConfiguration:\n"
              "b (bool) = 1\n"
              "bs (BoolVector) = {1, 0}\n"
              "d (double) = 0.1\n"
              "ds (DoubleVector) = {0.5, 1}\n"
              "i (int) = -3\n"
              "is (IntVector) = {1, 2}\n"
              "none (StringVector) = {}\n"
              "s (string) = text\n"
              "ss (StringVector) = {x, }\n");
}

TEST_F(Config, StaysAsItIsWhenAKeyToRemoveIsMissing)
{
    store("state", state_);

    expect_wrong({"config", "unset", "state", "gain", "tap"},
                 "state: error: there is no key 'tap'; did you mean 'taps'?");

    EXPECT_EQ(load("state"), state_);
}

TEST_F(Config, IsComparedElementByElement)
{
    store("a", {{"gone", 1}, {"other", 1}, {"same", 2}, {"tiny", 0.1}});
    store("b", {{"new", "x"}, {"other", 1.0}, {"same", 2}, {"tiny", 0.10000000000000001}});
    store("c", {{"gone", 1}, {"other", 1}, {"same", 2}, {"tiny", 0.10000000000000002}});

    expect_result(run({"config", "diff", "a", "b"}), 1,
                  "-gone (int) = 1\n"
                  "+new (string) = \"x\"\n"
                  "-other (int) = 1\n"
                  "+other (double) = 1.0\n",
                  "");
    expect_result(run({"config", "diff", "a", "c"}), 1,
                  "-tiny (double) = 0.1\n"
                  "+tiny (double) = 0.10000000000000002\n",
                  "");
    expect_result(run({"config", "diff", "a", "a"}), 0, "", "");
    expect_wrong({"config", "diff", "a", "d"}, "d: error: cannot read: No such file or directory");
}

TEST_F(Config, IsExportedAsToml)
{
    store("state", state_);

    expect_result(run({"config", "export", "state"}), 0,
                  "gain = 0.5\n"
                  "name = \"left \\\"1\\\"\"\n"
                  "taps = [1, -2]\n"
                  "x.y = true\n",
                  "");
}

TEST_F(Config, NamesTheKeyThatCannotBeWrittenAsToml)
{
    store("lists", {{"a", 1}, {"x", {{"taps", std::vector<double>()}}}});
    store("texts", {{"a", 1}, {"x", "\xff"}});

    expect_wrong({"config", "export", "lists"}, "lists: error: 'x.taps' is an empty list");
    expect_wrong({"config", "export", "texts"}, "texts: error: 'x' is not UTF-8");
    expect_wrong({"config", "get", "texts", "x"}, "texts: error: 'x' is not UTF-8");
    expect_result(run({"config", "get", "--raw", "texts", "x"}), 0, "\xff\n", "");
}

TEST_F(Config, IsReplacedByAFileOfToml)
{
    store("state", {{"old", 1}});
    write("state.toml", "gain = 0.5\nname = 'left \"1\"'\ntaps = [1, -2]\n[x]\ny = true\n");

    expect_result(run({"config", "import", "state.toml", "state"}), 0, "", "");

    EXPECT_EQ(load("state"), state_);
}

TEST_F(Config, HasTheSameBytesAfterAnExportAndAnImport)
{
    store("state", state_);
    ProcessOptions pipe = command({"config", "export", "state"});
    pipe.command = {"sh", "-c", R"("$@" config export state | "$@" config import /dev/stdin copy)",
                    "sh"};
    const std::vector<std::string> program = command({}).command;
    pipe.command.insert(pipe.command.end(), program.begin(), program.end());

    expect_result(run_process(pipe), 0, "", "");

    EXPECT_EQ(content("copy"), content("state"));
}

TEST_F(Config, StaysAsItIsWhenTheTomlIsWrong)
{
    store("state", state_);
    write("state.toml", "gain = 0.5\ntaps = []\nwhen = 2020-01-01\n");

    expect_wrong({"config", "import", "state.toml", "state"},
                 "state.toml:2:8: error: 'taps' is an empty list\n"
                 "state.toml:3:8: error: 'when' is a date");
    expect_wrong({"config", "import", "none.toml", "state"},
                 "none.toml:1:1: error: cannot read: No such file or directory");

    EXPECT_EQ(load("state"), state_);
}

TEST_F(Config, ThatIsDamagedIsReadAsFarAsPossible)
{
    store("state", {{"a", 1}, {"b", "text"}});
    cut("state", 1);
    const std::string bytes = content("state");
    const std::string line =
        "state: error: the file is damaged: Failed to read 4 bytes from input "
        "stream! Read 3";

    expect_result(run({"config", "show", "state"}), 3, "BlockConfiguration:\na (int) = 1\n",
                  line + "\n");
    expect_result(run({"config", "export", "state"}), 3, "a = 1\n", line + "\n");
    expect_wrong({"config", "get", "state", "a"}, line);
    expect_wrong({"config", "set", "state", "a=2"}, line);
    expect_wrong({"config", "unset", "state", "a"}, line);
    expect_wrong({"config", "diff", "state", "state"}, line);
    EXPECT_EQ(content("state"), bytes);
}

TEST_F(Config, ThatIsDamagedIsSoWhereOutputCannotBeWritten)
{
    store("state", {{"a", 1}, {"b", "text"}});
    cut("state", 1);
    ProcessOptions options = command({"config", "show", "state"});
    options.out_file = "/dev/full";

    expect_result(run_process(options), 3, "",
                  "state: error: the file is damaged: Failed to read 4 bytes from input stream! "
                  "Read 3\n"
                  "quorval: error: cannot write to standard output: No space left on device\n");
}

TEST_F(Config, TellsOfBytesBehindTheLastRecord)
{
    store("state", {{"a", 1}});
    write("state", content("state") + "rest");

    expect_result(run({"config", "show", "state"}), 3, "BlockConfiguration:\na (int) = 1\n",
                  "state: error: the file is damaged: 4 bytes after the last whole record\n");
}

TEST_F(Config, ShowsNoControlCharactersOfADamagedKey)
{
    store("state", {{"key", 1}});
    std::string bytes = content("state");
    bytes[bytes.find('k')] = '\x1B';
    write("state", bytes);

    expect_result(
        run({"config", "show", "state"}), 3, "BlockConfiguration:\n",
        "state: error: the file is damaged: Parameter name '\\x1Bey' not valid (should be "
        "[a-z0-9_.-]).\n");
}

TEST_F(Config, KeepsTheSealOfAState)
{
    Quorval::PStore states(directory() + "/");
    Quorval::save_state(states, "state", {{"gain", 0.5}, {"old", 1}}, 3);

    expect_result(run({"config", "set", "state", "gain=0.25"}), 0, "", "");
    expect_result(run({"config", "unset", "state", "old"}), 0, "", "");

    EXPECT_EQ(Quorval::load_state(states, "state", 3), BlockConfiguration({{"gain", 0.25}}));
    EXPECT_EQ(Quorval::get_state_version(load("state")), 3);
}

TEST_F(Config, TellsThatAStateIsCut)
{
    Quorval::PStore states(directory() + "/");
    Quorval::save_state(states, "state", {{"gain", 0.5}, {"old", 1}});
    const std::string last = "\3" + std::string(7, '\0') + "old";
    write("state", content("state").substr(0, content("state").rfind(last)));

    expect_wrong({"config", "get", "state", "gain"},
                 "state: error: the file is damaged: it holds 1 of 2 elements");
}

TEST_F(Config, SaysWhichFileCannotBeReadOrWritten)
{
    std::filesystem::create_directory(directory() + "/folder");
    write("state.toml", "a = 1\n");

    for (const char* action : {"show", "export"}) {
        expect_wrong({"config", action, "none"},
                     "none: error: cannot read: No such file or directory");
    }
    expect_wrong({"config", "set", "folder", "a=1"},
                 "folder: error: cannot read: not a regular file");
    expect_result(run({"config", "import", "state.toml", "folder"}), 1, "",
                  "quorval: error: 'folder' cannot be written: not a regular file\n");
}

TEST_F(Config, RefusesWrongUse)
{
    expect_wrong_use(run({"config"}), "an action is missing; 'quorval config --help' lists them");
    expect_wrong_use(run({"config", "sho", "state"}), "unknown action 'sho'; did you mean 'show'?");
    expect_wrong_use(run({"config", "set", "state"}), "'config set' needs FILE KEY=VALUE...");
    expect_wrong_use(run({"config", "show", "state", "more"}), "'more' is too much");
    expect_wrong_use(run({"config", "get", "state", "a", "more"}), "'more' is too much");
    expect_wrong_use(run({"config", "diff", "a", "b", "more"}), "'more' is too much");
    expect_wrong_use(run({"config", "import", "a", "b", "more"}), "'more' is too much");
    expect_wrong_use(run({"config", "export", "a", "more"}), "'more' is too much");
    expect_wrong_use(run({"config", "show"}), "'config show' needs FILE");
    expect_wrong_use(run({"config", "get", "state"}), "'config get' needs FILE KEY");
    expect_wrong_use(run({"config", "unset", "state"}), "'config unset' needs FILE KEY...");
    expect_wrong_use(run({"config", "diff", "a"}), "'config diff' needs A B");
    expect_wrong_use(run({"config", "import", "a"}), "'config import' needs TOML FILE");
    expect_wrong_use(run({"config", "export"}), "'config export' needs FILE");
    expect_wrong_use(run({"config", "show", "--raw", "state"}),
                     "'--raw' is for 'config get' alone");
    expect_wrong_use(run({"config", "get", "--raww", "state", "a"}),
                     "unknown option '--raww'; did you mean '--raw'?");
}

TEST_F(Config, TellsHowItIsUsed)
{
    const auto result = run({"config", "--help"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.substr(0, result.out.find('\n')),
              "usage: quorval config ACTION [OPTION...] FILE...");
    EXPECT_NE(result.out.find("\n  set FILE KEY=VALUE...     set values;"), std::string::npos)
        << result.out;
    EXPECT_EQ(run({"config", "show", "--help"}).out, result.out);
}

}  // namespace
