#include "description/tree.h"

#include <quorval/runtime/suggest.h>
#include "description/broker.h"
#include "description/names.h"
#include "description/settings.h"
#include "description/suggest.h"
#include "description/toml.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace Quorval::runtime {

namespace {

constexpr std::string_view kArrow = " -> ";
constexpr std::int64_t kFormat = 1;
constexpr std::int64_t kLongestQueue = 1'000'000'000;
constexpr std::int64_t kHighestLimit = 268'000'000;  // a message of MQTT has 256 MiB at most

using Keys = std::vector<std::string>;

const Keys& keys_of_a_graph()
{
    static const Keys kKeys = {"blocks",   "connections", "format",   "include",    "link",
                               "machines", "name",        "on_error", "superblocks"};
    return kKeys;
}

const Keys& keys_of_a_link()
{
    static const Keys kKeys = {"broker",        "ca",    "cert", "key", "limit",
                               "password_file", "queue", "user"};
    return kKeys;
}

const Keys& keys_of_a_machine()
{
    static const Keys kKeys = {};
    return kKeys;
}

const Keys& keys_of_a_kind()
{
    static const Keys kKeys = {"blocks", "connections", "inports", "outports"};
    return kKeys;
}

const Keys& keys_of_a_member(bool is_at_top)
{
    static const Keys kKeys = {"config", "on_error", "type"};
    static const Keys kKeysAtTop = {"config", "machine", "on_error", "type"};
    return is_at_top ? kKeysAtTop : kKeys;
}

const Keys& keys_of_a_connection()
{
    static const Keys kKeys = {"delayed", "delivery", "from", "to"};
    return kKeys;
}

/// A table of the format: a few known keys.
class Record {
public:
    /// @param known  must outlive the record
    Record(const toml::table& table, const std::vector<std::string>& known, Problems& problems)
        : table_(table), known_(known), problems_(problems)
    {
        for (auto&& [key, node] : table) {
            if (is_unknown(key.str())) {
                meant_.insert(find_near(std::string(key.str()), known));
            }
        }
    }

    void report_unknown_keys() const
    {
        if (meant_.empty()) {
            return;  // there is none
        }
        for (auto&& [key, node] : table_) {
            if (is_unknown(key.str())) {
                const std::string name(key.str());
                problems_.add_error(place_of(key),
                                    "unknown key '" + name + "'" + suggestion(name, known_));
            }
        }
    }

    const toml::node* get(std::string_view key) const { return table_.get(key); }

    /// Whether nothing is there that could be meant as a key.
    bool is_absent(const std::string& key) const
    {
        return !table_.contains(key) && meant_.count(key) == 0;
    }

    /// Whether the key is there, but misspelt or with a value of another kind, which is reported.
    /// @param value  what was found under it; null: nothing of its kind
    bool is_wrong(const std::string& key, const void* value) const
    {
        return meant_.count(key) > 0 || (value == nullptr && table_.contains(key));
    }

    const toml::table* get_table(const char* key) const
    {
        return get_as<toml::table>(key, "a table");
    }

    const toml::array* get_list(const char* key) const
    {
        return get_as<toml::array>(key, "a list");
    }

    const toml::value<std::string>* get_string(const char* key) const
    {
        return get_as<std::string>(key, "a string");
    }

    const toml::value<bool>* get_bool(const char* key) const
    {
        return get_as<bool>(key, "a boolean");
    }

    const toml::value<std::int64_t>* get_integer(const char* key) const
    {
        return get_as<std::int64_t>(key, "an integer");
    }

    /// Which of the words stands under a key; nothing where there is none.
    std::optional<std::size_t> get_word(const char* key,
                                        std::initializer_list<const char*> words) const
    {
        const auto* text = get_string(key);
        if (text == nullptr) {
            return std::nullopt;
        }
        const auto found = std::find(words.begin(), words.end(), **text);
        if (found != words.end()) {
            return static_cast<std::size_t>(found - words.begin());
        }
        std::string list;
        for (const char* word : words) {
            list += (list.empty() ? "" : ", ") + std::string(word);
        }
        problems_.add_error(place_of(*text), "'" + std::string(key) + "' has to be one of " + list);
        return std::nullopt;
    }

private:
    bool is_unknown(std::string_view key) const
    {
        return std::find(known_.begin(), known_.end(), key) == known_.end();
    }

    template <class T>
    auto get_as(const char* key, const char* kind) const
        -> decltype(std::declval<const toml::node&>().as<T>())
    {
        const toml::node* node = table_.get(key);
        if (node == nullptr) {
            return nullptr;
        }
        if (!node->is<T>()) {
            problems_.add_error(place_of(*node), "'" + std::string(key) + "' has to be " + kind);
        }
        return node->as<T>();
    }

    const toml::table& table_;
    const std::vector<std::string>& known_;
    Problems& problems_;
    std::set<std::string> meant_;  // by unknown keys
};

/// Reads the inside of a graph or of a kind of superblock.
class TreeReader {
public:
    TreeReader(const std::vector<std::uint32_t>& ranks, Problems& problems)
        : ranks_(ranks), problems_(problems)
    {
    }

    GraphDescription read(const toml::table& tree)
    {
        const Record record(tree, keys_of_a_graph(), problems_);
        record.report_unknown_keys();
        GraphDescription description;
        description.name = read_name(record);
        description.on_error = read_on_error(record).value_or(OnError::Stop);
        read_inside(record, description.graph, true);
        read_machines(record, description);
        const toml::table* link = record.get_table("link");
        description.link.is_wrong = record.is_wrong("link", link);
        if (link != nullptr) {
            read_link(*link, description.link);
            description.link.place = place_of(tree.find("link")->first);
        }
        const toml::table* kinds = record.get_table("superblocks");
        description.has_broken_kinds = record.is_wrong("superblocks", kinds);
        if (kinds != nullptr) {
            for (auto&& [key, node] : *kinds) {
                description.kinds.emplace(key.str(), read_kind(key, node));
            }
        }
        return description;
    }

private:
    std::string read_name(const Record& record)
    {
        const auto* name = record.get_string("name");
        if (name == nullptr) {
            return {};
        }
        check_name(**name, place_of(*name));
        return **name;
    }

    static std::optional<OnError> read_on_error(const Record& record)
    {
        const std::optional<std::size_t> word = record.get_word("on_error", {"stop", "skip"});
        return word ? std::optional(*word == 0 ? OnError::Stop : OnError::Skip) : std::nullopt;
    }

    bool check_name(const std::string& name, const Place& place)
    {
        const bool is_valid = is_name(name);
        if (!is_valid) {
            problems_.add_error(
                place, "'" + name + "' is not a valid name (letters, digits, '_' and '-')");
        }
        return is_valid;
    }

    /// A table that stands under a name of the user's.
    const toml::table* check_table(const toml::key& key, const toml::node& node)
    {
        check_name(std::string(key.str()), place_of(key));
        if (!node.is_table()) {
            problems_.add_error(place_of(node),
                                "'" + std::string(key.str()) + "' has to be a table");
        }
        return node.as_table();
    }

    void read_machines(const Record& record, GraphDescription& description)
    {
        const toml::table* machines = record.get_table("machines");
        description.has_broken_machines = record.is_wrong("machines", machines);
        if (machines == nullptr) {
            return;
        }
        for (auto&& [key, node] : *machines) {
            if (const toml::table* table = check_table(key, node)) {
                Record(*table, keys_of_a_machine(), problems_).report_unknown_keys();
            }
            description.machines.emplace_back(key.str());
        }
    }

    void read_link(const toml::table& table, LinkDescription& link)
    {
        const Record record(table, keys_of_a_link(), problems_);
        record.report_unknown_keys();
        read_broker(record, link);
        for (const auto& [key, text] :
             {std::pair("ca", &link.ca), std::pair("cert", &link.cert), std::pair("key", &link.key),
              std::pair("user", &link.user), std::pair("password_file", &link.password_file)}) {
            if (const auto* value = record.get_string(key)) {
                *text = **value;
            } else if (!record.is_absent(key)) {
                link.wrong_keys.emplace_back(key);
            }
        }
        read_size(record, "queue", kLongestQueue, link.queue);
        read_size(record, "limit", kHighestLimit, link.limit);
    }

    void read_broker(const Record& record, LinkDescription& link)
    {
        const auto* text = record.get_string("broker");
        if (text != nullptr && !parse_broker(**text, link)) {
            problems_.add_error(
                place_of(*text),
                "'" + **text + "' is not of the form mqtt://HOST:PORT or mqtts://HOST:PORT");
        }
        if (link.host.empty() && !record.is_absent("broker")) {
            link.wrong_keys.emplace_back("broker");
        }
    }

    void read_size(const Record& record, const char* key, std::int64_t most, std::size_t& size)
    {
        const auto* value = record.get_integer(key);
        if (value == nullptr) {
            return;
        }
        if (**value < 1 || **value > most) {
            problems_.add_error(place_of(*value),
                                "'" + std::string(key) + "' has to be from 1 to " +
                                    std::to_string(most) + ", not " + std::to_string(**value));
            return;
        }
        size = static_cast<std::size_t>(**value);
    }

    void read_inside(const Record& record, CompositeDescription& inside, bool is_at_top = false)
    {
        const toml::table* blocks = record.get_table("blocks");
        inside.is_broken = record.is_wrong("blocks", blocks);
        if (blocks != nullptr) {
            inside.members.reserve(blocks->size());
            for (auto&& [key, node] : *blocks) {
                inside.members.push_back(read_member(key, node, is_at_top));
            }
        }
        const toml::array* connections = record.get_list("connections");
        inside.misses_connections = record.is_wrong("connections", connections);
        if (connections != nullptr) {
            read_connections(*connections, inside);
        }
    }

    void read_connections(const toml::array& list, CompositeDescription& inside)
    {
        inside.connections.reserve(list.size());
        for (const toml::node& node : list) {
            if (!read_connection(node, inside.connections)) {
                inside.misses_connections = true;
            }
        }
    }

    CompositeDescription read_kind(const toml::key& key, const toml::node& node)
    {
        CompositeDescription kind;
        const toml::table* table = check_table(key, node);
        if (table == nullptr) {
            kind.is_broken = true;
            return kind;
        }
        const Record record(*table, keys_of_a_kind(), problems_);
        record.report_unknown_keys();
        read_inside(record, kind);
        kind.is_broken = !read_exposed(record, "inports", kind.inports) || kind.is_broken;
        kind.is_broken = !read_exposed(record, "outports", kind.outports) || kind.is_broken;
        return kind;
    }

    MemberDescription read_member(const toml::key& key, const toml::node& node, bool is_at_top)
    {
        MemberDescription member;
        member.name = key.str();
        member.name_place = place_of(key);
        const toml::table* table = check_table(key, node);
        if (table == nullptr) {
            return member;
        }
        const Record record(*table, keys_of_a_member(is_at_top), problems_);
        record.report_unknown_keys();
        read_type(record, member);
        member.on_error = read_on_error(record);
        if (is_at_top) {
            read_machine(record, member);
        }
        const toml::table* config = record.get_table("config");
        member.is_config_wrong = record.is_wrong("config", config);
        if (config != nullptr) {
            member.config = read_settings(*config, ranks_, problems_);
        }
        return member;
    }

    static void read_machine(const Record& record, MemberDescription& member)
    {
        member.misses_machine = record.is_absent("machine");
        if (const auto* machine = record.get_string("machine")) {
            member.machine = **machine;
            member.machine_place = place_of(*machine);
        }
    }

    void read_type(const Record& record, MemberDescription& member)
    {
        member.misses_type = record.is_absent("type");
        const auto* type = record.get_string("type");
        if (type == nullptr) {
            return;
        }
        member.type_place = place_of(*type);
        const std::string& text = **type;
        const std::size_t colon = text.find(':');
        const bool is_plain = colon != std::string::npos;
        if (is_plain && (!is_name(text.substr(0, colon)) || colon + 1 == text.size())) {
            problems_.add_error(member.type_place, "'" + text + "' is not of the form PLUGIN:TYPE");
        } else if (is_name(member.name)) {
            member.type = text;
            member.has_type = true;
        }
    }

    /// One with a single end that is right is kept, for what may be wrong with that.
    /// @return whether all of it is right
    bool read_connection(const toml::node& node, std::vector<ConnectionDescription>& connections)
    {
        ConnectionDescription& connection = connections.emplace_back();
        connection.place = place_of(node);
        connection.rank = ranks_[connection.place.source];
        bool is_right = false;
        if (const auto* text = node.as_string()) {
            is_right = read_arrow(**text, connection);
        } else if (const toml::table* table = node.as_table()) {
            is_right = read_connection_table(*table, connection);
        } else {
            problems_.add_error(connection.place, "'connections' has to be a string or a table");
        }
        if (connection.from.block.empty() && connection.to.block.empty()) {
            connections.pop_back();
        }
        return is_right;
    }

    bool read_arrow(std::string_view text, ConnectionDescription& connection)
    {
        const std::size_t at = text.find(kArrow);
        const bool is_right =
            at != std::string_view::npos &&
            to_end(text.substr(0, at), connection.place, connection.from) &&
            to_end(text.substr(at + kArrow.size()), connection.place, connection.to);
        if (!is_right) {
            connection.from = {};
            problems_.add_error(
                connection.place,
                "'" + std::string(text) + "' is not of the form BLOCK.OUTPUT -> BLOCK.INPUT");
        }
        return is_right;
    }

    bool read_connection_table(const toml::table& table, ConnectionDescription& connection)
    {
        const Record record(table, keys_of_a_connection(), problems_);
        record.report_unknown_keys();
        const bool has_source = read_end(record, "from", connection.place, connection.from);
        const bool has_reader = read_end(record, "to", connection.place, connection.to);
        const auto* delayed = record.get_bool("delayed");
        connection.is_delayed = delayed != nullptr && **delayed;
        connection.is_delay_wrong = record.is_wrong("delayed", delayed);
        if (record.get_word("delivery", {"all", "latest"}) == std::size_t{0}) {
            connection.delivery = Delivery::All;
        }
        return has_source && has_reader;
    }

    /// @return whether there is an end, which is right
    bool read_end(const Record& record, const char* key, const Place& table, EndDescription& end)
    {
        if (record.is_absent(key)) {
            problems_.add_error(table, "missing key '" + std::string(key) + "'");
        }
        const auto* text = record.get_string(key);
        return text != nullptr && check_end(*text, end);
    }

    bool check_end(const toml::value<std::string>& text, EndDescription& end)
    {
        const bool is_right = to_end(*text, place_of(text), end);
        if (!is_right) {
            problems_.add_error(place_of(text), "'" + *text + "' is not of the form BLOCK.PORT");
        }
        return is_right;
    }

    /// @return whether the text is one; else `end` is as it was
    static bool to_end(std::string_view text, const Place& place, EndDescription& end)
    {
        const std::size_t stop = text.find('.');
        if (stop == std::string_view::npos || stop + 1 == text.size()) {
            return false;
        }
        const std::string_view block = text.substr(0, stop);
        const std::string_view port = text.substr(stop + 1);
        const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
        if (!is_name(block) || std::any_of(port.begin(), port.end(), is_blank)) {
            return false;
        }
        end.block = block;
        end.port = port;
        end.place = place;
        return true;
    }

    /// Whether all of it stands in a table under the key, or there is none.
    bool read_exposed(const Record& record, const char* key,
                      std::vector<ExposedDescription>& exposed)
    {
        const toml::table* table = record.get_table(key);
        if (table != nullptr) {
            read_exposed(*table, std::string_view(key) == "inports", exposed);
        }
        return !record.is_wrong(key, table);
    }

    void read_exposed(const toml::table& table, bool is_input,
                      std::vector<ExposedDescription>& exposed)
    {
        for (auto&& [name, node] : table) {
            ExposedDescription port;
            port.name = name.str();
            port.name_place = place_of(name);
            check_name(port.name, port.name_place);
            read_exposed_ends(port, node, is_input);
            exposed.push_back(std::move(port));
        }
    }

    void read_exposed_ends(ExposedDescription& port, const toml::node& node, bool is_input)
    {
        const toml::array* list = is_input ? node.as_array() : nullptr;
        if (list == nullptr) {
            read_exposed_end(port, node, is_input ? "a string or a list" : "a string");
            port.is_broken = port.ends.empty();
            return;
        }
        if (list->empty()) {
            problems_.add_error(place_of(node), "'" + port.name + "' is an empty list");
        }
        for (const toml::node& item : *list) {
            read_exposed_end(port, item, "a string");
        }
        port.is_broken = list->empty() || port.ends.size() < list->size();
    }

    void read_exposed_end(ExposedDescription& port, const toml::node& node, const char* kind)
    {
        const auto* text = node.as_string();
        if (text == nullptr) {
            problems_.add_error(place_of(node), "'" + port.name + "' has to be " + kind);
        } else if (EndDescription end; check_end(*text, end)) {
            port.ends.push_back(std::move(end));
        }
    }

    const std::vector<std::uint32_t>& ranks_;
    Problems& problems_;
};

void read_includes(const Record& record, FileHead& head, Problems& problems)
{
    const toml::array* list = record.get_list("include");
    head.has_all_includes = !record.is_wrong("include", list);
    if (list == nullptr) {
        return;
    }
    for (const toml::node& node : *list) {
        if (const auto* name = node.as_string()) {
            head.includes.push_back({**name, place_of(node)});
        } else {
            problems.add_error(place_of(node), "'include' has to be a string");
            head.has_all_includes = false;
        }
    }
}

}  // namespace

GraphDescription read_tree(const toml::table& tree, const std::vector<std::uint32_t>& ranks,
                           Problems& problems)
{
    return TreeReader(ranks, problems).read(tree);
}

FileHead read_head(const toml::table& tree, std::uint32_t source, Problems& problems)
{
    FileHead head;
    const Record record(tree, keys_of_a_graph(), problems);
    if (record.is_absent("format")) {
        problems.add_error({source, 1, 1}, "missing key 'format'");
    } else if (const auto* format = record.get_integer("format")) {
        head.is_supported = **format == kFormat;
        if (!head.is_supported) {
            problems.add_error(place_of(*format), "format " + std::to_string(**format) +
                                                      " is not supported, only 1 is");
            return head;
        }
    }
    read_includes(record, head, problems);
    return head;
}

}  // namespace Quorval::runtime
