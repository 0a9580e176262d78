#include "inspect_text.h"

#include <string>
#include <vector>

namespace {

using nlohmann::json;

constexpr unsigned kIndent = 4;

/// A member that may not be there.
const json& list_in(const json& object, const char* member)
{
    static const json kNone = json::array();
    const auto found = object.find(member);
    return found != object.end() ? *found : kNone;
}

std::string text_of(const json& value)
{
    if (!value.is_array()) {
        return value.dump(-1, ' ', false, json::error_handler_t::replace);
    }
    std::string list;
    for (const json& item : value) {
        list += (list.empty() ? "" : ", ") + text_of(item);
    }
    return "[" + list + "]";
}

std::string bare(const json& value)
{
    return value.is_string() ? value.get<std::string>() : text_of(value);
}

std::string text_of_list(const json& values)
{
    std::string list;
    for (const json& value : values) {
        list += (list.empty() ? "" : ", ") + bare(value);
    }
    return list;
}

/// "double, default 1.0, from -1000.0 to 1000.0, live"
std::string facts_of(const json& setting)
{
    std::string facts = setting["type"];
    if (setting.value("required", false)) {
        facts += ", required";
    }
    if (setting.contains("default")) {
        facts += ", default " + text_of(setting["default"]);
    }
    if (setting.contains("minimum")) {
        facts += ", from " + text_of(setting["minimum"]) + " to " + text_of(setting["maximum"]);
    }
    if (setting.contains("choices")) {
        facts += ", one of " + text_of_list(setting["choices"]);
    }
    if (setting.contains("minimum_items")) {
        facts += ", of " + text_of(setting["minimum_items"]) + " to " +
                 text_of(setting["maximum_items"]) + " items";
    }
    return facts + (setting.value("live", false) ? ", live" : "");
}

void add_part(Page& page, const std::string& title, const std::vector<Page::Row>& rows)
{
    if (!rows.empty()) {
        page.add_paragraph(kIndent, title);
        page.add_rows(2 * kIndent, rows);
    }
}

void add_ports(Page& page, const std::string& title, const json& type, const char* member)
{
    std::vector<Page::Row> rows;
    const json ports = type.value(member, json::object());
    for (const auto& [name, datatype] : ports.items()) {
        rows.emplace_back(name, std::vector<std::string>{bare(datatype)});
    }
    add_part(page, title, rows);
}

void add_settings(Page& page, const json& type)
{
    std::vector<Page::Row> rows;
    for (const json& setting : list_in(type, "settings")) {
        std::vector<std::string> paragraphs = {facts_of(setting)};
        std::string text = setting.value("text", "");
        if (!text.empty()) {
            paragraphs.push_back(std::move(text));
        }
        rows.emplace_back(setting["key"].get<std::string>(), std::move(paragraphs));
    }
    add_part(page, "settings", rows);
}

void add_objects(Page& page, const json& type)
{
    std::vector<Page::Row> rows;
    for (const json& object : list_in(type, "dbus")) {
        rows.emplace_back(object["path"].get<std::string>(),
                          std::vector<std::string>{object["interface"].get<std::string>()});
    }
    add_part(page, "D-Bus", rows);
}

void show_type(const json& type, Page& page)
{
    page.add_title(0, type["type"]);
    if (type.contains("summary")) {
        page.add_paragraph(kIndent, type["summary"]);
    }
    add_ports(page, "inputs", type, "inports");
    add_ports(page, "outputs", type, "outports");
    add_ports(page, "descriptors", type, "fdports");
    add_settings(page, type);
    add_objects(page, type);
    if (type.contains("problem")) {
        page.add_problem(kIndent, type["problem"]);
    }
}

}  // namespace

void show_plugins(const json& plugins, Page& page)
{
    for (const json& plugin : plugins) {
        page.add_gap();
        page.add_title(0, plugin["name"], plugin.value("file", ""));
        std::vector<Page::Row> rows;
        for (const json& type : list_in(plugin, "types")) {
            rows.emplace_back(type["type"].get<std::string>(),
                              std::vector<std::string>{type.value("summary", "")});
        }
        page.add_rows(kIndent, rows);
        if (plugin.contains("problem")) {
            page.add_problem(kIndent, plugin["problem"]);
        }
    }
}

void show_plugin(const json& plugin, Page& page)
{
    page.add_title(0, plugin["name"]);
    std::vector<Page::Row> rows = {{"file", {bare(plugin["file"])}}};
    const json note = plugin.value("note", json::object());
    for (const auto& [title, member] :
         {std::pair("interface", "interface"), std::pair("standard library", "standard_library"),
          std::pair("compiler", "compiler"), std::pair("version", "version")}) {
        if (note.contains(member)) {
            rows.push_back({title, {bare(note[member])}});
        }
    }
    page.add_rows(kIndent, rows);
    for (const json& type : list_in(plugin, "types")) {
        page.add_gap();
        show_type(type, page);
    }
}
