#include "command/command_test.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::run_process;

class Graph : public CommandTest {
protected:
    Graph()
    {
        write("nested.toml", R"(format = 1
connections = [
    "count.out -> left.in",
    "left.out -> print.in",
    { from = "left.out", to = "again.in", delayed = true },
]
blocks.again = { type = "numbers:Print", config = { prefix = "a\"b" } }
blocks.count = { type = "numbers:Count", config.count = 2 }
blocks.left.type = "pair"
blocks.print.type = "numbers:Print"
[superblocks.pair]
connections = ["first.out -> second.in"]
inports.in = "first.in"
outports.out = "second.out"
blocks.first.type = "numbers:Double"
blocks.second.type = "numbers:Double"
)");
    }

    /// A program in place of Graphviz.
    void write_dot(const std::string& program)
    {
        write("dot", program);
        std::filesystem::permissions(directory() + "/dot", std::filesystem::perms::owner_all);
    }

    /// How it is drawn by that program.
    ProcessOptions draw() { return draw(directory()); }
    /// @param path  where it is sought
    ProcessOptions draw(const std::string& path)
    {
        ProcessOptions options = command({"graph", "--format", "svg", "nested.toml"});
        set_variable(options, "PATH", path);
        return options;
    }
};

constexpr const char* kDot = R"(digraph "nested" {
    rankdir=LR;
    node [shape=box];
    "again" [label="again\nnumbers:Print"];
    "count" [label="count\nnumbers:Count"];
    "print" [label="print\nnumbers:Print"];
    subgraph "cluster_left" {
        label="left";
        "left/first" [label="first\nnumbers:Double"];
        "left/second" [label="second\nnumbers:Double"];
    }
    "left/second" -> "again" [label="out -> in\nint32", style=dashed];
    "count" -> "left/first" [label="out -> in\nint32"];
    "left/first" -> "left/second" [label="out -> in\nint32"];
    "left/second" -> "print" [label="out -> in\nint32"];
}
)";

TEST_F(Graph, IsDrawnForGraphviz)
{
    expect_result(run({"graph", "nested.toml"}), 0, kDot, "");
    expect_result(run({"graph", "--format=dot", "nested.toml"}), 0, kDot, "");
}

TEST_F(Graph, IsDrawnForMermaid)
{
    expect_result(run({"graph", "--format", "mermaid", "nested.toml"}), 0,
                  R"(flowchart LR
    b0["again<br/>numbers:Print"]
    b1["count<br/>numbers:Count"]
    b2["print<br/>numbers:Print"]
    subgraph s0["left"]
        b3["first<br/>numbers:Double"]
        b4["second<br/>numbers:Double"]
    end
    b4 -.->|"out -#62; in<br/>int32"| b0
    b1 -->|"out -#62; in<br/>int32"| b3
    b3 -->|"out -#62; in<br/>int32"| b4
    b4 -->|"out -#62; in<br/>int32"| b2
)",
                  "");
}

constexpr const char* kMachines = R"(format = 1
connections = ["count.out -> twice.in", "twice.out -> print.in"]
machines = { edge = {}, hub = {} }
link.broker = "mqtt://localhost"
blocks.count = { type = "numbers:Count", machine = "edge", config.count = 2 }
blocks.twice = { type = "pair", machine = "edge" }
blocks.print = { type = "numbers:Print", machine = "hub" }
[superblocks.pair]
inports.in = "first.in"
outports.out = "first.out"
blocks.first.type = "numbers:Double"
)";

TEST_F(Graph, ShowsMachinesAsClusters)
{
    write("machines.toml", kMachines);

    expect_result(run({"graph", "machines.toml"}), 0, R"(digraph "machines" {
    rankdir=LR;
    node [shape=box];
    subgraph "cluster_machine edge" {
        label="machine edge";
        style=rounded;
        "count" [label="count\nnumbers:Count"];
        subgraph "cluster_twice" {
            label="twice";
            "twice/first" [label="first\nnumbers:Double"];
        }
    }
    subgraph "cluster_machine hub" {
        label="machine hub";
        style=rounded;
        "print" [label="print\nnumbers:Print"];
    }
    "count" -> "twice/first" [label="out -> in\nint32"];
    "twice/first" -> "print" [label="out -> in\nint32"];
}
)",
                  "");
    expect_result(run({"graph", "--format", "mermaid", "machines.toml"}), 0, R"(flowchart LR
    subgraph m0["machine edge"]
        b0["count<br/>numbers:Count"]
        subgraph s0["twice"]
            b1["first<br/>numbers:Double"]
        end
    end
    subgraph m1["machine hub"]
        b2["print<br/>numbers:Print"]
    end
    b0 -->|"out -#62; in<br/>int32"| b1
    b1 -->|"out -#62; in<br/>int32"| b2
)",
                  "");
}

TEST_F(Graph, IsWrittenAsJson)
{
    expect_result(run({"graph", "--format", "json", "nested.toml"}), 0,
                  R"({
  "blocks": [
    {
      "config": {
        "prefix": "a\"b"
      },
      "fdports": {},
      "inports": {
        "in": "int32"
      },
      "outports": {},
      "path": "again",
      "type": "numbers:Print"
    },
    {
      "config": {
        "count": 2
      },
      "fdports": {},
      "inports": {},
      "outports": {
        "out": "int32"
      },
      "path": "count",
      "type": "numbers:Count"
    },
    {
      "config": {},
      "fdports": {},
      "inports": {
        "in": "int32"
      },
      "outports": {
        "out": "int32"
      },
      "path": "left/first",
      "type": "numbers:Double"
    },
    {
      "config": {},
      "fdports": {},
      "inports": {
        "in": "int32"
      },
      "outports": {
        "out": "int32"
      },
      "path": "left/second",
      "type": "numbers:Double"
    },
    {
      "config": {},
      "fdports": {},
      "inports": {
        "in": "int32"
      },
      "outports": {},
      "path": "print",
      "type": "numbers:Print"
    }
  ],
  "connections": [
    {
      "delayed": true,
      "from": "left/second.out",
      "to": "again.in",
      "type": "int32"
    },
    {
      "delayed": false,
      "from": "count.out",
      "to": "left/first.in",
      "type": "int32"
    },
    {
      "delayed": false,
      "from": "left/first.out",
      "to": "left/second.in",
      "type": "int32"
    },
    {
      "delayed": false,
      "from": "left/second.out",
      "to": "print.in",
      "type": "int32"
    }
  ],
  "format": 1,
  "name": "nested"
}
)",
                  "");
}

TEST_F(Graph, KeepsTextsInJson)
{
    write("texts.toml",
          "format = 1\nblocks.a = { type = \"numbers:Print\", config.prefix = \"gr\u00f6\u00dfer\" "
          "}\n");

    EXPECT_NE(run({"graph", "--format", "json", "texts.toml"})
                  .out.find("\n        \"prefix\": \"gr\u00f6\u00dfer\"\n"),
              std::string::npos);
}

TEST_F(Graph, IsDrawnByGraphviz)
{
    const ProcessResult result = run({"graph", "--format", "svg", "nested.toml"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("<svg"), std::string::npos);
    EXPECT_NE(result.out.find(">numbers:Double</text>"), std::string::npos);
}

TEST_F(Graph, NeedsGraphvizForSvg)
{
    expect_result(run_process(draw()), 1, "",
                  "quorval: error: svg needs the program 'dot' of Graphviz\n");
}

TEST_F(Graph, FailsWhenGraphvizFails)
{
    const ProcessOptions options = draw();
    const std::string missing = "svg needs the program 'dot' of Graphviz";
    for (const auto& [program, text] : std::vector<std::pair<std::string, std::string>>{
             {"#!/bin/sh\nexit 1\n", "'dot' failed with exit status 1"},
             {"#!/bin/sh\nexit 5\n", "'dot' failed with exit status 5"},
             // Signals that the command itself ignores.
             {"#!/bin/sh\nkill -PIPE $$\nexit 5\n", "'dot' was ended by signal 13"},
             {"#!/bin/sh\nkill -XFSZ $$\nexit 5\n", "'dot' was ended by signal 25"},
             {"#!/bin/sh\nkill -9 $$\n", "'dot' was ended by signal 9"},
             // What a program that could not be started leaves, where that shows in the child
             // alone.
             {"#!/bin/sh\nexit 127\n", missing},
#ifdef QUORVAL_IS_EMULATED
             {"no program", missing},  // seen in the child alone
#else
             {"no program", "posix_spawnp: Exec format error"},
#endif
             {"#!/no/such/shell\n", missing}}) {
        write_dot(program);
        SCOPED_TRACE(program);
        expect_result(run_process(options), 1, "", "quorval: error: " + text + "\n");
    }
    std::filesystem::permissions(directory() + "/dot", std::filesystem::perms::owner_read);
    expect_result(run_process(options), 1, "", "quorval: error: " + missing + "\n");
    expect_result(run_process(draw(directory() + "/nested.toml")), 1, "",
                  "quorval: error: " + missing + "\n");
}

TEST_F(Graph, IsGivenToGraphvizAsItIs)
{
    write_dot("#!/bin/sh\necho \"$*\"\n/bin/cat\n");

    expect_result(run_process(draw()), 0, std::string("-Tsvg\n") + kDot, "");
}

TEST_F(Graph, IsWrittenWholeAsGraphvizDrawsIt)
{
    write_dot("#!/bin/sh\nprintf x\n");

    expect_result(run_process(draw()), 0, "x", "");
}

TEST_F(Graph, RefusesAnotherFormat)
{
    expect_wrong_use(run({"graph", "--format", "png", "nested.toml"}),
                     "--format has to be one of dot, json, mermaid, svg, not 'png'");
}

TEST_F(Graph, IsNotDrawnWhenItIsWrong)
{
    write("wrong.toml", "format = 1\nblocks.a.type = \"b\"\n");

    expect_result(run({"graph", "wrong.toml"}), 3, "",
                  "wrong.toml:2:17: error: there is no superblock 'b'\n");
}

TEST_F(Graph, IsDrawnWithItsWarnings)
{
    write("doubtful.toml", "format = 1\nblocks.print.type = \"numbers:Print\"\n");

    const ProcessResult result = run({"graph", "doubtful.toml"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "doubtful.toml:2:8: warning: print.in is not connected\n");
    EXPECT_EQ(result.out.rfind("digraph \"doubtful\" {\n", 0), 0U);
}

TEST_F(Graph, FailsWhenOutputCannotBeWritten)
{
    write("empty.toml", "format = 1\n");
    for (const char* file : {"nested.toml", "empty.toml"}) {
        for (const char* format : {"dot", "json", "mermaid", "svg"}) {
            ProcessOptions options = command({"graph", "--format", format, file});
            options.out_file = "/dev/full";
            SCOPED_TRACE(std::string(format) + " of " + file);
            expect_result(run_process(options), 1, "",
                          "quorval: error: cannot write to standard output: No space left on "
                          "device\n");
        }
    }
}

}  // namespace
