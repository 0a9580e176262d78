#include "graph_schema.h"

#include <algorithm>
#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

using nlohmann::json;

constexpr const char* kName = "^[A-Za-z0-9_-]+$";
constexpr const char* kKey = "^[A-Za-z0-9_.-]*$";
constexpr const char* kEnd = R"(^[A-Za-z0-9_-]+\.[^ \t]+$)";
constexpr const char* kArrow = R"(^[A-Za-z0-9_-]+\.[^ \t]+ -> [A-Za-z0-9_-]+\.[^ \t]+$)";
constexpr const char* kBroker =
    R"(^mqtts?://([A-Za-z0-9._-]+|\[[A-Za-z0-9._:%-]+\])(:0*([1-9][0-9]{0,3}|[1-5][0-9]{4}|)"
    R"(6[0-4][0-9]{3}|65[0-4][0-9]{2}|655[0-2][0-9]|6553[0-5]))?$)";
constexpr std::int64_t kLongestQueue = 1'000'000'000;
constexpr std::int64_t kHighestLimit = 268'000'000;

json ref(const std::string& name)
{
    return {{"$ref", "#/$defs/" + name}};
}

/// With a text that editors show.
json described(json schema, const std::string& text)
{
    if (!text.empty()) {
        schema["description"] = text;
    }
    return schema;
}

json typed(const char* type)
{
    return {{"type", type}};
}

json pattern(const std::string& text)
{
    json schema = typed("string");
    schema["pattern"] = text;
    return schema;
}

/// A table that has no other keys.
json table(json properties)
{
    return {
        {"type", "object"}, {"properties", std::move(properties)}, {"additionalProperties", false}};
}

/// A table whose keys are names.
json table_of(json schema)
{
    return {{"type", "object"},
            {"propertyNames", {{"pattern", kName}}},
            {"additionalProperties", std::move(schema)}};
}

json list_of(json schema)
{
    return {{"type", "array"}, {"items", std::move(schema)}};
}

json filled_list_of(json schema)
{
    json list = list_of(std::move(schema));
    list["minItems"] = 1;
    return list;
}

/// What any configuration can hold.
json make_config()
{
    return {{"type", "object"},
            {"propertyNames", {{"pattern", kKey}}},
            {"additionalProperties", ref("value")}};
}

json make_value()
{
    json lists = json::array();
    for (const char* type : {"number", "string", "boolean"}) {
        lists.push_back(filled_list_of(typed(type)));
    }
    lists.push_back(filled_list_of(ref("config")));
    return {{"anyOf",
             {{{"type", {"number", "string", "boolean"}}}, ref("config"), {{"anyOf", lists}}}}};
}

/// One value, or one item of a list.
json make_item(const json& setting, const std::string& type)
{
    if (type == "bool" || type == "BoolVector") {
        return typed("boolean");
    }
    if (type == "string" || type == "StringVector") {
        json item = typed("string");
        if (setting.contains("choices")) {
            item["enum"] = setting["choices"];
        }
        return item;
    }
    const bool is_whole = type == "int" || type == "IntVector";
    json item = typed(is_whole ? "integer" : "number");
    if (setting.contains("minimum")) {
        item["minimum"] = setting["minimum"];
        item["maximum"] = setting["maximum"];
    } else if (is_whole) {
        item["minimum"] = std::numeric_limits<int>::min();
        item["maximum"] = std::numeric_limits<int>::max();
    } else {  // an infinity is none
        item["minimum"] = -DBL_MAX;
        item["maximum"] = DBL_MAX;
    }
    return item;
}

/// The value of a setting.
json make_setting(const json& setting)
{
    const std::string type = setting["type"];
    json schema = make_item(setting, type);
    if (type.find("Vector") != std::string::npos) {
        schema = filled_list_of(std::move(schema));
        if (setting.contains("minimum_items")) {
            schema["minItems"] = std::max(1, setting["minimum_items"].get<int>());
            schema["maxItems"] = setting["maximum_items"];
        }
    }
    if (setting.contains("default")) {
        schema["default"] = setting["default"];
    }
    return described(std::move(schema), setting.value("text", ""));
}

bool is_number(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// Declared settings, by what is left of their keys.
using Settings = std::vector<std::pair<std::string, const json*>>;

json make_properties(const Settings& settings);

/// The table of the keys that begin alike; a list of tables where the next part counts.
json make_subtree(const Settings& settings)
{
    json subtree = table(make_properties(settings));
    for (const auto& [key, setting] : settings) {
        if (is_number(key.substr(0, key.find('.')))) {
            return {{"anyOf", {std::move(subtree), list_of(typed("object"))}}};
        }
    }
    return subtree;
}

/// A dotted key can be written in tables or quoted, as a whole or in parts.
json make_properties(const Settings& settings)
{
    json properties = json::object();
    std::map<std::string, Settings> subtrees;
    for (const auto& [key, setting] : settings) {
        properties[key] = make_setting(*setting);
        for (std::size_t stop = key.find('.'); stop != std::string::npos;
             stop = key.find('.', stop + 1)) {
            subtrees[key.substr(0, stop)].emplace_back(key.substr(stop + 1), setting);
        }
    }
    for (const auto& [key, rest] : subtrees) {
        json subtree = make_subtree(rest);
        json& property = properties[key];
        property = property.is_null() ? std::move(subtree)
                                      : json{{"anyOf", {std::move(property), std::move(subtree)}}};
    }
    return properties;
}

/// The configuration of a block of a type that declares its settings.
json make_config_of(const json& type)
{
    Settings settings;
    for (const json& setting : type["settings"]) {
        settings.emplace_back(setting["key"].get<std::string>(), &setting);
    }
    json properties = make_properties(settings);
    if (!properties.contains("pstore_path")) {
        properties["pstore_path"] = typed("string");
    }
    return described(table(std::move(properties)), type.value("summary", ""));
}

/// The texts that `type` may be.
json make_type(const json& plugins)
{
    json known = json::array();
    std::string names;
    for (const json& plugin : plugins) {
        const std::string name = plugin["name"];
        names += (names.empty() ? "" : "|") + name;
        for (const json& type : plugin["types"]) {
            known.push_back(described({{"const", name + ":" + type["type"].get<std::string>()}},
                                      type.value("summary", "")));
        }
    }
    json other = pattern(R"(^[A-Za-z0-9_-]+(:[\s\S]+)?$)");
    if (!names.empty()) {
        other["not"] = {{"pattern", "^(" + names + "):"}};
    }
    known.push_back(std::move(other));
    return {{"anyOf", std::move(known)}};
}

/// What the type of a block says about its configuration.
json make_rules(const json& plugins)
{
    json rules = json::array();
    for (const json& plugin : plugins) {
        for (const json& type : plugin["types"]) {
            if (type.contains("settings")) {
                const std::string name =
                    plugin["name"].get<std::string>() + ":" + type["type"].get<std::string>();
                rules.push_back(
                    {{"if",
                      {{"properties", {{"type", {{"const", name}}}}}, {"required", {"type"}}}},
                     {"then", {{"properties", {{"config", make_config_of(type)}}}}}});
            }
        }
    }
    return rules.empty() ? json::object() : json{{"allOf", std::move(rules)}};
}

/// A block; nothing of it is required, as another file may bring it.
json make_member()
{
    json member =
        table({{"type", ref("type")}, {"config", ref("config")}, {"on_error", ref("on_error")}});
    member["$ref"] = "#/$defs/rules";
    return member;
}

/// One at the top of a graph.
json make_top_member()
{
    json member = make_member();
    member["properties"]["machine"] = typed("string");
    return member;
}

json make_connection()
{
    json written = table({{"from", pattern(kEnd)},
                          {"to", pattern(kEnd)},
                          {"delayed", typed("boolean")},
                          {"delivery", {{"enum", {"all", "latest"}}}}});
    written["required"] = {"from", "to"};
    return {{"anyOf", {pattern(kArrow), std::move(written)}}};
}

json make_superblock()
{
    return table(
        {{"blocks", table_of(make_member())},
         {"connections", list_of(ref("connection"))},
         {"inports", table_of({{"anyOf", {pattern(kEnd), filled_list_of(pattern(kEnd))}}})},
         {"outports", table_of(pattern(kEnd))}});
}

json make_size(std::int64_t most)
{
    return {{"type", "integer"}, {"minimum", 1}, {"maximum", most}};
}

json make_link()
{
    json properties = {{"broker", pattern(kBroker)},
                       {"queue", make_size(kLongestQueue)},
                       {"limit", make_size(kHighestLimit)}};
    for (const char* key : {"ca", "cert", "key", "user", "password_file"}) {
        properties[key] = typed("string");
    }
    return table(std::move(properties));
}

json make_file()
{
    json file = table({
        {"format", described({{"const", 1}}, "the format of the file")},
        {"name", described(pattern(kName), "the name of the graph")},
        {"include", described(list_of(typed("string")), "files that are merged before")},
        {"on_error", ref("on_error")},
        {"connections", list_of(ref("connection"))},
        {"blocks", table_of(make_top_member())},
        {"superblocks", table_of(make_superblock())},
        {"machines", table_of(table(json::object()))},
        {"link", make_link()},
    });
    file["required"] = {"format"};
    return file;
}

}  // namespace

json make_graph_schema(const json& plugins)
{
    json schema = make_file();
    schema["$schema"] = "https://json-schema.org/draft/2020-12/schema";
    schema["title"] = "Graph file of quorval";
    schema["$defs"] = {
        {"config", make_config()},
        {"value", make_value()},
        {"type", make_type(plugins)},
        {"rules", make_rules(plugins)},
        {"connection", make_connection()},
        {"on_error", described({{"enum", {"stop", "skip"}}}, "what happens when a block fails")}};
    return schema;
}
