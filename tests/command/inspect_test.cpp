#include "command/command_test.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;
using quorval_test::Process;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;

const std::string kDirectory = QUORVAL_TEST_PLUGIN_DIR;

class Inspect : public CommandTest {
protected:
    /// `quorval inspect` without what depends on the compiler and the place.
    ProcessResult inspect(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "inspect");
        ProcessResult result = run(arguments);
        result.out = std::regex_replace(result.out, std::regex("(compiler +|version +).*"), "$1*");
        return result;
    }

    /// The only plug-in of the JSON.
    json inspect_json(std::vector<std::string> arguments, int status = 0) const
    {
        arguments.insert(arguments.begin(), {"inspect", "--json"});
        const ProcessResult result = run(arguments);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.err, "");
        json plugins = json::parse(result.out)["plugins"];
        EXPECT_EQ(plugins.size(), 1U);
        return plugins.at(0);
    }

    static std::string head_of(const std::string& name)
    {
        return name + "\n    file              " + kDirectory + "/" + name +
               ".so\n"
               "    interface         0\n"
               "    standard library  libstdc++\n"
               "    compiler          *\n"
               "    version           *\n";
    }
};

TEST_F(Inspect, ListsAllPluginsWithTheirTypes)
{
    const auto path_of = [](const std::string& name) {
        return name + "  " + kDirectory + "/" + name + ".so\n";
    };
    expect_result(
        inspect({}), 0,
        path_of("crashes") +
            "    plug-in 'crashes' crashed while it was loaded: signal 11 (SIGSEGV)\n\n" +
            path_of("exits") + "    plug-in 'exits' called exit while it was loaded\n\n" +
            path_of("needs") + "    plug-in 'needs' cannot be loaded: " + kDirectory +
            "/needs.so: undefined symbol: quorval_test_nobody_has_this\n\n" + path_of("numbers") +
            "    Count\n    Double\n    Interrupt\n    Odd\n    Print\n\n" + path_of("shapes") +
            "    Crash\n    Exit\n    Full   Has a bit of everything.\n    Plain\n    Super\n\n" +
            path_of("trouble") + "    Trouble\n",
        "");
}

TEST_F(Inspect, ListsTheFirstOfPluginsWithOneName)
{
    std::filesystem::copy_file(kDirectory + "/numbers.so", directory() + "/shapes.so");
    std::filesystem::copy_file(kDirectory + "/numbers.so", directory() + "/not a name.so");
    ProcessOptions options = command({"inspect", "--plugin-path", directory() + ":nowhere"});
    options.environment.emplace_back("QUORVAL_PLUGIN_DIR", std::nullopt);

    expect_result(run_process(options), 0,
                  "shapes  " + directory() +
                      "/shapes.so\n    Count\n    Double\n    Interrupt\n    Odd\n"
                      "    Print\n",
                  "");
}

TEST_F(Inspect, ShowsPortsAndSettings)
{
    expect_result(inspect({"shapes", "Full", "--set", "count=3"}), 0,
                  head_of("shapes") +
                      "\n"
                      "Full\n"
                      "    Has a bit of everything.\n"
                      "    inputs\n"
                      "        in  double\n"
                      "    outputs\n"
                      "        out  string\n"
                      "    descriptors\n"
                      "        event  extfd\n"
                      "    settings\n"
                      "        factor  double, default 1.0, from -1000.0 to 1000.0, live\n"
                      "                what samples are multiplied by\n"
                      "        count   int, required\n"
                      "                how many\n"
                      "        mode    string, default \"linear\", one of linear, dB\n"
                      "                how\n"
                      "        taps    DoubleVector, default [0.1, 0.5], of 1 to 4 items\n"
                      "                of the filter\n"
                      "    D-Bus\n"
                      "        /full  org.example.Full\n",
                  "");
}

TEST_F(Inspect, ShowsATypeThatCannotBeMade)
{
    const ProcessResult result = inspect({"shapes", "Plain"});

    expect_result(result, 0,
                  head_of("shapes") +
                      "\nPlain\n"
                      "    block 'Plain' cannot be created: BlockConfiguration::getString failed, "
                      "the parameter 'path' does not exist\n",
                  "");
}

TEST_F(Inspect, PrintsJson)
{
    const json plugin = inspect_json({"shapes", "Full", "--set=count=3", "--set", "taps=[1, 0.5]"});

    EXPECT_EQ(plugin["name"], "shapes");
    EXPECT_EQ(plugin["file"], kDirectory + "/shapes.so");
    EXPECT_EQ(plugin["note"]["standard_library"], "libstdc++");
    EXPECT_FALSE(plugin.contains("problem"));
    const json settings = json::parse(R"([
        {"key": "factor", "type": "double", "default": 1.0, "minimum": -1000.0, "maximum": 1000.0,
         "required": false, "live": true, "text": "what samples are multiplied by"},
        {"key": "count", "type": "int", "required": true, "live": false, "text": "how many"},
        {"key": "mode", "type": "string", "default": "linear", "choices": ["linear", "dB"],
         "required": false, "live": false, "text": "how"},
        {"key": "taps", "type": "DoubleVector", "default": [0.1, 0.5], "minimum_items": 1,
         "maximum_items": 4, "required": false, "live": false, "text": "of the filter"}])");
    EXPECT_EQ(plugin["types"],
              json::array({{{"type", "Full"},
                            {"summary", "Has a bit of everything."},
                            {"inports", {{"in", "double"}}},
                            {"outports", {{"out", "string"}}},
                            {"fdports", {{"event", "extfd"}}},
                            {"settings", settings},
                            {"dbus", {{{"path", "/full"}, {"interface", "org.example.Full"}}}}}}));
}

TEST_F(Inspect, WritesJsonAsPeopleReadIt)
{
    const std::string out =
        run({"inspect", "--json", "--plugin-path", kDirectory + "/schema", "declares", "All"}).out;

    EXPECT_EQ(out, json::parse(out).dump(2) + "\n");
    EXPECT_NE(out.find("\"any text: gr\u00f6\u00dfer\""), std::string::npos);
}

TEST_F(Inspect, TellsInJsonThatATypeHasNoSettings)
{
    const auto settings_of = [this](const std::string& type) {
        return inspect_json({"--plugin-path", kDirectory + "/schema", "declares", type})["types"][0]
            .value("settings", json());
    };
    EXPECT_EQ(settings_of("Modest"), json::array());
    EXPECT_EQ(settings_of("Plain"), json());
}

TEST_F(Inspect, KeepsItsOutputFreeOfWhatBlocksWrite)
{
    const ProcessResult result =
        run({"inspect", "--json", "--set=where=constructor", "--set=what=say", "trouble"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("{\n", 0), 0U) << result.out;
    EXPECT_EQ(result.err.rfind("said by ", 0), 0U) << result.err;
}

TEST_F(Inspect, MakesNoBlocksForTheList)
{
    const ProcessResult result = run({"inspect", "--set=where=constructor", "--set=what=say"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

TEST_F(Inspect, CanBeInterruptedWhereABlockHangs)
{
    Process process(command({"inspect", "--set=where=constructor", "--set=what=hang", "trouble"}));
    ASSERT_TRUE(process.wait_for("hanging\n"));

    process.send(SIGINT);
    const ProcessResult result = process.wait();  // both ends: the child is gone too

    EXPECT_EQ(result.signal, SIGINT);
}

TEST_F(Inspect, ShowsAllTypesInJsonThoughOneCrashes)
{
    const json plugin = inspect_json({"shapes"}, 3);

    ASSERT_EQ(plugin["types"].size(), 5U);
    EXPECT_EQ(plugin["types"][0],
              (json{{"type", "Crash"},
                    {"problem", "block 'Crash' crashed in create: signal 11 (SIGSEGV)"}}));
    EXPECT_EQ(plugin["types"][2]["problem"], "'count' is missing");
}

TEST_F(Inspect, NamesWhatIsWrongWithSettings)
{
    const auto problem_of = [this](const std::vector<std::string>& more) {
        std::vector<std::string> arguments = {"shapes", "Full"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return inspect_json(arguments)["types"][0]["problem"].get<std::string>();
    };
    EXPECT_EQ(problem_of({}), "'count' is missing");
    EXPECT_EQ(problem_of({"--set=count=1", "--set=factor=2000"}),
              "'factor' has to be from -1000 to 1000, not 2000");
    EXPECT_EQ(problem_of({"--set=mode=log"}),
              "'count' is missing; 'mode' has to be one of linear, dB, not 'log'");
    EXPECT_EQ(problem_of({"--set=count=1", "--set=facto=2"}),
              "block type 'shapes:Full' has no setting 'facto'; did you mean 'factor'?");
}

TEST_F(Inspect, GivesEachOfSeveralTypesTheSettingsThatItDeclares)
{
    const json plugin = inspect_json({"shapes", "--set=count=3", "--set=path=x"}, 3);

    EXPECT_FALSE(plugin["types"][2].contains("problem"));
    EXPECT_FALSE(plugin["types"][3].contains("problem"));
}

TEST_F(Inspect, ShowsTheNoteOfAPluginThatCannotBeUsed)
{
    expect_result(inspect({"crashes"}), 3, head_of("crashes"),
                  "quorval: error: plug-in 'crashes' crashed while it was loaded: "
                  "signal 11 (SIGSEGV)\n");
    expect_result(inspect({"exits"}), 3, head_of("exits"),
                  "quorval: error: plug-in 'exits' called exit while it was loaded\n");
    expect_result(inspect({"needs"}), 3, head_of("needs"),
                  "quorval: error: plug-in 'needs' cannot be loaded: " + kDirectory +
                      "/needs.so: undefined symbol: quorval_test_nobody_has_this\n");
}

TEST_F(Inspect, RefusesAPluginOfAnotherInterface)
{
    std::string bytes = quorval_test::read_file(kDirectory + "/numbers.so");
    const std::string interface = R"("interface": 0)";
    const std::size_t at = bytes.find(interface);
    ASSERT_NE(at, std::string::npos);
    bytes[at + interface.size() - 1] = '5';
    write("other.so", bytes);

    const json plugin = inspect_json({"--plugin-path", directory(), "other"}, 3);
    EXPECT_EQ(plugin["note"]["interface"], 5);
    EXPECT_EQ(plugin["problem"],
              "plug-in 'other' cannot be loaded: it was built for interface 5 with libstdc++, and "
              "this is interface 0 with libstdc++");
    write("g.toml", "format = 1\nblocks.a.type = \"other:Print\"\n");
    for (const std::string command : {"run", "check", "graph"}) {
        expect_result(run({command, "--plugin-path", directory(), "g.toml"}), 3, "",
                      "g.toml:2:17: error: " + plugin["problem"].get<std::string>() + "\n");
    }
}

TEST_F(Inspect, NamesWhatIsNotThere)
{
    const ProcessResult missing = run({"inspect", "nobody"});
    EXPECT_EQ(missing.status, 3);
    EXPECT_EQ(missing.out, "");
    const std::string begin = "quorval: error: there is no plug-in 'nobody' in " + kDirectory + ":";
    EXPECT_EQ(missing.err.substr(0, begin.size()), begin);

    expect_result(inspect({"numbers", "Nothing"}), 3, head_of("numbers"),
                  "quorval: error: plug-in 'numbers' has no block type 'Nothing'; "
                  "it has Count, Double, Interrupt, Odd, Print\n");
}

TEST_F(Inspect, RefusesWrongUse)
{
    expect_wrong_use(run({"inspect", "a", "b", "c"}), "'c' is too much");
    expect_wrong_use(run({"inspect", "./numbers.so"}),
                     "'./numbers.so' is not a valid name (letters, digits, '_' and '-')");
    expect_wrong_use(run({"inspect", ""}), "'' is not a valid name (letters, digits, '_' and '-')");
    expect_wrong_use(run({"inspect", "--set", "count"}), "'count' is not of the form KEY=VALUE");
    expect_wrong_use(run({"inspect", "--set", "=1"}), "'=1' is not of the form KEY=VALUE");
    expect_wrong_use(run({"inspect", "--set", "day=1979-05-27"}), "'day' is a date");
}

TEST_F(Inspect, WrapsAndColoursOnATerminal)
{
    ProcessOptions options = command({"inspect", "shapes", "Plain"});
    options.out_columns = 40;
    const std::string out = run_process(options).out;

    const std::string end =
        "\033[1mPlain\033[0m\n"
        "    \033[1;31mblock 'Plain' cannot be created:\033[0m\n"
        "    \033[1;31mBlockConfiguration::getString\033[0m\n"
        "    \033[1;31mfailed, the parameter 'path' does\033[0m\n"
        "    \033[1;31mnot exist\033[0m\n";
    ASSERT_GT(out.size(), end.size());
    EXPECT_EQ(out.substr(out.size() - end.size()), end);
    set_variable(options, "NO_COLOR", "1");
    EXPECT_EQ(run_process(options).out.find('\033'), std::string::npos);
}

}  // namespace
