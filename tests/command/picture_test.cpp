#include "picture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

namespace {

/// Two blocks whose names and types hold marks of the languages of pictures.
Picture odd_picture()
{
    Picture picture;
    picture.name = "a\"b";
    picture.blocks = {{"left", "plug:A\\B", {}, {{"o\"", "t<"}}, {}, {}, ""},
                      {"right", "plug:#&>`", {{"i\n", "t<"}}, {}, {}, {}, ""}};
    picture.wires = {{"left", "o\"", "right", "i\n", "t<", false}};
    return picture;
}

TEST(Dot, EscapesWhatEndsATextOrBeginsASequence)
{
    EXPECT_EQ(to_dot(odd_picture()), R"dot(digraph "a\"b" {
    rankdir=LR;
    node [shape=box];
    "left" [label="left\nplug:A\\B"];
    "right" [label="right\nplug:#&>`"];
    "left" -> "right" [label="o\" -> i\\x0A\nt<"];
}
)dot");
}

TEST(Mermaid, NamesMarksByTheirNumber)
{
    EXPECT_EQ(to_mermaid(odd_picture()), R"(flowchart LR
    b0["left<br/>plug:A#92;B"]
    b1["right<br/>plug:#35;#38;#62;#96;"]
    b0 -->|"o#34; -#62; i#92;x0A<br/>t#60;"| b1
)");
}

TEST(PictureAsJson, KeepsTextsAsTheyAre)
{
    const auto graph = nlohmann::json::parse(to_json(odd_picture()));

    EXPECT_EQ(graph["name"], "a\"b");
    EXPECT_EQ(graph["blocks"][0]["type"], "plug:A\\B");
    EXPECT_EQ(graph["connections"][0],
              (nlohmann::json{
                  {"from", "left.o\""}, {"to", "right.i\n"}, {"type", "t<"}, {"delayed", false}}));
}

TEST(PictureAsJson, PutsAMarkInPlaceOfBytesThatAreNoUtf8)
{
    Picture picture;
    picture.name = "a\xff";

    EXPECT_EQ(to_json(picture),
              "{\n  \"blocks\": [],\n  \"connections\": [],\n  \"format\": 1,\n"
              "  \"name\": \"a\xef\xbf\xbd\"\n}\n");
}

TEST(Pictures, OfNothingAreWhole)
{
    Picture picture;
    picture.name = "none";

    EXPECT_EQ(to_dot(picture), "digraph \"none\" {\n    rankdir=LR;\n    node [shape=box];\n}\n");
    EXPECT_EQ(to_mermaid(picture), "flowchart LR\n");
}

}  // namespace
