#include "runtime/graph/single_faults.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

namespace quorval_test {

namespace {

using At = ExpectedLine::At;
using Lines = std::vector<ExpectedLine>;
using Names = std::vector<std::string>;
using Change = std::function<void(WrittenGraph&)>;

const std::string kGain = "parts:Gain";
const std::string kPorts = "parts:Ports";

std::string quote(const std::string& text)
{
    return "\"" + text + "\"";
}

std::string unquote(const std::string& value)
{
    return value.substr(1, value.size() - 2);
}

std::string last_key(const std::string& part)
{
    return part.substr(part.find_last_of(".:") + 1);
}

/// "FILE:KEYS" without the file.
std::string keys_of(const std::string& part)
{
    return part.substr(part.find(':') + 1);
}

std::string below(const std::string& path, const std::string& name)
{
    return path.empty() ? name : path + "/" + name;
}

bool starts_with(const std::string& text, const std::string& begin)
{
    return text.rfind(begin, 0) == 0;
}

/// What is said of a name that is not known. Names are near only where one has one letter more.
std::string near_one(const std::string& name, const Names& known)
{
    for (const std::string& one : known) {
        if ((one == name + "x" && name.size() >= 3) || one + "x" == name) {
            return "; did you mean '" + one + "'?";
        }
    }
    return "";
}

std::string advice(const std::string& name, Names known)
{
    const std::string near = near_one(name, known);
    if (!near.empty()) {
        return near;
    }
    std::sort(known.begin(), known.end());
    std::string list;
    for (const std::string& one : known) {
        list += (list.empty() ? "" : ", ") + one;
    }
    return "; it has " + (list.empty() ? "none" : list);
}

Names with_renamed(Names names, const std::string& from, const std::string& to)
{
    std::replace(names.begin(), names.end(), from, to);
    return names;
}

/// An end of a connection or of an exposed port.
struct End {
    std::string part;
    std::string block;
    std::string port;
    bool is_output = false;
};

/// A port of a plain block, and where that is described.
struct PlainPort {
    std::string path;
    std::string port;
    std::string block_part;

    std::string name() const { return path + "." + port; }
};

/// What a right graph means. A composite is named by its keys: "" or "superblocks.NAME".
class Meaning {
public:
    explicit Meaning(const WrittenGraph& graph) : graph_(graph) {}

    Names composites() const
    {
        Names all = {""};
        for (const std::string& kind : names_in("superblocks")) {
            all.push_back("superblocks." + kind);
        }
        return all;
    }

    /// The names in the tables of these keys, of all files.
    Names names_in(const std::string& keys) const
    {
        Names names;
        for (const std::string& table : graph_.all(keys)) {
            for (const Part& part : graph_.at(table).parts) {
                names.push_back(part.key);
            }
        }
        return names;
    }

    Names members(const std::string& composite) const
    {
        return names_in(join(composite, "blocks"));
    }

    std::string part_of(const std::string& composite, const std::string& member) const
    {
        return graph_.all(join(composite, "blocks." + member)).front();
    }

    std::string type_of(const std::string& composite, const std::string& member) const
    {
        return unquote(graph_.at(part_of(composite, member) + ".type").value);
    }

    /// The paths at which the graph has the composite.
    Names places(const std::string& composite) const
    {
        if (composite.empty()) {
            return {""};
        }
        Names paths;
        for (const std::string& outer : composites()) {
            for (const std::string& member : members(outer)) {
                if (join("superblocks", type_of(outer, member)) == composite) {
                    for (const std::string& place : places(outer)) {
                        paths.push_back(below(place, member));
                    }
                }
            }
        }
        return paths;
    }

    std::vector<End> ends(const std::string& composite) const
    {
        std::vector<End> all;
        for (const std::string& list : graph_.all(join(composite, "connections"))) {
            for (const Part& item : graph_.at(list).parts) {
                const auto [from, to] = ends_of(join(list, item.key));
                all.push_back(from);
                all.push_back(to);
            }
        }
        for (const char* ports : {"inports", "outports"}) {
            for (const std::string& table : graph_.all(join(composite, ports))) {
                for (const std::string& part : graph_.below(table)) {
                    if (graph_.at(part).kind == Part::Kind::Value) {
                        all.push_back(to_end(part, unquote(graph_.at(part).value),
                                             std::string(ports) == "outports"));
                    }
                }
            }
        }
        return all;
    }

    std::pair<End, End> ends_of(const std::string& connection) const
    {
        const Part& part = graph_.at(connection);
        if (part.kind == Part::Kind::Table) {
            return {to_end(connection + ".from", unquote(part.find("from")->value), true),
                    to_end(connection + ".to", unquote(part.find("to")->value), false)};
        }
        const std::string text = unquote(part.value);
        const std::size_t arrow = text.find(" -> ");
        return {to_end(connection, text.substr(0, arrow), true),
                to_end(connection, text.substr(arrow + 4), false)};
    }

    /// The plain ports behind an end, in the composite at one place.
    std::vector<PlainPort> plain_ports(const std::string& composite, const std::string& place,
                                       const End& end) const
    {
        const std::string path = below(place, end.block);
        const std::string type = type_of(composite, end.block);
        if (type.find(':') != std::string::npos) {
            return {{path, end.port, part_of(composite, end.block)}};
        }
        const std::string inner = "superblocks." + type;
        const std::string keys = inner + (end.is_output ? ".outports." : ".inports.") + end.port;
        std::vector<PlainPort> ports;
        for (const End& exposed : ends(inner)) {
            const std::string name = keys_of(exposed.part);
            if (name == keys || starts_with(name, keys + ".")) {
                for (const PlainPort& port : plain_ports(inner, path, exposed)) {
                    ports.push_back(port);
                }
            }
        }
        return ports;
    }

    /// The names of the inputs or outputs of a member.
    Names ports_of(const std::string& composite, const std::string& member, bool is_output) const
    {
        const std::string type = type_of(composite, member);
        if (type.find(':') == std::string::npos) {
            return names_in("superblocks." + type + (is_output ? ".outports" : ".inports"));
        }
        if (type == kGain) {
            return {is_output ? "out" : "in"};
        }
        Names names;
        const Names lists = graph_.all(
            join(composite, "blocks." + member + ".config." + (is_output ? "outputs" : "inputs")));
        for (const std::string& list : lists) {
            const std::string text = graph_.at(list).value;
            for (std::size_t at = text.find('"'); at != std::string::npos;) {
                names.push_back(text.substr(at + 1, text.find(':', at) - at - 1));
                at = text.find('"', text.find('"', at + 1) + 1);
            }
        }
        return names;
    }

private:
    static End to_end(const std::string& part, const std::string& text, bool is_output)
    {
        const std::size_t stop = text.find('.');
        return {part, text.substr(0, stop), text.substr(stop + 1), is_output};
    }

    const WrittenGraph& graph_;
};

class Generator {
public:
    Generator(const WrittenGraph& right, const GraphNotes& notes)
        : right_(right), notes_(notes), meaning_(right)
    {
    }

    std::vector<SingleFault> generate()
    {
        for (const std::string& file : files()) {
            add_faults_of_file(file);
        }
        for (const std::string& composite : meaning_.composites()) {
            add_faults_of_connections(composite);
            for (const std::string& member : meaning_.members(composite)) {
                add_faults_of_member(composite, member);
            }
        }
        for (const std::string& kind : meaning_.names_in("superblocks")) {
            add_faults_of_kind(kind);
        }
        for (const std::string& machine : meaning_.names_in("machines")) {
            add_faults_of_machine(machine);
        }
        add_faults_of_link();
        return std::move(faults_);
    }

private:
    Names files() const
    {
        Names names;
        for (const std::string& format : right_.all("format")) {
            names.push_back(format.substr(0, format.find(':') + 1));
        }
        return names;
    }

    // --- faults of any part ---

    void add(const std::string& name, Change change, Lines lines)
    {
        faults_.push_back({name, std::move(change), std::move(lines)});
    }

    static ExpectedLine error(const std::string& part, const std::string& text, At at = At::Value)
    {
        return {part, at, "error: " + text};
    }

    static std::string renamed(const std::string& part, const std::string& key)
    {
        return part.substr(0, part.size() - last_key(part).size()) + key;
    }

    void add_replaced(const std::string& part, const std::string& value, Lines lines)
    {
        add(
            part + " = " + value, [=](WrittenGraph& graph) { graph.set(part, value); },
            std::move(lines));
    }

    void add_dropped(const std::string& part, Lines lines)
    {
        add(
            "without " + part, [=](WrittenGraph& graph) { graph.drop(part); }, std::move(lines));
    }

    void add_renamed(const std::string& part, const std::string& key, Lines lines)
    {
        add(
            part + " called " + key, [=](WrittenGraph& graph) { graph.rename(part, key); },
            std::move(lines));
    }

    /// Values of all kinds but those that may stand there.
    void add_wrong_kinds(const std::string& part, const std::string& kinds)
    {
        static const std::vector<std::pair<std::string, std::string>> kValues = {
            {"a string", "\"text\""}, {"a boolean", "true"}, {"an integer", "7"},
            {"a list", "[]"},         {"a table", "{}"},     {"a number", "1.5"},
            {"a date", "1979-05-27"}, {"a time", "07:32:00"}};
        const bool is_item =
            right_.at(part).key.find_first_not_of("0123456789") == std::string::npos;
        const std::string key = last_key(is_item ? part.substr(0, part.rfind('.')) : part);
        for (const auto& [kind, value] : kValues) {
            if (kinds.find(kind) == std::string::npos) {
                add_replaced(part, value, {error(part, "'" + key + "' has to be " + kinds)});
            }
        }
    }

    /// A known key of the format, misspelt so that it is recognised: nothing else is found.
    void add_misspelt(const std::string& part)
    {
        const std::string key = last_key(part);
        const Lines lines = {error(renamed(part, key + "x"),
                                   "unknown key '" + key + "x'; did you mean '" + key + "'?",
                                   At::Key)};
        add_renamed(part, key + "x", lines);
        if (right_.at(part).parts.size() > 1) {
            for (const Part& member : right_.at(part).parts) {
                add_parted(part, member, key + "x", lines);
            }
        }
    }

    /// A table or list with one member in another one beside it.
    void add_parted(const std::string& table, const Part& member, const std::string& key,
                    const Lines& lines)
    {
        Part other = right_.at(table);
        other.key = key;
        other.parts = {member};
        add(
            join(table, member.key) + " in " + key,
            [=](WrittenGraph& graph) {
                graph.drop(join(table, other.parts.front().key));
                graph.insert(table_of(table), other, last_key(table));
            },
            lines);
    }

    /// Another key in its place.
    void add_unheard(const std::string& part, Lines lines)
    {
        lines.push_back(error(renamed(part, "unheard"), "unknown key 'unheard'", At::Key));
        add_renamed(part, "unheard", std::move(lines));
    }

    void add_unknown(const std::string& table, const std::string& text, At at)
    {
        add("more in " + table,
            [=](WrittenGraph& graph) {
                graph.insert(table, {"unheard", "1", Part::Kind::Value, {}, {}, {}, {}});
            },
            {error(join(table, "unheard"), text, at)});
    }

    void add_unknown_key(const std::string& table)
    {
        add_unknown(table, "unknown key 'unheard'", At::Key);
    }

    void add_not_one_of(const std::string& part, const std::string& words)
    {
        add_replaced(part, "\"other\"",
                     {error(part, "'" + last_key(part) + "' has to be one of " + words)});
        add_wrong_kinds(part, "a string");
        add_misspelt(part);
        add_dropped(part, {});
    }

    static std::string invalid_name(const std::string& name)
    {
        return "'" + name + "' is not a valid name (letters, digits, '_' and '-')";
    }

    // --- what follows from what is missing, and is reported ---

    /// Inputs that a connection fed before.
    Lines unfed(const std::string& composite, const std::string& connection) const
    {
        Lines lines;
        for (const std::string& place : meaning_.places(composite)) {
            const End to = meaning_.ends_of(connection).second;
            for (const PlainPort& port : meaning_.plain_ports(composite, place, to)) {
                lines.push_back(
                    {port.block_part, At::Key, "warning: " + port.name() + " is not connected"});
            }
        }
        return lines;
    }

    /// Ends that name a member which is called otherwise now, or is not there.
    Lines ends_without_block(const std::string& composite, const std::string& member,
                             const std::string& new_name = {}) const
    {
        Lines lines;
        const Names names = with_renamed(meaning_.members(composite), member, new_name);
        for (const End& end : meaning_.ends(composite)) {
            if (end.block == member && !meaning_.places(composite).empty()) {
                lines.push_back(error(
                    end.part, "there is no block '" + member + "'" + near_one(member, names)));
            }
        }
        return lines;
    }

    /// Settings of superblocks for a member that is not there.
    Lines settings_without_block(const std::string& composite, const std::string& member) const
    {
        Lines lines;
        for (const std::string& outer : meaning_.composites()) {
            for (const std::string& user : meaning_.members(outer)) {
                for (const std::string& setting : settings_of(outer, user)) {
                    for (const std::string& place : meaning_.places(outer)) {
                        const std::string path = path_to(outer, user, setting, composite, member);
                        if (!path.empty()) {
                            lines.push_back(error(setting,
                                                  "there is no block '" + below(place, path) + "'",
                                                  At::Key));
                        }
                    }
                }
            }
        }
        return lines;
    }

    Names settings_of(const std::string& composite, const std::string& member) const
    {
        Names settings;
        const std::string config = meaning_.part_of(composite, member) + ".config";
        if (has(config)) {
            for (const std::string& part : right_.below(config)) {
                if (right_.at(part).kind == Part::Kind::Value) {
                    settings.push_back(part);
                }
            }
        }
        return settings;
    }

    /// The path from `outer` to a member through which a setting of `user` goes; empty where it
    /// goes elsewhere.
    std::string path_to(std::string outer, std::string user, const std::string& setting,
                        const std::string& composite, const std::string& member) const
    {
        std::string path = user;
        std::string key = key_of(setting);
        while (meaning_.type_of(outer, user).find(':') == std::string::npos) {
            outer = "superblocks." + meaning_.type_of(outer, user);
            user = key.substr(0, key.find('.'));
            path = below(path, user);
            key = key.substr(key.find('.') + 1);
            if (outer == composite && user == member) {
                return path;
            }
        }
        return "";
    }

    Lines without_block(const std::string& composite, const std::string& member,
                        const std::string& new_name = {}) const
    {
        Lines lines = ends_without_block(composite, member, new_name);
        for (ExpectedLine& line : settings_without_block(composite, member)) {
            lines.push_back(std::move(line));
        }
        return lines;
    }

    /// Ends that name a port of a member which is not there any more.
    /// @param ports  what the member has now
    Lines ends_without_port(const std::string& composite, const std::string& member,
                            const std::string& port, bool is_output, const Names& ports) const
    {
        Lines lines;
        for (const End& end : meaning_.ends(composite)) {
            if (end.block == member && end.port == port && end.is_output == is_output) {
                add_no_port(lines, composite, end, ports);
            }
        }
        return lines;
    }

    void add_no_port(Lines& lines, const std::string& composite, const End& end,
                     const Names& ports) const
    {
        for (const std::string& place : meaning_.places(composite)) {
            lines.push_back(error(end.part, "block '" + below(place, end.block) + "' has no " +
                                                (end.is_output ? "output" : "input") + " '" +
                                                end.port + "'" + advice(end.port, ports)));
        }
    }

    /// Members whose kind of superblock is not there.
    Lines types_without_kind(const std::string& kind, const std::string& near = {}) const
    {
        Lines lines;
        for (const std::string& composite : meaning_.composites()) {
            for (const std::string& member : meaning_.members(composite)) {
                if (meaning_.type_of(composite, member) == kind &&
                    !meaning_.places(composite).empty()) {
                    lines.push_back(error(meaning_.part_of(composite, member) + ".type",
                                          "there is no superblock '" + kind + "'" + near));
                }
            }
        }
        return lines;
    }

    // --- files ---

    void add_faults_of_file(const std::string& file)
    {
        add_unknown_key(file);
        add_faults_of_format(file);
        add_doubled_keys(file);
        const std::string name = file + "name";
        if (has(name)) {
            add_replaced(name, "\"a b\"", {error(name, invalid_name("a b"))});
            add_wrong_kinds(name, "a string");
            add_misspelt(name);
            add_unheard(name, {});
            add_dropped(name, {});
        }
        if (has(file + "on_error")) {
            add_not_one_of(file + "on_error", "stop, skip");
        }
        if (has(file + "include")) {
            add_faults_of_include(file, file + "include");
        }
        for (const char* table : {"blocks", "superblocks", "machines"}) {
            if (has(file + table)) {
                add_wrong_kinds(file + table, "a table");
                add_misspelt(file + table);
                add_unknown(file + table, "'unheard' has to be a table", At::Value);
            }
        }
    }

    bool has(const std::string& part) const
    {
        const Names all = right_.all(keys_of(part));
        return std::find(all.begin(), all.end(), part) != all.end();
    }

    void add_faults_of_format(const std::string& file)
    {
        const std::string format = file + "format";
        const ExpectedLine missing = {file, At::Begin, "error: missing key 'format'"};
        add_dropped(format, {missing});
        add_unheard(format, {missing});
        add_misspelt(format);
        add_wrong_kinds(format, "an integer");
        add_replaced(format, "2", {error(format, "format 2 is not supported, only 1 is")});
    }

    /// A key that is there twice: the parser finds that, where the second one stands.
    void add_doubled_keys(const std::string& file)
    {
        for (const std::string& part : right_.below(file)) {
            const Part& copied = right_.at(part);
            const bool is_item = copied.key.find_first_not_of("0123456789") == std::string::npos;
            if (copied.kind != Part::Kind::Value || is_item) {
                continue;
            }
            add("twice " + part,
                [=](WrittenGraph& graph) {
                    const Part copy = graph.at(part);
                    graph.insert(table_of(part), copy, copy.key);
                },
                {error(part, "Error while parsing key-value pair: cannot redefine existing " +
                                 kind_of(copied.value) + " '" + kWrittenKey + "'")});
        }
    }

    /// As the parser calls it.
    static std::string kind_of(const std::string& value)
    {
        switch (value.front()) {
            case '"':
                return "string";
            case '[':
                return "array";
            case '{':
                return "table";
            case 't':
                return "boolean";
            default:
                return value.find('.') == std::string::npos ? "integer" : "floating-point";
        }
    }

    /// The part around another one.
    static std::string table_of(const std::string& part)
    {
        const std::size_t at = part.find_last_of(".:");
        return part.substr(0, part[at] == ':' ? at + 1 : at);
    }

    void add_faults_of_include(const std::string& file, const std::string& include)
    {
        add_wrong_kinds(include, "a list");
        add_misspelt(include);
        for (const Part& item : right_.at(include).parts) {
            const std::string part = join(include, item.key);
            add_wrong_kinds(part, "a string");
            add_replaced(part, "\"nowhere.toml\"",
                         {error(part, "'nowhere.toml' cannot be read: No such file or directory")});
            add_replaced(part, "\".\"", {error(part, "'.' cannot be read: not a regular file")});
        }
        const std::string self = file.substr(0, file.size() - 1);
        add("including itself " + self,
            [=](WrittenGraph& graph) {
                graph.insert(include, {"99", quote(self), Part::Kind::Value, {}, {}, {}, {}});
            },
            {error(join(include, "99"), "'" + self + "' includes itself")});
        add("including twice " + self,
            [=](WrittenGraph& graph) {
                graph.insert(
                    include,
                    {"99", graph.at(include + ".0").value, Part::Kind::Value, {}, {}, {}, {}});
            },
            {});
    }

    // --- connections ---

    void add_faults_of_connections(const std::string& composite)
    {
        for (const std::string& list : right_.all(join(composite, "connections"))) {
            Lines none_fed;
            for (const Part& item : right_.at(list).parts) {
                const std::string connection = join(list, item.key);
                for (const ExpectedLine& line : unfed(composite, connection)) {
                    none_fed.push_back(line);
                }
                add_faults_of_connection(composite, list, connection);
            }
            add_dropped(list, none_fed);
            add_replaced(list, "[]", none_fed);
            add_wrong_kinds(list, "a list");
            add_misspelt(list);
        }
        for (const End& end : meaning_.ends(composite)) {
            add_faults_of_end(composite, end);
        }
    }

    void add_faults_of_connection(const std::string& composite, const std::string& list,
                                  const std::string& connection)
    {
        add_dropped(connection, unfed(composite, connection));
        add_wrong_kinds(connection, "a string or a table");
        add_connection_twice(composite, list, connection);
        if (right_.at(connection).kind == Part::Kind::Table) {
            add_faults_of_connection_table(connection);
            return;
        }
        const std::string text = unquote(right_.at(connection).value);
        for (const std::string& wrong :
             {text.substr(0, text.find(' ')), "->" + text, text + " -> a.b", std::string()}) {
            add_replaced(connection, quote(wrong),
                         {error(connection,
                                "'" + wrong + "' is not of the form BLOCK.OUTPUT -> BLOCK.INPUT")});
        }
    }

    void add_connection_twice(const std::string& composite, const std::string& list,
                              const std::string& connection)
    {
        Lines lines;
        const auto [from, to] = meaning_.ends_of(connection);
        for (const std::string& place : meaning_.places(composite)) {
            const std::string source = meaning_.plain_ports(composite, place, from).front().name();
            for (const PlainPort& port : meaning_.plain_ports(composite, place, to)) {
                lines.push_back(
                    error(join(list, "99"), port.name() + " is already fed by " + source));
            }
        }
        add(
            "twice " + connection,
            [=](WrittenGraph& graph) {
                Part copy = graph.at(connection);
                const std::string after = copy.key;
                copy.key = "99";
                graph.insert(list, copy, after);
            },
            std::move(lines));
    }

    void add_faults_of_connection_table(const std::string& table)
    {
        add_unknown_key(table);
        for (const std::string key : {"from", "to"}) {
            const std::string part = join(table, key);
            const ExpectedLine missing = error(table, "missing key '" + key + "'");
            add_dropped(part, {missing});
            add_unheard(part, {missing});
            add_misspelt(part);
            add_wrong_kinds(part, "a string");
        }
        const std::string delayed = join(table, "delayed");
        if (has(delayed)) {
            const ExpectedLine cycle =
                error(notes_.cycles.at(table).first,
                      "the connections make a cycle: " + notes_.cycles.at(table).second);
            add_dropped(delayed, {cycle});
            add_replaced(delayed, "false", {cycle});
            add_misspelt(delayed);
            add_wrong_kinds(delayed, "a boolean");
        }
        if (has(join(table, "delivery"))) {
            add_not_one_of(join(table, "delivery"), "all, latest");
        }
    }

    // --- ends ---

    void add_faults_of_end(const std::string& composite, const End& end)
    {
        const bool is_used = !meaning_.places(composite).empty();
        for (const std::string& block : {end.block + "x", std::string("nowhere")}) {
            Lines lines;
            if (is_used) {
                lines.push_back(error(end.part, "there is no block '" + block + "'" +
                                                    near_one(block, meaning_.members(composite))));
            }
            add_bent(end, block + "." + end.port, std::move(lines));
        }
        for (const std::string& port : {end.port + "x", std::string("unheard")}) {
            End bent = end;
            bent.port = port;
            Lines lines;
            add_no_port(lines, composite, bent,
                        meaning_.ports_of(composite, end.block, end.is_output));
            add_bent(end, end.block + "." + port, std::move(lines));
        }
        if (last_key(end.part) == "from" || last_key(end.part) == "to" ||
            keys_of(end.part).find("ports.") != std::string::npos) {
            for (const std::string& wrong : {end.block, "." + end.port, end.block + ".",
                                             end.block + ". " + end.port, std::string()}) {
                add_replaced(end.part, quote(wrong),
                             {error(end.part, "'" + wrong + "' is not of the form BLOCK.PORT")});
            }
        }
    }

    void add_bent(const End& end, const std::string& text, Lines lines)
    {
        const std::string whole = unquote(right_.at(end.part).value);
        const std::size_t arrow = whole.find(" -> ");
        const std::string bent = arrow == std::string::npos ? text
                                 : end.is_output            ? text + whole.substr(arrow)
                                                            : whole.substr(0, arrow + 4) + text;
        add_replaced(end.part, quote(bent), std::move(lines));
    }

    // --- members ---

    void add_faults_of_member(const std::string& composite, const std::string& member)
    {
        const std::string part = meaning_.part_of(composite, member);
        add_dropped(part, without_block(composite, member));
        add_renamed(part, member + "x", without_block(composite, member, member + "x"));
        add_renamed(part, "unheard", without_block(composite, member, "unheard"));
        Lines invalid = without_block(composite, member, "%%%%%%%%");
        invalid.push_back(error(renamed(part, "%%%%%%%%"), invalid_name("%%%%%%%%"), At::Key));
        add_renamed(part, "%%%%%%%%", std::move(invalid));
        add_wrong_kinds(part, "a table");
        add_unknown_key(part);
        add_faults_of_type(composite, member, part + ".type");
        if (has(part + ".on_error")) {
            add_not_one_of(part + ".on_error", "stop, skip");
        }
        if (has(part + ".machine")) {
            add_faults_of_machine_of(part + ".machine", member);
        }
        if (has(part + ".config")) {
            add_wrong_kinds(part + ".config", "a table");
            add_misspelt(part + ".config");
            for (const std::string& setting : settings_of(composite, member)) {
                add_faults_of_setting(composite, member, setting);
            }
        }
    }

    void add_faults_of_type(const std::string& composite, const std::string& member,
                            const std::string& part)
    {
        const std::string owner = meaning_.part_of(composite, member);
        Lines none;
        for (const std::string& place : meaning_.places(composite)) {
            none.push_back(
                error(owner, "block '" + below(place, member) + "' has no type", At::Key));
        }
        add_dropped(part, none);
        add_unheard(part, none);
        add_misspelt(part);
        add_wrong_kinds(part, "a string");
        for (const char* wrong : {"parts:", ":Gain", "par ts:Gain", ":"}) {
            add_replaced(
                part, quote(wrong),
                {error(part, "'" + std::string(wrong) + "' is not of the form PLUGIN:TYPE")});
        }
        const Names kinds = meaning_.names_in("superblocks");
        add_other_type(composite, part, "unheard", "there is no superblock 'unheard'");
        add_other_type(composite, part, "nowhere:Gain",
                       "there is no plug-in 'nowhere' in " + notes_.plugin_directories);
        add_other_type(composite, part, "parts:Unheard",
                       "plug-in 'parts' has no block type 'Unheard'; it has " + notes_.types);
        if (meaning_.type_of(composite, member).find(':') == std::string::npos) {
            const std::string near = meaning_.type_of(composite, member) + "x";
            add_other_type(composite, part, near,
                           "there is no superblock '" + near + "'" + near_one(near, kinds));
        }
    }

    /// Nothing is found in what is not used.
    void add_other_type(const std::string& composite, const std::string& part,
                        const std::string& type, const std::string& text)
    {
        const bool is_used = !meaning_.places(composite).empty();
        add_replaced(part, quote(type), is_used ? Lines{error(part, text)} : Lines());
    }

    // --- settings ---

    /// The plain block for which a setting of a member is, its paths, and the key that it gets.
    struct Target {
        std::string composite;
        std::string member;
        Names places;
        std::string key;
    };

    Target target_of(std::string composite, std::string member, const std::string& setting) const
    {
        Target target = {composite, member, meaning_.places(composite), key_of(setting)};
        while (meaning_.type_of(target.composite, target.member).find(':') == std::string::npos) {
            const std::string kind = meaning_.type_of(target.composite, target.member);
            for (std::string& place : target.places) {
                place = below(place, target.member);
            }
            const std::size_t stop = target.key.find('.');
            target.composite = "superblocks." + kind;
            target.member = target.key.substr(0, stop);
            target.key = target.key.substr(stop + 1);
        }
        return target;
    }

    /// The key of a setting, with those above it in the configuration.
    static std::string key_of(const std::string& setting)
    {
        return setting.substr(setting.find(".config.") + 8);
    }

    void add_faults_of_setting(const std::string& composite, const std::string& member,
                               const std::string& setting)
    {
        add_values_of_no_setting(setting);
        const std::string key = key_of(setting);
        const std::string above = key.substr(0, key.size() - last_key(key).size());
        Lines invalid = {
            error(renamed(setting, "a b"),
                  "Parameter name '" + above + "a b' not valid (should be [a-z0-9_.-]).", At::Key)};
        const Target target = target_of(composite, member, setting);
        const std::string type = meaning_.type_of(target.composite, target.member);
        for (const ExpectedLine& line : missing(target)) {
            invalid.push_back(line);
        }
        add_renamed(setting, "a b", std::move(invalid));
        if (type == kGain) {
            add_faults_of_gain(target, setting);
        } else if (type == kPorts) {
            add_faults_of_ports(target, setting);
        } else {
            add_faults_of_declared(target, setting);
        }
    }

    void add_values_of_no_setting(const std::string& setting)
    {
        const std::string begin = "'" + key_of(setting) + "' is ";
        for (const auto& [value, text] :
             {std::pair("1979-05-27", "a date"), std::pair("07:32:00", "a time"),
              std::pair("1979-05-27T07:32:00", "a date and time"), std::pair("[]", "an empty list"),
              std::pair("[ [1] ]", "a list of lists"),
              std::pair("[1, \"a\"]", "a list of mixed kinds"),
              std::pair("2147483648", "out of the range of an int")}) {
            add_replaced(setting, value, {error(setting, begin + text)});
        }
    }

    Lines unread(const Target& target, const std::string& part, const std::string& key) const
    {
        Lines lines;
        for (const std::string& place : target.places) {
            lines.push_back({part, At::Key,
                             "warning: key '" + key + "' is not read by block '" +
                                 below(place, target.member) + "'"});
        }
        return lines;
    }

    Lines not_created(const Target& target, const std::string& text) const
    {
        Lines lines;
        for (const std::string& place : target.places) {
            lines.push_back(
                error(meaning_.part_of(target.composite, target.member) + ".type",
                      "block '" + below(place, target.member) + "' cannot be created: " + text));
        }
        return lines;
    }

    void add_faults_of_gain(const Target& target, const std::string& setting)
    {
        add_dropped(setting, {});
        add_renamed(setting, "unheard", unread(target, renamed(setting, "unheard"), "unheard"));
        add_replaced(setting, "\"text\"",
                     not_created(target,
                                 "BlockConfiguration::getDouble failed, the parameter 'factor' is "
                                 "type: string"));
    }

    void add_faults_of_ports(const Target& target, const std::string& setting)
    {
        const bool is_output = target.key == "outputs";
        Lines lines;
        for (const std::string& port :
             meaning_.ports_of(target.composite, target.member, is_output)) {
            for (ExpectedLine& line :
                 ends_without_port(target.composite, target.member, port, is_output, {})) {
                lines.push_back(std::move(line));
            }
        }
        add_dropped(setting, lines);
        for (ExpectedLine& line : unread(target, renamed(setting, "unheard"), "unheard")) {
            lines.push_back(std::move(line));
        }
        add_renamed(setting, "unheard", lines);
        add_replaced(setting, "7",
                     not_created(target,
                                 "BlockConfiguration::getStringVector failed, the parameter "
                                 "'" +
                                     target.key + "' is type: int"));
    }

    /// What is found where a setting is not there that a block cannot do without.
    Lines missing(const Target& target) const
    {
        const std::string block = meaning_.part_of(target.composite, target.member);
        return target.key == "needed" ? Lines{error(block, "'needed' is missing", At::Key)}
                                      : Lines();
    }

    void add_faults_of_declared(const Target& target, const std::string& setting)
    {
        add_dropped(setting, missing(target));
        const std::string begin = "block type 'parts:Declared' has no setting '";
        add_renamed(
            setting, target.key + "x",
            {error(renamed(setting, target.key + "x"),
                   begin + target.key + "x'; did you mean '" + target.key + "'?", At::Key)});
        Lines unheard = missing(target);
        unheard.push_back(error(renamed(setting, "unheard"), begin + "unheard'", At::Key));
        add_renamed(setting, "unheard", std::move(unheard));
        const std::vector<std::pair<std::string, std::string>> ranges = {
            {"needed", "'needed' has to be from 1 to 9, not 10"},
            {"taps", "'taps' has to be of 2 to 3 items, not 1"},
            {"mode", "'mode' has to be one of up, down, not 'off'"}};
        const std::vector<std::pair<std::string, std::string>> values = {
            {"needed", "10"}, {"taps", "[0.5]"}, {"mode", "\"off\""}};
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (values[i].first == target.key) {
                add_replaced(setting, values[i].second, {error(setting, ranges[i].second)});
            }
        }
    }

    // --- superblocks ---

    void add_faults_of_kind(const std::string& kind)
    {
        const std::string part = right_.all("superblocks." + kind).front();
        add_dropped(part, types_without_kind(kind));
        add_renamed(part, kind + "x", types_without_kind(kind, "; did you mean '" + kind + "x'?"));
        add_renamed(part, "unheard", types_without_kind(kind));
        add_wrong_kinds(part, "a table");
        add_unknown_key(part);
        if (has(part + ".blocks")) {
            add_misspelt(part + ".blocks");
            add_wrong_kinds(part + ".blocks", "a table");
            add_unknown(part + ".blocks", "'unheard' has to be a table", At::Value);
        }
        for (const char* ports : {"inports", "outports"}) {
            if (has(join(part, ports))) {
                add_faults_of_exposed(kind, join(part, ports));
            }
        }
    }

    void add_faults_of_exposed(const std::string& kind, const std::string& table)
    {
        const bool is_output = last_key(table) == "outports";
        const std::string kinds = is_output ? "a string" : "a string or a list";
        add_misspelt(table);
        add_wrong_kinds(table, "a table");
        add_unknown(table, "'unheard' has to be " + kinds, At::Value);
        for (const Part& port : right_.at(table).parts) {
            const std::string part = join(table, port.key);
            add_wrong_kinds(part, kinds);
            add_without_port(kind, part, is_output);
            if (port.kind == Part::Kind::List) {
                for (const Part& item : port.parts) {
                    add_wrong_kinds(join(part, item.key), "a string");
                }
                add_replaced(part, "[]", {error(part, "'" + port.key + "' is an empty list")});
            }
        }
    }

    void add_without_port(const std::string& kind, const std::string& part, bool is_output)
    {
        const std::string port = last_key(part);
        const auto lines_with = [&](const std::string& new_name) {
            Lines lines;
            for (const std::string& composite : meaning_.composites()) {
                for (const std::string& member : meaning_.members(composite)) {
                    if (meaning_.type_of(composite, member) != kind) {
                        continue;
                    }
                    Names ports = meaning_.ports_of(composite, member, is_output);
                    ports = with_renamed(ports, port, new_name);
                    ports.erase(std::remove(ports.begin(), ports.end(), ""), ports.end());
                    for (ExpectedLine& line :
                         ends_without_port(composite, member, port, is_output, ports)) {
                        lines.push_back(std::move(line));
                    }
                }
            }
            return lines;
        };
        add_dropped(part, lines_with(""));
        for (const std::string& name : {port + "x", std::string("unheard")}) {
            add_renamed(part, name, lines_with(name));
        }
    }

    // --- machines ---

    void add_faults_of_machine(const std::string& machine)
    {
        const std::string part = right_.all("machines." + machine).front();
        const auto lines_with = [&](const std::string& near) {
            Lines lines;
            for (const std::string& member : meaning_.members("")) {
                const std::string named = meaning_.part_of("", member) + ".machine";
                if (right_.at(named).value == quote(machine)) {
                    lines.push_back(error(named, "there is no machine '" + machine + "'" + near));
                }
            }
            return lines;
        };
        add_dropped(part, lines_with(""));
        add_renamed(part, machine + "x", lines_with("; did you mean '" + machine + "x'?"));
        add_renamed(part, "unheard", lines_with(""));
        add_wrong_kinds(part, "a table");
        add_unknown_key(part);
    }

    void add_faults_of_machine_of(const std::string& part, const std::string& member)
    {
        const ExpectedLine none =
            error(meaning_.part_of("", member), "block '" + member + "' has no machine", At::Key);
        const std::string near = unquote(right_.at(part).value) + "x";
        add_dropped(part, {none});
        add_unheard(part, {none});
        add_misspelt(part);
        add_wrong_kinds(part, "a string");
        add_replaced(part, "\"unheard\"", {error(part, "there is no machine 'unheard'")});
        add_replaced(part, quote(near),
                     {error(part, "there is no machine '" + near + "'" +
                                      near_one(near, meaning_.names_in("machines")))});
    }

    void add_faults_of_link()
    {
        const std::vector<std::pair<std::string, std::string>> companions = {
            {"key", "key"}, {"cert", "cert"}, {"user", "user"}};
        for (const std::string& link : right_.all("link")) {
            add_wrong_kinds(link, "a table");
            add_misspelt(link);
            add_dropped(link, {{files().front(), At::Begin, "error: missing key 'link.broker'"}});
            add_unknown_key(link);
            for (const Part& entry : right_.at(link).parts) {
                add_faults_of_link_entry(link, join(link, entry.key));
            }
        }
    }

    void add_faults_of_link_entry(const std::string& link, const std::string& part)
    {
        const std::string key = last_key(part);
        const bool is_number = key == "queue" || key == "limit";
        // Those that another one needs, or a connection.
        const Lines lines = key == "key" || key == "cert" || key == "user" || key == "broker"
                                ? Lines{error(link, "missing key '" + key + "'", At::Key)}
                                : Lines();
        add_dropped(part, lines);
        add_unheard(part, lines);
        add_misspelt(part);
        add_wrong_kinds(part, is_number ? "an integer" : "a string");
        if (is_number) {
            add_replaced(
                part, "0",
                {error(part, "'" + key + "' has to be from 1 to " +
                                 (key == "queue" ? "1000000000" : "268000000") + ", not 0")});
        }
        if (key == "broker") {
            add_replaced(part, "\"http://a\"",
                         {error(part,
                                "'http://a' is not of the form mqtt://HOST:PORT or "
                                "mqtts://HOST:PORT")});
        }
    }

    const WrittenGraph& right_;
    const GraphNotes& notes_;
    Meaning meaning_;
    std::vector<SingleFault> faults_;
};

}  // namespace

std::vector<SingleFault> single_faults(const WrittenGraph& right, const GraphNotes& notes)
{
    return Generator(right, notes).generate();
}

}  // namespace quorval_test
