// What can be wrong with a graph, beside its connections: the whole line of each finding.
#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using Quorval::GraphOptions;
using quorval_test::expect_throw;
using quorval_test::GraphFiles;
using quorval_test::ScopedEnvironment;
using quorval_test::TemporaryDirectory;
using quorval_test::test_plugin_directory;

using Lines = std::vector<std::string>;

namespace {

/// A text from line 2 on, and what is found.
struct Case {
    std::string text;
    Lines lines;
};

void expect_findings(const std::vector<Case>& cases)
{
    for (const Case& one : cases) {
        GraphFiles files;
        EXPECT_EQ(files.findings_for(one.text), one.lines) << one.text;
    }
}

/// What is wrong with a value in the configuration of a block that does not read it.
Lines findings_for_value(const std::string& value)
{
    GraphFiles files;
    return files.findings_for("blocks.a.type = \"parts:Ports\"\nblocks.a.config.p.q = " + value);
}

/// The findings of a block of a type, where the type stands in line 2, column 14.
Lines findings_for_type(const std::string& type)
{
    GraphFiles files;
    return files.findings_for("[blocks]\na.type = \"" + type + "\"");
}

Lines findings_with(const Lines& assignments)
{
    GraphFiles files;
    files.write("g.toml", R"(format = 1
blocks.left.type = "channel"
superblocks.channel.blocks.gain.type = "parts:Ports"
)");
    GraphOptions options = files.options();
    options.assignments = assignments;
    return files.findings(options);
}

}  // namespace

// --- files ---

TEST(FileProblems, TellWhyAFileCannotBeRead)
{
    GraphFiles files;

    EXPECT_EQ(files.findings({"nowhere.toml"}),
              (Lines{"nowhere.toml:1:1: error: cannot read: No such file or directory"}));
}

TEST(FileProblems, AreWrongUseWhereThereIsNoFile)
{
    GraphFiles files;

    expect_throw<std::invalid_argument>([&] { files.findings(Lines()); }, "there is no graph file");
}

TEST(FileProblems, TellThatSomethingIsNoFile)
{
    GraphFiles files;
    const std::string socket_path = files.path("socket");
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{AF_UNIX, {}};
    socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    EXPECT_EQ(files.findings({"", "socket"}),
              (Lines{":1:1: error: cannot read: not a regular file",
                     "socket:1:1: error: cannot read: not a regular file"}));
    GraphOptions options = files.options({});
    options.files = {"/dev/null"};
    EXPECT_EQ(files.findings(options),
              (Lines{"/dev/null:1:1: error: cannot read: not a regular file"}));
    ::close(fd);
}

TEST(FileProblems, TellThatReadingFails)
{
    GraphFiles files;
    GraphOptions options = files.options({});
    options.files = {"/proc/self/mem"};

    EXPECT_EQ(files.findings(options),
              (Lines{"/proc/self/mem:1:1: error: cannot read: Input/output error"}));
}

TEST(FileProblems, StandAtTheEntryOfAnIncludedFile)
{
    GraphFiles files;
    files.write("sub/g.toml", "format = 1\ninclude = [\"../x.toml\", \".\", \"/dev/null\"]");

    EXPECT_EQ(files.findings({"sub/g.toml"}),
              (Lines{"sub/g.toml:2:12: error: 'sub/../x.toml' cannot be read: No such file or "
                     "directory",
                     "sub/g.toml:2:25: error: 'sub/.' cannot be read: not a regular file",
                     "sub/g.toml:2:30: error: '/dev/null' cannot be read: not a regular file"}));
}

namespace {

/// A graph that has errors of its own, and others only if nothing is included.
constexpr const char* kNeedsInclude = R"(
connections = ["a.out -> b.in", "left.out -> k.in", "k.more -> k.in", "none.out -> c.in"]
machines.edge = {}
link.cert = "cert.pem"
blocks.a = { machine = "hub", config.factor = 2.0 }
blocks.b = { type = "parts:Gain" }
blocks.c = { type = "nope:Gain", machine = "edge" }
blocks.d = { type = "parts:Declared", machine = "edge", config.foo = 1 }
blocks.e = { type = "parts:Ports", machine = "edge", on_error = "go" }
blocks.k = { type = "kind", machine = "edge", config.none.x = 1, config.g = 1 }
blocks.left = { type = "other", machine = "edge" }
blocks.t = { type = "parts:Throws", machine = "edge" }
[superblocks.kind]
inports.in = ["g.in", "none.in"]
connections = ["g.out -> none.in"]
blocks.g.type = "parts:Gain"
blocks.h = {}
)";

/// What is found in that beside what is wrong with `include`.
const Lines kFoundWithoutInclude = {
    "g.toml:8:21: error: there is no plug-in 'nope' in PLUGINS",
    "g.toml:9:64: error: block type 'parts:Declared' has no setting 'foo'",
    "g.toml:10:65: error: 'on_error' has to be one of stop, skip",
    "g.toml:11:77: error: 'g' has to be a table",
};

Lines findings_with_include(const std::string& include)
{
    GraphFiles files;
    files.write("empty.toml", "format = 1\n");
    files.write("g.toml", "format = 1\n" + include + kNeedsInclude);
    GraphOptions options = files.options();
    options.is_dry = true;
    Lines lines = files.findings(options);
    for (std::string& line : lines) {
        const std::size_t at = line.find("no plug-in 'nope' in ");
        if (at != std::string::npos) {
            line = line.substr(0, at) + "no plug-in 'nope' in PLUGINS";
        }
    }
    return lines;
}

/// Those lines behind one of line 2.
Lines with_line_of_include(const std::string& line)
{
    Lines lines = {line};
    lines.insert(lines.end(), kFoundWithoutInclude.begin(), kFoundWithoutInclude.end());
    return lines;
}

}  // namespace

TEST(FileProblems, OfIncludesHideOnlyWhatFollowsFromThem)
{
    EXPECT_EQ(
        findings_with_include("includ = [\"empty.toml\"]"),
        with_line_of_include("g.toml:2:1: error: unknown key 'includ'; did you mean 'include'?"));
    EXPECT_EQ(findings_with_include("include = [1, \"empty.toml\"]"),
              with_line_of_include("g.toml:2:12: error: 'include' has to be a string"));
    EXPECT_EQ(findings_with_include("include = \"empty.toml\""),
              with_line_of_include("g.toml:2:11: error: 'include' has to be a list"));
    EXPECT_EQ(findings_with_include("include = [\"none.toml\"]"),
              (Lines{"g.toml:2:12: error: 'none.toml' cannot be read: No such file or directory",
                     "g.toml:10:65: error: 'on_error' has to be one of stop, skip"}));
}

TEST(FileProblems, OfNamesThatHoldAZeroNameNoOtherFile)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\ninclude = [\"a.toml\\u0000b\"]");
    files.write("a.toml", "format = 1");

    EXPECT_EQ(files.findings(), (Lines{"g.toml:2:12: error: 'a.toml\\x00b' cannot be read: No such "
                                       "file or directory"}));
}

TEST(FileProblems, AreToldOnceForAFileThatIsNamedTwice)
{
    GraphFiles files;
    files.write("g.toml", "format = 1");

    EXPECT_EQ(files.findings({"nowhere.toml", "g.toml", "nowhere.toml"}),
              (Lines{"nowhere.toml:1:1: error: cannot read: No such file or directory"}));
}

TEST(FileProblems, TellWhatIncludesItself)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\ninclude = [\"sub/a.toml\"]");
    files.write("sub/a.toml", "format = 1\ninclude = [\"b.toml\"]");
    files.write("sub/b.toml", "format = 1\ninclude = [\"../g.toml\", \"b.toml\", \"a.toml\"]");

    EXPECT_EQ(files.findings(), (Lines{"sub/b.toml:2:12: error: 'sub/../g.toml' includes itself",
                                       "sub/b.toml:2:25: error: 'sub/b.toml' includes itself",
                                       "sub/b.toml:2:35: error: 'sub/a.toml' includes itself"}));
}

TEST(FileProblems, ShowTheDescriptionOfTheParser)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\nname = = 2\n");
    files.write("h.toml", "format = 1\nname = \"\x80\"\n");
    files.write("i.toml", "format = 1\nname = \"a\nb\"\n");

    EXPECT_EQ(
        files.findings({"g.toml"}),
        (Lines{"g.toml:2:8: error: Error while parsing value: could not determine value type"}));
    EXPECT_EQ(files.findings({"h.toml"}),
              (Lines{"h.toml:2:8: error: Encountered invalid utf-8 sequence"}));
    EXPECT_EQ(files.findings({"i.toml"}),
              (Lines{"i.toml:2:10: error: Error while parsing string: unescaped control characters "
                     "other than TAB (U+0009) are explicitly prohibited"}));
}

TEST(FileProblems, RefuseWhatIsNestedTooDeeply)
{
    std::string key = "a";
    for (int i = 0; i < 100'000; ++i) {
        key += ".a";
    }
    const Lines expected = {"g.toml:2:513: error: more than 256 levels of keys and brackets"};
    GraphFiles files;

    EXPECT_EQ(files.findings_for(key + " = 1"), expected);
    EXPECT_EQ(files.findings_for("[" + key + "]"),
              (Lines{"g.toml:2:512: error: more than 256 levels of keys and brackets"}));
    EXPECT_EQ(files.findings_for("x = " + std::string(100'000, '[')),
              (Lines{"g.toml:2:261: error: more than 256 levels of keys and brackets"}));
}

TEST(FileProblems, AreNotMadeOfDotsInTexts)
{
    const std::string dots(1000, '.');
    GraphFiles files;

    EXPECT_EQ(files.findings_for("# " + dots + "\n[blocks.a]\ntype = \"parts:Ports\"\n" +
                                 "config.a = \"" + dots + "\"\nconfig.b = '" + dots +
                                 "'\nconfig.c = \"\"\"\n\\\"\"\"" + dots + "\"\"\"\"\n" +
                                 "config.d = '''" + dots + "''''\nconfig.e = \"\"\n"),
              (Lines{"g.toml:5:8: warning: key 'a' is not read by block 'a'",
                     "g.toml:6:8: warning: key 'b' is not read by block 'a'",
                     "g.toml:7:8: warning: key 'c' is not read by block 'a'",
                     "g.toml:9:8: warning: key 'd' is not read by block 'a'",
                     "g.toml:10:8: warning: key 'e' is not read by block 'a'"}));
}

TEST(FileProblems, TellRootWhatOthersMayWriteTo)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\ninclude = [\"h.toml\"]\n");
    files.write("h.toml", "format = 1\n");
    ::chmod(files.path("h.toml").c_str(), 0666);

    EXPECT_EQ(files.findings(), ::geteuid() == 0
                                    ? (Lines{"h.toml:1:1: error: 'h.toml' is writable by others: "
                                             "refused for root"})
                                    : Lines());
}

// --- the format ---

TEST(FormatProblems, TellTheFormat)
{
    GraphFiles files;
    files.write("none.toml", "\n\nname = \"x\"");
    files.write("two.toml", "name = \"x\"\nformat =  2\nunknown = 3");
    files.write("text.toml", "format = \"1\"");
    files.write("near.toml", "fromat = 1");

    EXPECT_EQ(files.findings({"none.toml"}), (Lines{"none.toml:1:1: error: missing key 'format'"}));
    EXPECT_EQ(files.findings({"two.toml"}),
              (Lines{"two.toml:2:11: error: format 2 is not supported, only 1 is"}));
    EXPECT_EQ(files.findings({"text.toml"}),
              (Lines{"text.toml:1:10: error: 'format' has to be an integer"}));
    EXPECT_EQ(files.findings({"near.toml"}),
              (Lines{"near.toml:1:1: error: unknown key 'fromat'; did you mean 'format'?"}));
}

TEST(FormatProblems, TellUnknownKeysAtTheirLastComponent)
{
    expect_findings({
        {"x = 1", {"g.toml:2:1: error: unknown key 'x'"}},
        {"conections = []",
         {"g.toml:2:1: error: unknown key 'conections'; did you mean 'connections'?"}},
        {"[blocks.a]\ntype = \"parts:Late\"\n  configs.x = 1",
         {"g.toml:4:3: error: unknown key 'configs'; did you mean 'config'?"}},
        {"blocks.a.typo = \"parts:Late\"",
         {"g.toml:2:10: error: unknown key 'typo'; did you mean 'type'?"}},
        {"superblocks.s.\"in ports\" = {}",
         {"g.toml:2:15: error: unknown key 'in ports'; did you mean 'inports'?"}},
        {"superblocks.s.on_error = \"skip\"", {"g.toml:2:15: error: unknown key 'on_error'"}},
        {"connections = [{ fro = \"a.b\", to = \"a.b\", x = 1 }]",
         {"g.toml:2:18: error: unknown key 'fro'; did you mean 'from'?",
          "g.toml:2:36: error: there is no block 'a'", "g.toml:2:43: error: unknown key 'x'"}},
    });
}

TEST(FormatProblems, OfTablesThatStandTwiceHideWhatFollowsFromThem)
{
    expect_findings({
        {"connections = [\"p.out -> t.in\"]\n[blocks.t]\ntype = \"parts:Gain\"\n"
         "[bloks.p]\ntype = \"parts:Gain\"\n",
         {"g.toml:5:2: error: unknown key 'bloks'; did you mean 'blocks'?"}},
        {"blocks.t = { type = \"parts:Declared\", config.count = 1, confg.needed = 2 }",
         {"g.toml:2:46: error: block type 'parts:Declared' has no setting 'count'",
          "g.toml:2:57: error: unknown key 'confg'; did you mean 'config'?"}},
        {"blocks.t.type = \"two\"\n[superblocks.one]\n[superblock.two]\n",
         {"g.toml:4:2: error: unknown key 'superblock'; did you mean 'superblocks'?"}},
        {"connections = [\"g.out -> k.on\"]\nblocks.k.type = \"s\"\nblocks.g.type = "
         "\"parts:Gain\"\n[superblocks.s]\ninports.in = \"a.in\"\ninport.on = \"b.in\"\n"
         "blocks.a.type = \"parts:Gain\"\nblocks.b.type = \"parts:Gain\"\n",
         {"g.toml:7:1: error: unknown key 'inport'; did you mean 'inports'?"}},
        {"blocks.t = { type = \"parts:Late\", machine = \"b\" }\n[machines.a]\n[machine.b]\n",
         {"g.toml:4:2: error: unknown key 'machine'; did you mean 'machines'?"}},
        {"connections = []\nconections = [\"q.out -> q.in\"]\nblocks.q.type = \"parts:Gain\"",
         {"g.toml:3:1: error: unknown key 'conections'; did you mean 'connections'?"}},
        {"connections = [{ from = \"q.out\", to = \"q.in\", delayed = false, delayd = true }]\n"
         "blocks.q.type = \"parts:Gain\"",
         {"g.toml:2:64: error: unknown key 'delayd'; did you mean 'delayed'?"}},
    });
}

TEST(FormatProblems, TellTheKindThatAValueHasToBe)
{
    expect_findings({
        {"name = 1", {"g.toml:2:8: error: 'name' has to be a string"}},
        {"include = \"x\"", {"g.toml:2:11: error: 'include' has to be a list"}},
        {"include = [1, {}]",
         {"g.toml:2:12: error: 'include' has to be a string",
          "g.toml:2:15: error: 'include' has to be a string"}},
        {"on_error = true", {"g.toml:2:12: error: 'on_error' has to be a string"}},
        {"connections = \"a\"", {"g.toml:2:15: error: 'connections' has to be a list"}},
        {"connections = [1]", {"g.toml:2:16: error: 'connections' has to be a string or a table"}},
        {"connections = [{ from = 1, to = [], delayed = \"yes\", delivery = 1 }]",
         {"g.toml:2:25: error: 'from' has to be a string",
          "g.toml:2:33: error: 'to' has to be a string",
          "g.toml:2:47: error: 'delayed' has to be a boolean",
          "g.toml:2:65: error: 'delivery' has to be a string"}},
        {"blocks = 1", {"g.toml:2:10: error: 'blocks' has to be a table"}},
        {"blocks.a = 1", {"g.toml:2:12: error: 'a' has to be a table"}},
        {"blocks.a.type = 1", {"g.toml:2:17: error: 'type' has to be a string"}},
        {"blocks.a = { type = \"parts:Late\", config = 1, on_error = 2 }",
         {"g.toml:2:44: error: 'config' has to be a table",
          "g.toml:2:58: error: 'on_error' has to be a string"}},
        {"superblocks = []", {"g.toml:2:15: error: 'superblocks' has to be a table"}},
        {"superblocks.s = []", {"g.toml:2:17: error: 's' has to be a table"}},
        {"superblocks.s = { inports = 1, outports = 2 }",
         {"g.toml:2:29: error: 'inports' has to be a table",
          "g.toml:2:43: error: 'outports' has to be a table"}},
        {"superblocks.s = { inports.i = 1, outports.o = [] }",
         {"g.toml:2:31: error: 'i' has to be a string or a list",
          "g.toml:2:47: error: 'o' has to be a string"}},
        {"superblocks.s.inports.i = [1, \"a\"]",
         {"g.toml:2:28: error: 'i' has to be a string",
          "g.toml:2:31: error: 'a' is not of the form BLOCK.PORT"}},
    });
}

TEST(FormatProblems, TellTheWordsThatMayStandThere)
{
    expect_findings({
        {"on_error = \"go\"", {"g.toml:2:12: error: 'on_error' has to be one of stop, skip"}},
        {"blocks.a = { type = \"parts:Late\", on_error = \"\" }",
         {"g.toml:2:46: error: 'on_error' has to be one of stop, skip"}},
        {"connections = [{ from = \"a.o\", to = \"a.i\", delivery = \"some\" }]\n"
         "[blocks.a]\ntype = \"parts:Ports\"\n"
         "config = { inputs = [\"i:x\"], outputs = [\"o:x\"] }",
         {"g.toml:2:16: error: the connections make a cycle: a -> a",
          "g.toml:2:55: error: 'delivery' has to be one of all, latest"}},
    });
}

TEST(FormatProblems, TellNamesThatAreNotValid)
{
    expect_findings({
        {"name = \"a b\"",
         {"g.toml:2:8: error: 'a b' is not a valid name (letters, digits, '_' and '-')"}},
        {"name = \"\"",
         {"g.toml:2:8: error: '' is not a valid name (letters, digits, '_' and '-')"}},
        {"blocks.\"a/b\".type = \"parts:Late\"",
         {"g.toml:2:8: error: 'a/b' is not a valid name (letters, digits, '_' and '-')"}},
        {"[superblocks.\"s.t\"]",
         {"g.toml:2:14: error: 's.t' is not a valid name (letters, digits, '_' and '-')"}},
        {"superblocks.s.outports.\"o o\" = \"a.b\"",
         {"g.toml:2:24: error: 'o o' is not a valid name (letters, digits, '_' and '-')"}},
        {"superblocks.s.blocks.\"\xC3\xA4\".type = \"a:b\"",
         {"g.toml:2:22: error: '\xC3\xA4' is not a valid name (letters, digits, '_' and '-')"}},
    });
}

TEST(FormatProblems, CountColumnsInCharacters)
{
    expect_findings({
        {"\"\xC3\xA4\xE2\x82\xAC\" = {}\nblocks.a = { type = \"\xC3\xA4\",\tx = 1 }",
         {"g.toml:2:1: error: unknown key '\xC3\xA4\xE2\x82\xAC'",
          "g.toml:3:21: error: there is no superblock '\xC3\xA4'",
          "g.toml:3:26: error: unknown key 'x'"}},
    });
}

// --- types and plug-ins ---

TEST(TypeProblems, TellBlocksWithoutAType)
{
    expect_findings({
        {"[blocks.a]", {"g.toml:2:9: error: block 'a' has no type"}},
        {"blocks.a.config.x = 1", {"g.toml:2:8: error: block 'a' has no type"}},
        {"blocks.a.type = \"s\"\nsuperblocks.s.blocks.b = {}",
         {"g.toml:3:22: error: block 'a/b' has no type"}},
        {"superblocks.s.blocks.b = {}", {}},
    });
}

TEST(TypeProblems, TellTypesThatAreEmpty)
{
    expect_findings({
        {"blocks.a.type = \"\"", {"g.toml:2:17: error: there is no superblock ''"}},
        {"superblocks.s.blocks.b.type = \"\"", {}},
    });
}

TEST(TypeProblems, TellTypesThatAreNone)
{
    EXPECT_EQ(findings_for_type("channel"),
              (Lines{"g.toml:3:10: error: there is no superblock 'channel'"}));
    for (const std::string text : {":", "parts:", ":Gain", "a/b:Gain", "../parts:Gain"}) {
        EXPECT_EQ(findings_for_type(text),
                  (Lines{"g.toml:3:10: error: '" + text + "' is not of the form PLUGIN:TYPE"}));
    }
    expect_findings({
        {"blocks.a.type = \"chanel\"\nsuperblocks.channel = {}\nsuperblocks.channels = {}",
         {"g.toml:2:17: error: there is no superblock 'chanel'; did you mean 'channel'?"}},
        {"blocks.a.type = \"channel\"\nsuperblocks = 1",
         {"g.toml:3:15: error: 'superblocks' has to be a table"}},
    });
}

TEST(TypeProblems, TellWhereAPluginWasLookedFor)
{
    const ScopedEnvironment path("QUORVAL_PLUGIN_PATH", ":/one::/two/:");
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", "/three:four");
    GraphFiles files;
    files.write("g.toml", "format = 1\nblocks.a.type = \"nowhere:A\"");
    GraphOptions options = files.options();
    options.plugin_path = {"here", ""};

    const Lines lines = files.findings(options);

    ASSERT_EQ(lines.size(), 1U);
    const std::string known =
        "g.toml:2:17: error: there is no plug-in 'nowhere' in here:/one:/two/:/three:four:/";
    const std::string end = "/quorval/plugins";
    EXPECT_EQ(lines[0].substr(0, known.size()), known);
    EXPECT_EQ(lines[0].substr(lines[0].size() - end.size()), end);
}

TEST(TypeProblems, TellWhyAPluginCannotBeLoaded)
{
    const std::string begin = "g.toml:3:10: error: plug-in '";
    EXPECT_EQ(findings_for_type("no_entry_point:A"),
              (Lines{begin + "no_entry_point' cannot be loaded: Found no C++ register function in "
                             "plugin no_entry_point.so"}));
    EXPECT_EQ(
        findings_for_type("fails:A"),
        (Lines{begin + "fails' cannot be loaded: lib_register_cpp failed for plugin fails.so"}));
    EXPECT_EQ(
        findings_for_type("registers_twice:A"),
        (Lines{begin + "registers_twice' cannot be loaded: Try to register block Gain twice."}));
    EXPECT_EQ(findings_for_type("registers_types:A"),
              (Lines{begin + "registers_types' cannot be loaded: PluginLoader cannot load plugins "
                             "that register types."}));
    EXPECT_EQ(findings_for_type("throws:A"),
              (Lines{begin + "throws' cannot be loaded: an exception of its own"}));
    EXPECT_EQ(findings_for_type("throws_a_number:A"),
              (Lines{begin + "throws_a_number' cannot be loaded: an unknown exception"}));
}

TEST(TypeProblems, ShowTheTextOfTheLoader)
{
    GraphFiles files;
    files.write("text.so", "no shared object");
    files.write("g.toml", "format = 1\nblocks.a.type = \"text:A\"");
    GraphOptions options = files.options();
    options.plugin_path = {files.directory().path()};

    EXPECT_EQ(files.findings(options),
              (Lines{"g.toml:2:17: error: plug-in 'text' cannot be loaded: text.so: file "
                     "too short"}));
}

TEST(TypeProblems, TellRootWhichPluginsOthersMayWriteTo)
{
    GraphFiles files;
    files.write("plugins/x.so", "");
    files.write("g.toml", "format = 1\nblocks.a.type = \"x:A\"");
    ::chmod(files.path("plugins").c_str(), 0755);
    ::chmod(files.path("plugins/x.so").c_str(), 0666);
    GraphOptions options = files.options();
    options.plugin_path = {files.path("plugins")};

    EXPECT_EQ(files.findings(options),
              ::geteuid() == 0
                  ? Lines{"g.toml:2:17: error: 'plugins/x.so' is writable by others: refused for "
                          "root"}
                  : Lines{"g.toml:2:17: error: plug-in 'x' cannot be loaded: x.so: file too "
                          "short"});
}

TEST(TypeProblems, TellRootWhichDirectoriesOthersMayWriteTo)
{
    GraphFiles files;
    files.write("plugins/x.so", "");
    files.write("g.toml", "format = 1\nblocks.a.type = \"x:A\"");
    ::chmod(files.path("plugins").c_str(), 0777);
    GraphOptions options = files.options();
    options.plugin_path = {files.path("plugins")};

    const Lines lines = files.findings(options);

    ASSERT_EQ(lines.size(), 1U);
    if (::geteuid() == 0) {
        EXPECT_EQ(lines[0],
                  "g.toml:2:17: error: 'plugins' is writable by others: refused for root");
    } else {
        EXPECT_EQ(lines[0],
                  "g.toml:2:17: error: plug-in 'x' cannot be loaded: x.so: file too short");
    }
}

TEST(TypeProblems, TellTheTypesThatAPluginHas)
{
    EXPECT_EQ(findings_for_type("registers_nothing:A"),
              (Lines{"g.toml:3:10: error: plug-in 'registers_nothing' has no block type 'A'; it "
                     "has none"}));
    EXPECT_EQ(
        findings_for_type("parts:gain"),
        (Lines{"g.toml:3:10: error: plug-in 'parts' has no block type 'gain'; it has "
               "Composite, Declared, Empty, Gain, Late, Leads, Null, Once, Ports, Prints, Renamed, "
               "Stores, Tells, Throws, ThrowsANumber, ThrowsInSetup, ThrowsItsOwn"}));
}

TEST(TypeProblems, TellWhyABlockCannotBeCreated)
{
    const std::string begin = "g.toml:3:10: error: block 'a' cannot be created: ";
    EXPECT_EQ(findings_for_type("parts:Throws"), (Lines{begin + "no\\x1B[31m block"}));
    EXPECT_EQ(findings_for_type("parts:ThrowsInSetup"), (Lines{begin + "no setup\\x0Atoday"}));
    EXPECT_EQ(findings_for_type("parts:ThrowsItsOwn"), (Lines{begin + "an exception of its own"}));
    EXPECT_EQ(findings_for_type("parts:ThrowsANumber"), (Lines{begin + "an unknown exception"}));
    EXPECT_EQ(findings_for_type("parts:Null"),
              (Lines{begin + "Create function returned no block for Null"}));
    EXPECT_EQ(findings_for_type("parts:Empty"), (Lines{begin + "bad_function_call"}));
    EXPECT_EQ(findings_for_type("parts:Composite"), (Lines{begin + "it is no plain block"}));
    EXPECT_EQ(findings_for_type("parts:Tells"), (Lines{begin + "a in g"}));
}

// --- configurations ---

TEST(ValueProblems, TellWhatNoConfigurationHolds)
{
    const std::string begin = "g.toml:3:23: error: 'p.q' is ";
    EXPECT_EQ(findings_for_value("2026-01-01"), (Lines{begin + "a date"}));
    EXPECT_EQ(findings_for_value("12:00:00"), (Lines{begin + "a time"}));
    EXPECT_EQ(findings_for_value("2026-01-01T12:00:00Z"), (Lines{begin + "a date and time"}));
    EXPECT_EQ(findings_for_value("[]"), (Lines{begin + "an empty list"}));
    EXPECT_EQ(findings_for_value("[[1], []]"), (Lines{begin + "a list of lists"}));
    EXPECT_EQ(findings_for_value("[1, \"a\"]"), (Lines{begin + "a list of mixed kinds"}));
    EXPECT_EQ(findings_for_value("[{}, 1]"), (Lines{begin + "a list of mixed kinds"}));
    EXPECT_EQ(findings_for_value("[true, 1.5]"), (Lines{begin + "a list of mixed kinds"}));
    EXPECT_EQ(findings_for_value("2147483648"), (Lines{begin + "out of the range of an int"}));
    EXPECT_EQ(findings_for_value("-2147483649"), (Lines{begin + "out of the range of an int"}));
}

TEST(ValueProblems, StandAtTheItemThatIsWrong)
{
    EXPECT_EQ(findings_for_value("[1, 2147483648, 3, -9000000000]"),
              (Lines{"g.toml:3:27: error: 'p.q' is out of the range of an int",
                     "g.toml:3:42: error: 'p.q' is out of the range of an int"}));
    EXPECT_EQ(
        findings_for_value("[2026-01-01, 12:00:00]"),
        (Lines{"g.toml:3:24: error: 'p.q' is a date", "g.toml:3:36: error: 'p.q' is a time"}));
    EXPECT_EQ(findings_for_value("[{ a = 1979-05-27 }, { b = { c = [] } }]"),
              (Lines{"g.toml:3:30: error: 'p.q.0.a' is a date",
                     "g.toml:3:56: error: 'p.q.1.b.c' is an empty list"}));
}

TEST(ValueProblems, HideFailuresThatFollowFromThem)
{
    expect_findings({
        {"[blocks.b]\ntype = \"parts:Throws\"\nconfig.x = []\n",
         {"g.toml:4:12: error: 'x' is an empty list"}},
    });
}

TEST(KeyProblems, HaveTheTextOfTheConfiguration)
{
    expect_findings({
        {"[blocks.a]\ntype = \"parts:Ports\"\nconfig.p.\"x y\".z = 1",
         {"g.toml:4:16: error: Parameter name 'p.x y.z' not valid (should be [a-z0-9_.-])."}},
        {"[blocks.a]\ntype = \"parts:Ports\"\nconfig.\"a\\u001bb\" = []",
         {"g.toml:4:8: error: Parameter name 'a\\x1Bb' not valid (should be [a-z0-9_.-])."}},
        {"[blocks.a]\ntype = \"parts:Ports\"\nconfig.\"a\\u0000b\" = 1",
         {"g.toml:4:8: error: Parameter name 'a\\x00b' not valid (should be [a-z0-9_.-])."}},
        {"[blocks.a]\ntype = \"parts:Ports\"\nconfig = { \"b/c\" = {}, d.\"e f\" = {}, g = {} }",
         {"g.toml:4:12: error: Parameter name 'b/c' not valid (should be [a-z0-9_.-]).",
          "g.toml:4:26: error: Parameter name 'd.e f' not valid (should be [a-z0-9_.-])."}},
        {"[blocks.a]\ntype = \"parts:Ports\"\nconfig.\"x y\" = [{}]\nconfig.z = [{}]",
         {"g.toml:4:8: error: Parameter name 'x y.0' not valid (should be [a-z0-9_.-])."}},
        {"[blocks.a]\ntype = \"parts:Ports\"\nconfig.\"x y\" = 1\nconfig.z = 1",
         {"g.toml:4:8: error: Parameter name 'x y' not valid (should be [a-z0-9_.-]).",
          "g.toml:5:8: warning: key 'z' is not read by block 'a'"}},
    });
}

TEST(SuperblockConfigProblems, TellMembersThatDoNotExist)
{
    expect_findings({
        {"[blocks.left]\ntype = \"channel\"\nconfig.gian.factor = 1\nconfig.gian.more = 2\n"
         "config.gain = 3\nconfig.inner.x.y = 4\n"
         "[superblocks.channel]\nblocks.gain.type = \"parts:Late\"\nblocks.inner.type = \"inner\"\n"
         "[superblocks.inner]\n",
         {"g.toml:4:13: error: there is no block 'left/gian'",
          "g.toml:6:15: error: 'gain' has to be a table",
          "g.toml:7:16: error: there is no block 'left/inner/x'"}},
        {"blocks.left = { type = \"channel\", config = { \"\" = 1, \".x\" = 2 } }\n"
         "[superblocks.channel]\n",
         {"g.toml:2:46: error: there is no block 'left/'"}},
    });
}

TEST(AssignmentProblems, TellBlocksThatDoNotExist)
{
    EXPECT_EQ(findings_with({"left/gian.factor=1", "left.gain.x=1"}),
              (Lines{"--set left/gian.factor: error: there is no block 'left/gian'",
                     "--set left.gain.x: error: there is no block 'left'"}));
}

TEST(AssignmentProblems, DoNotTellBlocksThatAreWrong)
{
    GraphFiles files;
    files.write("g.toml", R"(format = 1
blocks.a = {}
blocks.k.type = "kind"
[superblocks.kind]
blocks.b.type = "nothing"
)");
    GraphOptions options = files.options();
    options.assignments = {"a.x=1", "k/b.x=1", "k/b/c.x=1", "k/d.x=1", "k.x=1", "e/a.x=1"};

    EXPECT_EQ(files.findings(options),
              (Lines{"g.toml:2:8: error: block 'a' has no type",
                     "g.toml:5:17: error: there is no superblock 'nothing'",
                     "--set k/d.x: error: there is no block 'k/d'",
                     "--set k.x: error: there is no block 'k'",
                     "--set e/a.x: error: there is no block 'e/a'"}));
}

TEST(AssignmentProblems, TellWrongKeysAndValues)
{
    EXPECT_EQ(findings_with({"left/gain.a b=1", "left/gain.c=[]", "left/gain.d={e=[12:00:00]}"}),
              (Lines{"--set left/gain.a b: error: Parameter name 'a b' not valid (should be "
                     "[a-z0-9_.-]).",
                     "--set left/gain.c: error: 'c' is an empty list",
                     "--set left/gain.d: error: 'd.e' is a time"}));
}

TEST(AssignmentProblems, TellKeysThatNobodyReads)
{
    EXPECT_EQ(findings_with({"left/gain.a=1"}),
              (Lines{"--set left/gain.a: warning: key 'a' is not read by block 'left/gain'"}));
}

TEST(AssignmentProblems, AreWrongUseWithoutTheForm)
{
    for (const std::string text : {"", "a", "a.b", "a=1", ".b=1", "a.=1", "a=b.c"}) {
        expect_throw<std::invalid_argument>([&] { findings_with({text}); },
                                            "'" + text + "' is not of the form PATH.KEY=VALUE");
    }
}

// --- size ---

TEST(SizeProblems, TellGraphsThatAreTooLarge)
{
    std::string text = "blocks.a.type = \"k20\"\nblocks.b.type = \"parts:Late\"\n";
    for (int i = 20; i > 0; --i) {
        const std::string inner = i > 1 ? "k" + std::to_string(i - 1) : "parts:Late";
        text += "[superblocks.k" + std::to_string(i) + "]\nblocks.a.type = \"" + inner +
                "\"\nblocks.b.type = \"" + inner + "\"\n";
    }

    expect_findings({{text, {"g.toml:2:17: error: the graph has more than 1000000 blocks"}}});
}

TEST(SizeProblems, TellTooManyBlocksBeforeTooManySuperblocks)
{
    std::string text = "blocks.a.type = \"k0\"\n";
    for (int i = 0; i < 80; ++i) {
        const std::string inner = "k" + std::to_string(i + 1);
        text += "[superblocks.k" + std::to_string(i) + "]\nblocks.a.type = \"" + inner +
                "\"\nblocks.b.type = \"" + inner + "\"\n";
    }
    text += "[superblocks.k80]\nblocks.a.type = \"parts:Late\"\n";

    expect_findings({{text, {"g.toml:2:17: error: the graph has more than 1000000 blocks"}}});
}

TEST(SizeProblems, CountSuperblocksWithoutBlocks)
{
    std::string text = "blocks.a.type = \"k40\"\nsuperblocks.k0 = {}\n";
    for (int i = 40; i > 0; --i) {
        const std::string inner = "k" + std::to_string(i - 1);
        text += "[superblocks.k" + std::to_string(i) + "]\nblocks.a.type = \"" + inner +
                "\"\nblocks.b.type = \"" + inner + "\"\n";
    }

    const std::string last = "g.toml:2:17: error: the graph has more than 1000000 superblocks";
    expect_findings({{text, {last}}});
}

TEST(SizeProblems, TellGraphsThatAreTooDeep)
{
    std::string text = "blocks.a.type = \"k20000\"\nsuperblocks.k0 = {}\n";
    for (int i = 20'000; i > 0; --i) {
        text += "superblocks.k" + std::to_string(i) + ".blocks.a.type = \"k" +
                std::to_string(i - 1) + "\"\n";
    }

    expect_findings({{text,
                      {"g.toml:2:17: error: superblocks stand in each other more than 1000 levels "
                       "deep"}}});
}

TEST(SizeProblems, TellACycleBeforeTooManyLevels)
{
    constexpr int kLevels = 1000;
    std::string text = "blocks.a.type = \"k1\"\n";
    for (int i = 1; i <= kLevels; ++i) {
        text += "superblocks.k" + std::to_string(i) + ".blocks.a.type = \"k" +
                std::to_string(i < kLevels ? i + 1 : kLevels / 2) + "\"\n";
    }

    expect_findings({{text, {"g.toml:1002:35: error: superblock 'k500' contains itself"}}});
}

TEST(SizeProblems, TellGraphsWhoseNamesAreTooLong)
{
    const std::string name(2000, 'n');
    std::string text = "blocks.a.type = \"k18\"\n";
    for (int i = 18; i > 0; --i) {
        const std::string inner = i > 1 ? "k" + std::to_string(i - 1) : "parts:Late";
        text += "[superblocks.k" + std::to_string(i) + "]\nblocks." + name + "a.type = \"" + inner +
                "\"\nblocks." + name + "b.type = \"" + inner + "\"\n";
    }

    GraphFiles files;
    const Lines lines = files.findings_for(text);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(
        lines[0],
        "g.toml:2:17: error: the paths and configurations of the blocks take more than 1 GiB");
}

TEST(SizeProblems, TellGraphsWithTooManyConnections)
{
    std::string text =
        "blocks.a.type = \"k18\"\n[superblocks.k0]\nblocks.a.type = "
        "\"parts:Late\"\nconnections = [";
    for (int i = 0; i < 100; ++i) {
        text += "\"a.out -> a.in\",";
    }
    text += "]\n";
    for (int i = 18; i > 0; --i) {
        const std::string inner = "k" + std::to_string(i - 1);
        text += "[superblocks.k" + std::to_string(i) + "]\nblocks.a.type = \"" + inner +
                "\"\nblocks.b.type = \"" + inner + "\"\n";
    }

    expect_findings({{text, {"g.toml:2:17: error: the graph has more than 10000000 connections"}}});
}

TEST(SizeProblems, TellSuperblocksThatContainThemselves)
{
    expect_findings({
        {"blocks.x.type = \"a\"\nsuperblocks.a.blocks.b.type = \"b\"\n"
         "superblocks.b.blocks.a.type = \"a\"\nsuperblocks.c.blocks.c.type = \"c\"\n",
         {"g.toml:4:31: error: superblock 'a' contains itself"}},
        {"blocks.x.type = \"a\"\nsuperblocks.a.blocks.b.type = \"a\"\n",
         {"g.toml:3:31: error: superblock 'a' contains itself"}},
    });
}

// --- warnings ---

TEST(Warnings, TellKeysThatNobodyReads)
{
    expect_findings({
        {"[blocks.a]\ntype = \"parts:Late\"\n"
         "config = { late = 1, l = [1, 2], x.y = nan, z = [nan], b = [true], s = \"\", t = [{u = "
         "1}] }",
         {"g.toml:4:22: warning: key 'l' is not read by block 'a'",
          "g.toml:4:36: warning: key 'x.y' is not read by block 'a'",
          "g.toml:4:45: warning: key 'z' is not read by block 'a'",
          "g.toml:4:56: warning: key 'b' is not read by block 'a'",
          "g.toml:4:68: warning: key 's' is not read by block 'a'",
          "g.toml:4:82: warning: key 't.0.u' is not read by block 'a'"}},
    });
}

TEST(Warnings, TellKeysOfAMemberWhereTheyAreWritten)
{
    expect_findings({
        {"[blocks.left]\ntype = \"channel\"\nconfig.gain.x = 1\n"
         "[superblocks.channel]\nblocks.gain = { type = \"parts:Late\", config.y = 2 }\n",
         {"g.toml:4:13: warning: key 'x' is not read by block 'left/gain'",
          "g.toml:6:45: warning: key 'y' is not read by block 'left/gain'"}},
    });
}

TEST(Warnings, TellInputsThatAreNotConnected)
{
    expect_findings({
        {"[blocks.left]\ntype = \"channel\"\n[superblocks.channel.blocks.mix]\n"
         "type = \"parts:Ports\"\nconfig.inputs = [\"b:int32\", \"a:int32\"]\n",
         {"g.toml:4:29: warning: left/mix.a is not connected",
          "g.toml:4:29: warning: left/mix.b is not connected"}},
        {"blocks.left.type = \"pair\"\nsuperblocks.pair.inports.in = [\"a.in\", \"b.in\"]\n"
         "superblocks.pair.blocks.a.type = \"parts:Gain\"\n"
         "superblocks.pair.blocks.b.type = \"parts:Gain\"",
         {"g.toml:4:25: warning: left/a.in is not connected",
          "g.toml:5:25: warning: left/b.in is not connected"}},
    });
}

TEST(Warnings, OfInputsComeWithErrorsThatHaveNothingToDoWithThem)
{
    expect_findings({
        {"unknown = 1\nblocks.a = { type = \"parts:Gain\", config.x = [] }",
         {"g.toml:2:1: error: unknown key 'unknown'", "g.toml:3:8: warning: a.in is not connected",
          "g.toml:3:46: error: 'x' is an empty list"}},
        {"blocks.a.type = \"parts:Gain\"\nblocks.b.type = \"parts:Throws\"",
         {"g.toml:2:8: warning: a.in is not connected",
          "g.toml:3:17: error: block 'b' cannot be created: no\\x1B[31m block"}},
    });
}

TEST(Warnings, OfInputsAreLeftOutWhereConnectionsAreWrong)
{
    const std::string block = "\nblocks.a.type = \"parts:Gain\"";
    expect_findings({
        {"conections = [\"s.out -> a.in\"]" + block,
         {"g.toml:2:1: error: unknown key 'conections'; did you mean 'connections'?"}},
        {"connections = \"s.out -> a.in\"" + block,
         {"g.toml:2:15: error: 'connections' has to be a list"}},
        {"connections = [{ from = \"s\", to = \"a.in\" }]" + block,
         {"g.toml:2:25: error: 's' is not of the form BLOCK.PORT"}},
        {"superblocks.s.inports.in = 1\nblocks.k.type = \"s\"\n"
         "superblocks.s.blocks.a.type = \"parts:Gain\"",
         {"g.toml:2:28: error: 'in' has to be a string or a list"}},
    });
}

// --- all of them ---

TEST(Problems, OfAllFilesComeInOneGoAndInOrder)
{
    GraphFiles files;
    files.write("main.toml", R"(format = 1
include = ["parts/a.toml", "parts/b.toml", "parts/none.toml"]
nam = "x"
)");
    files.write("parts/a.toml", "include = [\"c.toml\"]\nonerror = 1\n");
    files.write("parts/b.toml", "format = 1\n[blocks.b]\ntypes = 2\n");
    files.write("parts/c.toml", "format = 1\n\n\tblocks = 3\n");
    files.write("last.toml", "format = 1\nconnections = [1]\n");

    EXPECT_EQ(files.findings({"main.toml", "last.toml"}),
              (Lines{"main.toml:2:44: error: 'parts/none.toml' cannot be read: No such file or "
                     "directory",
                     "main.toml:3:1: error: unknown key 'nam'; did you mean 'name'?",
                     "parts/a.toml:1:1: error: missing key 'format'",
                     "parts/a.toml:2:1: error: unknown key 'onerror'; did you mean 'on_error'?",
                     "parts/c.toml:3:11: error: 'blocks' has to be a table",
                     "parts/b.toml:3:1: error: unknown key 'types'; did you mean 'type'?",
                     "last.toml:2:16: error: 'connections' has to be a string or a table"}));
}

TEST(Problems, OfABlockThatIsNoneInOneFileComeWithThoseOfAnother)
{
    GraphFiles files;
    files.write("one.toml", "format = 1\nblocks.a = 1\nmachines.hub = {}\n");
    files.write("two.toml", "format = 1\nblocks.a.type = \"parts:Declared\"\n");
    GraphOptions options = files.options({"one.toml", "two.toml"});
    options.is_local = true;

    EXPECT_EQ(files.findings(options), (Lines{"one.toml:2:12: error: 'a' has to be a table",
                                              "two.toml:2:8: error: 'needed' is missing"}));
}

TEST(Problems, OfBlocksComeWithThoseOfForm)
{
    GraphFiles files;
    files.write("g.toml", R"(format = 1
connections = ["a.out -> b.level"]
unknown = 1
[blocks.a]
type = "parts:Throws"
[blocks.b]
type = "parts:Gain"
config.factor = "half"
[blocks.c]
type = "parts:Late"
config.lat = 1
)");
    GraphOptions options = files.options();
    options.assignments = {"d.e=1", "c.late=[]"};

    EXPECT_EQ(files.findings(options),
              (Lines{"g.toml:3:1: error: unknown key 'unknown'",
                     "g.toml:5:8: error: block 'a' cannot be created: no\\x1B[31m block",
                     "g.toml:7:8: error: block 'b' cannot be created: "
                     "BlockConfiguration::getDouble failed, the parameter 'factor' is type: string",
                     "g.toml:11:8: warning: key 'lat' is not read by block 'c'",
                     "--set d.e: error: there is no block 'd'",
                     "--set c.late: error: 'late' is an empty list"}));
}

TEST(Problems, AreToldWithTheirLines)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\r\n\tx = 1\r\ny = 2");

    try {
        Quorval::runtime::load_graph(files.options());
        FAIL();
    } catch (const Quorval::GraphError& error) {
        ASSERT_EQ(error.diagnostics().size(), 2U);
        EXPECT_EQ(error.diagnostics()[0].source_line, "\tx = 1");
        EXPECT_EQ(error.diagnostics()[1].source_line, "y = 2");
        EXPECT_EQ(files.strip(error.what()),
                  "g.toml:2:2: error: unknown key 'x'\ng.toml:3:1: error: unknown key 'y'");
    }
}
