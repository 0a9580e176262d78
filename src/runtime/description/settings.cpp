#include "description/settings.h"

#include <quorval/config.h>
#include "description/names.h"
#include "description/toml.h"
#include "messages/printable.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <utility>

namespace Quorval::runtime {

namespace {

[[noreturn]] void throw_no_assignment(const std::string& text)
{
    throw std::invalid_argument("'" + text + "' is not of the form PATH.KEY=VALUE");
}

[[noreturn]] void throw_no_setting(const std::string& text)
{
    throw std::invalid_argument("'" + text + "' is not of the form KEY=VALUE");
}

/// Why a key is not valid, in the words of the configuration; empty for one that is.
std::string complaint_about(const std::string& key)
{
    if (is_key(key)) {
        return {};
    }
    try {
        // The text of an exception ends at a byte of 0.
        BlockConfiguration().set(printable(key), 0);
        return {};
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

/// What a TOML value is that no configuration holds, null for any other.
const char* name_of_date(const toml::node& node)
{
    return node.is_date()        ? "a date"
           : node.is_time()      ? "a time"
           : node.is_date_time() ? "a date and time"
                                 : nullptr;
}

template <class T>
bool is_all(const toml::array& list)
{
    return std::all_of(list.begin(), list.end(),
                       [](const toml::node& item) { return item.is<T>(); });
}

bool is_all_dates(const toml::array& list)
{
    return std::all_of(list.begin(), list.end(),
                       [](const toml::node& item) { return name_of_date(item) != nullptr; });
}

bool is_all_numbers(const toml::array& list)
{
    return std::all_of(list.begin(), list.end(),
                       [](const toml::node& item) { return item.is_number(); });
}

template <class T>
std::vector<T> items_of(const toml::array& list)
{
    std::vector<T> items;
    items.reserve(list.size());
    for (const toml::node& item : list) {
        items.push_back(**item.as<T>());
    }
    return items;
}

/// Flattens a tree of TOML into settings.
class Flattener {
public:
    Flattener(Problems& problems, std::vector<Setting>& settings)
        : problems_(problems), settings_(settings)
    {
    }

    void add_table(const std::string& prefix, const toml::table& table)
    {
        for (auto&& [key, node] : table) {
            std::string full;
            full.reserve(prefix.size() + key.length());
            full.append(prefix).append(key.str());
            add(std::move(full), place_of(key), node);
        }
    }

    void add(std::string key, const Place& key_place, const toml::node& node)
    {
        const toml::table* table = node.as_table();
        if (table != nullptr && !table->empty()) {
            add_table(key + ".", *table);
        } else if (is_list_of_tables(node)) {
            add_list_of_tables(key, key_place, *node.as_array());
        } else if (std::string complaint = complaint_about(key); !complaint.empty()) {
            problems_.add_error(key_place, std::move(complaint));
            settings_.push_back({std::move(key), Value(), true, key_place, place_of(node), {}});
        } else if (table == nullptr) {
            std::optional<Value> value = to_value(key, node);
            const bool is_wrong = !value;
            settings_.push_back({std::move(key), std::move(value).value_or(Value()), is_wrong,
                                 key_place, place_of(node), places_of_items(node)});
        }
    }

private:
    static bool is_list_of_tables(const toml::node& node)
    {
        const toml::array* list = node.as_array();
        return list != nullptr && !list->empty() && is_all<toml::table>(*list);
    }

    static std::vector<Place> places_of_items(const toml::node& node)
    {
        std::vector<Place> places;
        if (const toml::array* list = node.as_array()) {
            places.reserve(list->size());
            for (const toml::node& item : *list) {
                places.push_back(place_of(item));
            }
        }
        return places;
    }

    void add_list_of_tables(const std::string& key, const Place& key_place, const toml::array& list)
    {
        for (std::size_t i = 0; i < list.size(); ++i) {
            add(key + "." + std::to_string(i), key_place, list[i]);
        }
    }

    std::optional<Value> to_value(const std::string& key, const toml::node& node)
    {
        switch (node.type()) {
            case toml::node_type::integer:
                return to_int(key, node);
            case toml::node_type::floating_point:
                return **node.as_floating_point();
            case toml::node_type::boolean:
                return **node.as_boolean();
            case toml::node_type::string:
                return **node.as_string();
            case toml::node_type::array:
                return to_list(key, *node.as_array());
            default:
                return refuse(key, node, name_of_date(node));
        }
    }

    std::optional<Value> to_int(const std::string& key, const toml::node& node)
    {
        const std::int64_t number = **node.as_integer();
        if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max()) {
            return refuse(key, node, "out of the range of an int");
        }
        return static_cast<int>(number);
    }

    std::optional<Value> to_list(const std::string& key, const toml::array& list)
    {
        if (list.empty()) {
            return refuse(key, list, "an empty list");
        }
        if (is_all<std::int64_t>(list)) {
            return to_ints(key, list);
        }
        if (is_all_numbers(list)) {
            return to_doubles(list);
        }
        if (is_all<std::string>(list)) {
            return items_of<std::string>(list);
        }
        if (is_all<bool>(list)) {
            return items_of<bool>(list);
        }
        if (is_all_dates(list)) {
            return refuse_items(key, list);
        }
        return refuse(key, list,
                      is_all<toml::array>(list) ? "a list of lists" : "a list of mixed kinds");
    }

    std::optional<Value> to_ints(const std::string& key, const toml::array& list)
    {
        std::vector<int> items;
        items.reserve(list.size());
        for (const toml::node& item : list) {
            if (const std::optional<Value> value = to_int(key, item)) {
                items.push_back(std::get<int>(*value));
            }
        }
        return items.size() == list.size() ? std::optional<Value>(std::move(items)) : std::nullopt;
    }

    static Value to_doubles(const toml::array& list)
    {
        std::vector<double> items;
        items.reserve(list.size());
        for (const toml::node& item : list) {
            items.push_back(item.is_integer() ? static_cast<double>(**item.as_integer())
                                              : **item.as_floating_point());
        }
        return items;
    }

    std::optional<Value> refuse_items(const std::string& key, const toml::array& list)
    {
        for (const toml::node& item : list) {
            refuse(key, item, name_of_date(item));
        }
        return std::nullopt;
    }

    std::optional<Value> refuse(const std::string& key, const toml::node& node, const char* what)
    {
        problems_.add_error(place_of(node), "'" + key + "' is " + what);
        return std::nullopt;
    }

    Problems& problems_;
    std::vector<Setting>& settings_;
};

/// Sorts by key and leaves of each key the one that was written last.
void keep_the_last(std::vector<Setting>& settings, const std::vector<std::uint32_t>& ranks)
{
    const auto position = [&ranks](const Setting& setting) {
        const Place& place = setting.key_place;
        return std::make_tuple(ranks[place.source], place.line, place.column);
    };
    std::sort(settings.begin(), settings.end(), [&position](const Setting& a, const Setting& b) {
        const int order = a.key.compare(b.key);
        return order != 0 ? order < 0 : position(a) > position(b);
    });
    const auto is_same = [](const Setting& a, const Setting& b) { return a.key == b.key; };
    settings.erase(std::unique(settings.begin(), settings.end(), is_same), settings.end());
}

struct AssignmentParts {
    std::string path;
    std::string key;
    std::string value;
};

AssignmentParts take_apart(const std::string& text)
{
    const std::size_t equals = text.find('=');
    const std::size_t stop = text.find('.');
    if (equals == std::string::npos || stop == 0 || stop >= equals || stop + 1 == equals) {
        throw_no_assignment(text);
    }
    return {text.substr(0, stop), text.substr(stop + 1, equals - stop - 1),
            text.substr(equals + 1)};
}

/// Whether nothing but blanks stands in a text behind a position.
bool is_blank_behind(std::string_view text, const toml::source_position& end)
{
    std::size_t line_begin = 0;
    for (toml::source_index line = 1; line < end.line; ++line) {
        line_begin = text.find('\n', line_begin) + 1;
    }
    std::size_t at = line_begin;
    for (toml::source_index column = 1; at < text.size() && column < end.column; ++at) {
        column += is_continuation(text[at]) ? 0 : 1;
    }
    return text.find_first_not_of(" \t\r\n", at) == std::string_view::npos;
}

std::string value_document(const std::string& text)
{
    return "v = " + text;
}

/// The TOML value that a text is, in a table of its own under the key "v". Nothing where it is
/// none.
std::optional<toml::table> parse_value(const std::string& text)
{
    const std::string document = value_document(text);
    Problems ignored;
    std::optional<toml::table> table = parse_toml(document, 0, ignored);
    if (!table || table->size() != 1 || !is_blank_behind(document, table->get("v")->source().end)) {
        return std::nullopt;
    }
    return table;
}

/// A NaN, and where it stands.
struct Nan {
    double* value;
    Place place;
};

std::vector<Nan> find_nans(std::vector<Setting>& settings)
{
    std::vector<Nan> nans;
    const auto add = [&nans](double& value, const Place& place) {
        if (std::isnan(value)) {
            nans.push_back({&value, place});
        }
    };
    for (Setting& setting : settings) {
        if (auto* const number = std::get_if<double>(&setting.value)) {
            add(*number, setting.value_place);
        } else if (auto* const items = std::get_if<std::vector<double>>(&setting.value)) {
            for (std::size_t i = 0; i < items->size(); ++i) {
                add((*items)[i], setting.item_places[i]);
            }
        }
    }
    return nans;
}

/// Goes through a text once.
class TextWalker {
public:
    explicit TextWalker(std::string_view text) : rest_(text) {}

    /// @param place  not before the last one that was asked for
    char character_at(const Place& place)
    {
        while (!rest_.empty() && (line_ < place.line || column_ < place.column)) {
            const bool is_line_end = rest_.front() == '\n';
            rest_.remove_prefix(1);
            if (is_line_end) {
                ++line_;
                column_ = 1;
            } else if (rest_.empty() || !is_continuation(rest_.front())) {
                ++column_;
            }
        }
        return rest_.empty() ? '\0' : rest_.front();
    }

private:
    std::string_view rest_;
    std::uint32_t line_ = 1;
    std::uint32_t column_ = 1;
};

}  // namespace

std::vector<Setting> read_settings(const toml::table& config,
                                   const std::vector<std::uint32_t>& ranks, Problems& problems)
{
    std::vector<Setting> settings;
    Flattener(problems, settings).add_table("", config);
    keep_the_last(settings, ranks);
    return settings;
}

std::vector<Setting> read_value(const std::string& key, const std::string& text, Problems& problems)
{
    const std::optional<toml::table> table = parse_value(text);
    const toml::value<std::string> bare(text);
    const toml::node& node = table ? *table->get("v") : static_cast<const toml::node&>(bare);
    std::vector<Setting> settings;
    Flattener(problems, settings).add(key, {}, node);
    restore_signs(settings, value_document(text));
    return settings;
}

void restore_signs(std::vector<Setting>& settings, std::string_view text)
{
    std::vector<Nan> nans = find_nans(settings);
    std::sort(nans.begin(), nans.end(),
              [](const Nan& a, const Nan& b) { return a.place < b.place; });
    TextWalker walker(text);
    for (const Nan& nan : nans) {
        if (walker.character_at(nan.place) == '-') {
            *nan.value = std::copysign(*nan.value, -1.0);
        }
    }
}

std::vector<Assignment> read_assignment(const std::string& text, std::uint32_t source,
                                        Problems& problems)
{
    const AssignmentParts parts = take_apart(text);
    const Place place{source, 0, 0};
    Problems found;
    std::vector<Setting> settings = read_value(parts.key, parts.value, found);
    for (const Problem& problem : found.sorted()) {
        problems.add_error(place, problem.text);
    }
    std::vector<Assignment> assignments;
    for (Setting& setting : settings) {
        setting.key_place = place;
        setting.value_place = place;
        setting.item_places.clear();
        assignments.push_back({parts.path, std::move(setting)});
    }
    return assignments;
}

std::vector<Setting> read_setting_assignment(const std::string& text, Problems& problems)
{
    const std::size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos) {
        throw_no_setting(text);
    }
    return read_value(text.substr(0, equals), text.substr(equals + 1), problems);
}

std::string target_of(const std::string& assignment)
{
    const AssignmentParts parts = take_apart(assignment);
    return parts.path + "." + parts.key;
}

}  // namespace Quorval::runtime
