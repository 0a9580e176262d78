// The form of graph files, whole, and how the command writes it.
#include "graph_schema.h"

#include "command/command_test.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using nlohmann::json;
using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;

TEST(GraphSchema, IsTheFormOfAGraphWithoutPlugins)
{
    EXPECT_EQ(make_graph_schema(json::array()),
              json::parse(
                  R"schema({"$defs": {"config": {"additionalProperties": {"$ref": "#/$defs/value"},
   "propertyNames": {"pattern": "^[A-Za-z0-9_.-]*$"},
   "type": "object"},
  "connection": {"anyOf": [{"pattern": "^[A-Za-z0-9_-]+\\.[^ \\t]+ -> [A-Za-z0-9_-]+\\.[^ \\t]+$",
     "type": "string"},
    {"additionalProperties": false,
     "properties": {"delayed": {"type": "boolean"},
      "delivery": {"enum": ["all", "latest"]},
      "from": {"pattern": "^[A-Za-z0-9_-]+\\.[^ \\t]+$", "type": "string"},
      "to": {"pattern": "^[A-Za-z0-9_-]+\\.[^ \\t]+$", "type": "string"}},
     "required": ["from", "to"],
     "type": "object"}]},
  "on_error": {"description": "what happens when a block fails", "enum": ["stop", "skip"]},
  "rules": {},
  "type": {"anyOf": [{"pattern": "^[A-Za-z0-9_-]+(:[\\s\\S]+)?$", "type": "string"}]},
  "value": {"anyOf": [{"type": ["number", "string", "boolean"]},
    {"$ref": "#/$defs/config"},
    {"anyOf": [{"items": {"type": "number"}, "minItems": 1, "type": "array"},
      {"items": {"type": "string"}, "minItems": 1, "type": "array"},
      {"items": {"type": "boolean"}, "minItems": 1, "type": "array"},
      {"items": {"$ref": "#/$defs/config"}, "minItems": 1, "type": "array"}]}]}},
 "$schema": "https://json-schema.org/draft/2020-12/schema",
 "additionalProperties": false,
 "properties": {"blocks": {"additionalProperties": {"$ref": "#/$defs/rules",
    "additionalProperties": false,
    "properties": {"config": {"$ref": "#/$defs/config"},
     "machine": {"type": "string"},
     "on_error": {"$ref": "#/$defs/on_error"},
     "type": {"$ref": "#/$defs/type"}},
    "type": "object"},
   "propertyNames": {"pattern": "^[A-Za-z0-9_-]+$"},
   "type": "object"},
  "connections": {"items": {"$ref": "#/$defs/connection"}, "type": "array"},
  "format": {"const": 1, "description": "the format of the file"},
  "include": {"description": "files that are merged before",
   "items": {"type": "string"},
   "type": "array"},
  "link": {"additionalProperties": false,
   "properties": {"broker": {"pattern": "^mqtts?://([A-Za-z0-9._-]+|\\[[A-Za-z0-9._:%-]+\\])(:0*([1-9][0-9]{0,3}|[1-5][0-9]{4}|6[0-4][0-9]{3}|65[0-4][0-9]{2}|655[0-2][0-9]|6553[0-5]))?$",
     "type": "string"},
    "ca": {"type": "string"},
    "cert": {"type": "string"},
    "key": {"type": "string"},
    "limit": {"maximum": 268000000, "minimum": 1, "type": "integer"},
    "password_file": {"type": "string"},
    "queue": {"maximum": 1000000000, "minimum": 1, "type": "integer"},
    "user": {"type": "string"}},
   "type": "object"},
  "machines": {"additionalProperties": {"additionalProperties": false, "properties": {}, "type": "object"},
   "propertyNames": {"pattern": "^[A-Za-z0-9_-]+$"},
   "type": "object"},
  "name": {"description": "the name of the graph",
   "pattern": "^[A-Za-z0-9_-]+$",
   "type": "string"},
  "on_error": {"$ref": "#/$defs/on_error"},
  "superblocks": {"additionalProperties": {"additionalProperties": false,
    "properties": {"blocks": {"additionalProperties": {"$ref": "#/$defs/rules",
       "additionalProperties": false,
       "properties": {"config": {"$ref": "#/$defs/config"},
        "on_error": {"$ref": "#/$defs/on_error"},
        "type": {"$ref": "#/$defs/type"}},
       "type": "object"},
      "propertyNames": {"pattern": "^[A-Za-z0-9_-]+$"},
      "type": "object"},
     "connections": {"items": {"$ref": "#/$defs/connection"}, "type": "array"},
     "inports": {"additionalProperties": {"anyOf": [{"pattern": "^[A-Za-z0-9_-]+\\.[^ \\t]+$", "type": "string"},
        {"items": {"pattern": "^[A-Za-z0-9_-]+\\.[^ \\t]+$", "type": "string"},
         "minItems": 1,
         "type": "array"}]},
      "propertyNames": {"pattern": "^[A-Za-z0-9_-]+$"},
      "type": "object"},
     "outports": {"additionalProperties": {"pattern": "^[A-Za-z0-9_-]+\\.[^ \\t]+$", "type": "string"},
      "propertyNames": {"pattern": "^[A-Za-z0-9_-]+$"},
      "type": "object"}},
    "type": "object"},
   "propertyNames": {"pattern": "^[A-Za-z0-9_-]+$"},
   "type": "object"}},
 "required": ["format"],
 "title": "Graph file of quorval",
 "type": "object"})schema"));
}

TEST(GraphSchema, KnowsTheSettingsOfTypes)
{
    const json plugins = json::parse(R"([
        {"name": "a", "types": [
            {"type": "T", "summary": "Does.", "settings": [
                {"key": "flag", "type": "bool", "text": "yes or no"},
                {"key": "flags", "type": "BoolVector", "text": ""},
                {"key": "text", "type": "string", "default": "x"},
                {"key": "texts", "type": "StringVector", "choices": ["x", "y"]},
                {"key": "whole", "type": "int"},
                {"key": "wholes", "type": "IntVector", "minimum": 0, "maximum": 9,
                 "minimum_items": 0, "maximum_items": 3},
                {"key": "real", "type": "double"},
                {"key": "reals", "type": "DoubleVector", "minimum_items": 2, "maximum_items": 4}]},
            {"type": "U"}]},
        {"name": "b", "types": [
            {"type": "T", "settings": [
                {"key": "pstore_path", "type": "string", "choices": ["/s/"]},
                {"key": "x.yy.z", "type": "int"},
                {"key": "x", "type": "bool"},
                {"key": "e..k", "type": "bool"},
                {"key": "in.10.k", "type": "bool"}]}]}])");
    const json schema = make_graph_schema(plugins);

    EXPECT_EQ(schema["$defs"]["type"],
              json::parse(R"schema({"anyOf": [{"const": "a:T", "description": "Does."},
  {"const": "a:U"},
  {"const": "b:T"},
  {"not": {"pattern": "^(a|b):"},
   "pattern": "^[A-Za-z0-9_-]+(:[\\s\\S]+)?$",
   "type": "string"}]})schema"));
    EXPECT_EQ(
        schema["$defs"]["rules"],
        json::parse(
            R"schema({"allOf": [{"if": {"properties": {"type": {"const": "a:T"}}, "required": ["type"]},
   "then": {"properties": {"config": {"additionalProperties": false,
      "description": "Does.",
      "properties": {"flag": {"description": "yes or no", "type": "boolean"},
       "flags": {"items": {"type": "boolean"}, "minItems": 1, "type": "array"},
       "pstore_path": {"type": "string"},
       "real": {"maximum": 1.7976931348623157e+308,
        "minimum": -1.7976931348623157e+308,
        "type": "number"},
       "reals": {"items": {"maximum": 1.7976931348623157e+308,
         "minimum": -1.7976931348623157e+308,
         "type": "number"},
        "maxItems": 4,
        "minItems": 2,
        "type": "array"},
       "text": {"default": "x", "type": "string"},
       "texts": {"items": {"enum": ["x", "y"], "type": "string"}, "minItems": 1, "type": "array"},
       "whole": {"maximum": 2147483647, "minimum": -2147483648, "type": "integer"},
       "wholes": {"items": {"maximum": 9, "minimum": 0, "type": "integer"},
        "maxItems": 3,
        "minItems": 1,
        "type": "array"}},
      "type": "object"}}}},
  {"if": {"properties": {"type": {"const": "b:T"}}, "required": ["type"]},
   "then": {"properties": {"config": {"additionalProperties": false,
      "properties": {"e": {"additionalProperties": false,
        "properties": {"": {"additionalProperties": false,
          "properties": {"k": {"type": "boolean"}},
          "type": "object"},
         ".k": {"type": "boolean"}},
        "type": "object"},
       "e.": {"additionalProperties": false,
        "properties": {"k": {"type": "boolean"}},
        "type": "object"},
       "e..k": {"type": "boolean"},
       "in": {"anyOf": [{"additionalProperties": false,
          "properties": {"10": {"additionalProperties": false,
            "properties": {"k": {"type": "boolean"}},
            "type": "object"},
           "10.k": {"type": "boolean"}},
          "type": "object"},
         {"items": {"type": "object"}, "type": "array"}]},
       "in.10": {"additionalProperties": false,
        "properties": {"k": {"type": "boolean"}},
        "type": "object"},
       "in.10.k": {"type": "boolean"},
       "pstore_path": {"enum": ["/s/"], "type": "string"},
       "x": {"anyOf": [{"type": "boolean"},
         {"additionalProperties": false,
          "properties": {"yy": {"additionalProperties": false,
            "properties": {"z": {"maximum": 2147483647, "minimum": -2147483648, "type": "integer"}},
            "type": "object"},
           "yy.z": {"maximum": 2147483647, "minimum": -2147483648, "type": "integer"}},
          "type": "object"}]},
       "x.yy": {"additionalProperties": false,
        "properties": {"z": {"maximum": 2147483647, "minimum": -2147483648, "type": "integer"}},
        "type": "object"},
       "x.yy.z": {"maximum": 2147483647, "minimum": -2147483648, "type": "integer"}},
      "type": "object"}}}}]})schema"));
}

using Schema = CommandTest;

TEST_F(Schema, IsWrittenForThePluginsThatAreNamed)
{
    const std::string path = QUORVAL_TEST_PLUGIN_DIR "/schema";
    const json declared =
        json::parse(run({"inspect", "--json", "--plugin-path", path, "declares"}).out);

    expect_result(run({"schema"}), 0, make_graph_schema(json::array()).dump(2) + "\n", "");
    expect_result(run({"schema", "--plugin-path", path, "declares"}), 0,
                  make_graph_schema(declared["plugins"]).dump(2) + "\n", "");
}

TEST_F(Schema, NeedsPluginsThatCanBeUsed)
{
    expect_result(run({"schema", "exits", "numbers", "crashes"}), 3, "",
                  "quorval: error: plug-in 'exits' called exit while it was loaded\n"
                  "quorval: error: plug-in 'crashes' crashed while it was loaded: "
                  "signal 11 (SIGSEGV)\n");
}

/// Where one that ends the process could be made, it is not.
TEST_F(Schema, MakesNoBlocks)
{
    EXPECT_EQ(run({"schema", "shapes"}).status, 0);
}

TEST_F(Schema, RefusesWrongUse)
{
    expect_wrong_use(run({"schema", "numbers", "a.b"}),
                     "'a.b' is not a valid name (letters, digits, '_' and '-')");
    expect_wrong_use(run({"schema", "--set", "count"}), "'count' is not of the form KEY=VALUE");
}

}  // namespace
