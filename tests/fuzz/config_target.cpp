#include <quorval/config.h>
#include "fuzz/input.h"
#include "fuzz/model.h"
#include "fuzz/targets.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace quorval_fuzz {

using Quorval::BlockConfiguration;

namespace {

using KeyValue = BlockConfiguration::KeyValue;
using Iterator = BlockConfiguration::Iterator;
using Children = BlockConfiguration::SubtreeIterator;
using Accessor = Children::Accessor;

constexpr std::size_t kMostOperations = 64;
constexpr std::size_t kMostElements = 24;
constexpr std::size_t kLongestKey = 120;
// Elements may be added behind a walk for as long as the input wants it.
constexpr std::size_t kMostSteps = 12;

/// Keys that have much in common, so that operations meet.
const std::vector<std::string> kKeys = {"",        "a",
                                        "b",       "a.b",
                                        "ab",      "a.b.c",
                                        "x.b",     "xb.c",
                                        "a.0.x",   "a.0.y",
                                        "a.1.x",   "a.2.x",
                                        "a.10.x",  "a..x",
                                        "a..x.y",  ".a",
                                        "a.",      "A",
                                        "p.x",     "p.x.y",
                                        "b.a",     "a.0",
                                        "0",       "-1",
                                        "a.-1.x",  "a.99999999999.x",
                                        "_",       "a-b",
                                        "a.0-1.x", "c d",
                                        "\xff",    "b.b.b"};

std::string take_key(Input& input)
{
    const std::size_t choice = input.below(kKeys.size() + 4);
    return choice < kKeys.size() ? kKeys[choice] : input.text(6);
}

ModelValue take_value(Input& input)
{
    const auto count = [&input] { return input.below(4); };
    switch (input.below(8)) {
        case 0:
            return input.number<int>();
        case 1:
            return input.below(2) == 1;
        case 2:
            return input.number<double>();
        case 3:
            return input.text(20);
        case 4: {
            std::vector<int> items(count());
            for (int& item : items) {
                item = input.number<int>();
            }
            return items;
        }
        case 5: {
            std::vector<double> items(count());
            for (double& item : items) {
                item = input.number<double>();
            }
            return items;
        }
        case 6: {
            std::vector<std::string> items(count());
            for (std::string& item : items) {
                item = input.text(20);
            }
            return items;
        }
        default: {
            std::vector<bool> items;
            for (std::size_t left = input.below(70); left > 0; --left) {
                items.push_back(input.below(2) == 1);
            }
            return items;
        }
    }
}

/// A configuration and what it should be.
struct Pair {
    BlockConfiguration config;
    Model model;
};

void set(BlockConfiguration& config, const std::string& key, const ModelValue& value)
{
    const auto* text = std::get_if<std::string>(&value);
    if (text != nullptr && text->size() % 2 == 1 && text->find('\0') == std::string::npos) {
        return config.set(key, text->c_str());
    }
    std::visit([&](const auto& content) { config.set(key, content); }, value);
}

void set_both(Pair& pair, const std::string& key, const ModelValue& value)
{
    const std::string refusal = refusal_of_key(key);

    require_failure(failure_of([&] { set(pair.config, key, value); }), refusal, "set()");

    if (refusal.empty()) {
        pair.model[key] = {value, false};
    }
}

void do_set(Pair& pair, Input& input)
{
    const std::string key = take_key(input);
    set_both(pair, key, take_value(input));
}

/// A getter of a configuration, which is also one of its children. What it gives, as a text.
struct Getter {
    template <class Get, class GetOr>
    Getter(const char* getter, const char* getter_for_types, std::vector<std::size_t> types,
           Get get_it, GetOr get_it_or, std::function<std::string(const ModelValue&)> converter,
           std::string default_text)
        : name(getter),
          name_for_types(getter_for_types),
          accepted(std::move(types)),
          get(get_it),
          get_or(get_it_or),
          get_field(get_it),
          get_field_or(get_it_or),
          convert(std::move(converter)),
          shown_default(std::move(default_text))
    {
    }

    template <class Source>
    using Function = std::function<std::string(const Source&, const std::string& key)>;

    const char* name;
    const char* name_for_types;
    std::vector<std::size_t> accepted;
    Function<BlockConfiguration> get;
    Function<BlockConfiguration> get_or;
    Function<Accessor> get_field;
    Function<Accessor> get_field_or;
    std::function<std::string(const ModelValue&)> convert;
    std::string shown_default;
};

template <class To, class From>
std::vector<To> convert_all(const std::vector<From>& items)
{
    std::vector<To> converted;
    for (const From item : items) {
        converted.push_back(static_cast<To>(item));
    }
    return converted;
}

std::string show_floats(const std::vector<float>& items)
{
    return show(convert_all<double>(items));
}

const std::vector<Getter>& getters()
{
    static const std::vector<Getter> all = {
        {"getInt",
         "getInt",
         {0},
         [](auto& c, auto& k) { return show(c.getInt(k)); },
         [](auto& c, auto& k) { return show(c.getInt(k, 7)); },
         [](auto& v) { return show(v); },
         show(7)},
        {"getBool",
         "getBool",
         {1},
         [](auto& c, auto& k) { return show(c.getBool(k)); },
         [](auto& c, auto& k) { return show(c.getBool(k, true)); },
         [](auto& v) { return show(v); },
         show(true)},
        {"getDouble",
         "getDouble",
         {0, 2},
         [](auto& c, auto& k) { return show(c.getDouble(k)); },
         [](auto& c, auto& k) { return show(c.getDouble(k, 0.5)); },
         [](auto& v) {
             return v.index() == 0 ? show(static_cast<double>(std::get<int>(v))) : show(v);
         },
         show(0.5)},
        {"getFloat",
         "getFloat",
         {0, 2},
         [](auto& c, auto& k) { return show_floats({c.getFloat(k)}); },
         [](auto& c, auto& k) { return show_floats({c.getFloat(k, 0.5F)}); },
         [](auto& v) {
             return show_floats({v.index() == 0 ? static_cast<float>(std::get<int>(v))
                                                : static_cast<float>(std::get<double>(v))});
         },
         show_floats({0.5F})},
        {"getString",
         "getString",
         {3},
         [](auto& c, auto& k) { return show(c.getString(k)); },
         [](auto& c, auto& k) { return show(c.getString(k, "default")); },
         [](auto& v) { return show(v); },
         show(std::string("default"))},
        {"getIntVector",
         "getIntVector",
         {4},
         [](auto& c, auto& k) { return show(c.getIntVector(k)); },
         [](auto& c, auto& k) {
             return show(c.getIntVector(k, {1, 2}));
         },
         [](auto& v) { return show(v); },
         show(std::vector<int>{1, 2})},
        {"getDoubleVector",
         "getDoubleVector",
         {4, 5},
         [](auto& c, auto& k) { return show(c.getDoubleVector(k)); },
         [](auto& c, auto& k) { return show(c.getDoubleVector(k, {0.5})); },
         [](auto& v) {
             return v.index() == 4 ? show(convert_all<double>(std::get<std::vector<int>>(v)))
                                   : show(v);
         },
         show(std::vector<double>{0.5})},
        {"getFloatVector",
         "getDoubleVector",
         {4, 5},
         [](auto& c, auto& k) { return show_floats(c.getFloatVector(k)); },
         [](auto& c, auto& k) { return show_floats(c.getFloatVector(k, {0.5F})); },
         [](auto& v) {
             return show_floats(v.index() == 4
                                    ? convert_all<float>(std::get<std::vector<int>>(v))
                                    : convert_all<float>(std::get<std::vector<double>>(v)));
         },
         show_floats({0.5F})},
        {"getStringVector",
         "getStringVector",
         {6},
         [](auto& c, auto& k) { return show(c.getStringVector(k)); },
         [](auto& c, auto& k) { return show(c.getStringVector(k, {"a"})); },
         [](auto& v) { return show(v); },
         show(std::vector<std::string>{"a"})},
        {"getBoolVector",
         "getBoolVector",
         {7},
         [](auto& c, auto& k) { return show(c.getBoolVector(k)); },
         [](auto& c, auto& k) { return show(c.getBoolVector(k, {true})); },
         [](auto& v) { return show(v); },
         show(std::vector<bool>{true})}};
    return all;
}

/// A getter, with a default or without, of `key`; `call` is how it is called.
void check_getter(Pair& pair, const Getter& getter, bool has_default, const std::string& key,
                  const std::function<std::string()>& call)
{
    std::string expected;
    const auto found = pair.model.find(key);
    const std::string subject = "BlockConfiguration::";
    if (found == pair.model.end()) {
        expected = has_default ? getter.shown_default
                               : "out_of_range: " + subject + getter.name +
                                     " failed, the parameter '" + key + "' does not exist";
    } else if (std::count(getter.accepted.begin(), getter.accepted.end(),
                          found->second.value.index()) == 0) {
        expected = "runtime_error: " + subject + getter.name_for_types +
                   " failed, the parameter '" + key +
                   "' is type: " + type_name(found->second.value);
    } else {
        expected = getter.convert(found->second.value);
        found->second.consumed = true;
    }

    std::string result;
    const std::string failure = failure_of([&] { result = call(); });

    require_equal(failure.empty() ? result : failure, failure.empty() ? expected : expected.c_str(),
                  "a getter");
}

void do_get(Pair& pair, Input& input)
{
    const Getter& getter = getters()[input.below(getters().size())];
    const bool has_default = input.below(2) == 1;
    const std::string key = take_key(input);

    check_getter(pair, getter, has_default, key, [&] {
        return has_default ? getter.get_or(pair.config, key) : getter.get(pair.config, key);
    });
}

/// Something that gives the name of a type, of `key`.
void check_type(const Pair& pair, const std::string& key, const std::function<std::string()>& call)
{
    const auto found = pair.model.find(key);
    std::string name;

    const std::string failure = failure_of([&] { name = call(); });

    require_failure(failure.empty() ? name : failure,
                    found != pair.model.end() ? type_name(found->second.value)
                                              : "invalid_argument: No such parameter: " + key,
                    "the type of an element");
}

void do_get_type(Pair& pair, Input& input)
{
    const std::string key = take_key(input);

    check_type(pair, key, [&] { return pair.config.getTypeName(key); });
    check_type(pair, key, [&] { return to_string(pair.config.getType(key)); });
}

/// Whether a deletion of `prefix` removes `key`.
bool is_removed(const std::string& key, const std::string& prefix)
{
    return key.find(prefix) != std::string::npos &&
           (prefix.empty() || key.size() == prefix.size() || key[prefix.size()] == '.');
}

void delete_from(Model& model, const std::string& prefix)
{
    for (auto at = model.begin(); at != model.end();) {
        at = is_removed(at->first, prefix) ? model.erase(at) : std::next(at);
    }
}

void do_delete(Pair& pair, Input& input)
{
    const std::string prefix = take_key(input);

    pair.config.delete_element(prefix);

    delete_from(pair.model, prefix);
}

void merge_into(Model& model, const Model& other)
{
    for (const auto& [key, element] : other) {
        model[key] = element;
    }
}

Model diff_of(const Model& model, const Model& other)
{
    Model result;
    for (const auto& [key, element] : model) {
        const auto found = other.find(key);
        if (found == other.end() || !is_equal(element.value, found->second.value)) {
            result[key] = element;
        }
    }
    return result;
}

bool are_equal(const Model& a, const Model& b)
{
    return a.size() == b.size() && diff_of(a, b).empty();
}

/// Whether all keys stay short under `prefix`.
bool can_rebase(const Model& model, const std::string& prefix)
{
    return std::all_of(model.begin(), model.end(), [&prefix](const auto& entry) {
        return entry.first.size() + prefix.size() <= kLongestKey;
    });
}

Model rebased(const Model& model, const std::string& prefix)
{
    Model result;
    for (const auto& [key, element] : model) {
        result[prefix + "." + key] = element;
    }
    return result;
}

void do_rebase(Pair& pair, Input& input)
{
    const std::string prefix = take_key(input);
    if (can_rebase(pair.model, prefix)) {
        pair.config.rebase(prefix);
        pair.model = rebased(pair.model, prefix);
    }
}

std::string with_full_stop(const std::string& prefix)
{
    return !prefix.empty() && prefix.back() == '.' ? prefix : prefix + ".";
}

Model subtree_of(const Model& model, const std::string& prefix)
{
    const std::string path = with_full_stop(prefix);
    Model result;
    for (const auto& [key, element] : model) {
        if (key.find(path) != std::string::npos) {
            result[key.substr(path.size())] = {element.value, false};
        }
    }
    return result;
}

KeyValue make_leaf(const std::string& key, const ModelValue& value)
{
    return std::visit([&key](const auto& content) { return KeyValue(key, content); }, value);
}

/// Stores a literal: a leaf, a subtree or a list of subtrees.
/// @param prefix  may lie in the configuration
void store_literal(Pair& pair, const std::string& prefix, Input& input)
{
    const std::string key = take_key(input);
    const std::string member = take_key(input);
    const ModelValue value = take_value(input);
    const KeyValue leaf = make_leaf(member, value);
    const KeyValue literals[] = {
        make_leaf(key, value),
        {key, {leaf, {member, true}}},
        {key, {{leaf}, {}, {{member, {1, 2}}, leaf}}},
    };
    const std::string path = prefix + key;
    const std::vector<std::pair<std::string, ModelValue>> expected[] = {
        {{path, value}},
        {{path + "." + member, value}, {path + "." + member, true}},
        {{path + ".0." + member, value},
         {path + ".2." + member, std::vector<int>{1, 2}},
         {path + ".2." + member, value}},
    };
    const std::size_t choice = input.below(3);
    std::string refusal;
    for (const auto& [full_key, content] : expected[choice]) {
        refusal = refusal_of_key(full_key);
        if (!refusal.empty()) {
            break;
        }
        pair.model[full_key] = {content, false};
    }

    require_failure(
        failure_of([&] { KeyValue::set_recursively(pair.config, prefix, literals[choice]); }),
        refusal, "a literal");
}

/// Makes a whole configuration of a literal.
void do_literal(Pair& pair, Input& input)
{
    const std::string keys[] = {take_key(input), take_key(input)};
    const ModelValue values[] = {take_value(input), take_value(input)};
    std::string refusal = refusal_of_key(keys[0]);
    if (refusal.empty()) {
        refusal = refusal_of_key(keys[1]);
    }

    require_failure(
        failure_of([&] {
            pair.config = {make_leaf(keys[0], values[0]), make_leaf(keys[1], values[1])};
            pair.model = {{keys[0], {values[0], false}}};
            pair.model[keys[1]] = {values[1], false};
        }),
        refusal, "a configuration of a literal");
}

/// A stream with any format, but for the field width, which the first text alone has.
std::ostringstream take_stream(Input& input)
{
    std::ostringstream stream;
    const auto flag = [&](std::ios::fmtflags on) { return input.below(8) == 1 ? on : stream.dec; };
    stream.flags(flag(std::ios::boolalpha) | flag(std::ios::showpos) | flag(std::ios::showbase) |
                 flag(std::ios::showpoint) | flag(std::ios::uppercase) | flag(std::ios::fixed) |
                 flag(std::ios::scientific));
    if (input.below(8) == 1) {
        stream << std::hex;
    }
    if (input.below(4) == 1) {
        stream.precision(static_cast<int>(input.below(20)));
    }
    return stream;
}

void do_print(const Pair& pair, Input& input)
{
    std::ostringstream text = take_stream(input);
    text << pair.config;
    require_equal(text.str(), print(pair.model, text), "the text form");
}

/// print() writes to standard output, which is given back in any case.
void do_print_to_output(const Pair& pair)
{
    std::ostringstream text;
    std::streambuf* const before = std::cout.rdbuf(text.rdbuf());
    pair.config.print();
    std::cout.rdbuf(before);
    require_equal(text.str(), print(pair.model) + "\n", "print()");
}

void do_store(const Pair& from, Pair& to)
{
    std::istringstream in(to_bytes(from.config));
    const std::string failure = failure_of([&] { in >> to.config; });

    // A rebase does not check its prefix, so that not all keys can be read back.
    for (const auto& [key, element] : from.model) {
        if (const std::string refusal = refusal_of_key(key); !refusal.empty()) {
            require_failure(failure, refusal, "a stored key");
            return;
        }
        to.model[key] = {element.value, false};
    }
    require_equal(failure, "", "reading");
}

/// A getter of a walk, which reads one type alone. What it gives, as a text.
struct WalkGetter {
    std::size_t type;
    std::string (*get)(Iterator& it);
    std::string (*show)(const ModelValue& value);
};

constexpr WalkGetter kWalkGetters[] = {
    {0, [](auto& it) { return show(it.getInt()); }, show},
    {1, [](auto& it) { return show(it.getBool()); }, show},
    {2, [](auto& it) { return show(it.getDouble()); }, show},
    {3, [](auto& it) { return show(it.getString()); }, show},
    {4, [](auto& it) { return show(it.getIntVector()); }, show},
    {5, [](auto& it) { return show(it.getDoubleVector()); }, show},
    {6, [](auto& it) { return show(it.getStringVector()); }, show},
    {7, [](auto& it) { return show(it.getBoolVector()); }, show},
    {2, [](auto& it) { return show_floats({it.getFloat()}); },
     [](auto& v) { return show_floats({static_cast<float>(std::get<double>(v))}); }},
    {5, [](auto& it) { return show_floats(it.getFloatVector()); },
     [](auto& v) { return show_floats(convert_all<float>(std::get<std::vector<double>>(v))); }},
};

/// Reads the element on which the walk stands.
void check_walk_getter(Iterator& it, ModelElement& element, Input& input)
{
    const WalkGetter& getter = kWalkGetters[input.below(std::size(kWalkGetters))];
    const bool fits = element.value.index() == getter.type;
    std::string result;

    const std::string failure = failure_of([&] { result = getter.get(it); });

    require_equal(failure, fits ? "" : "bad_variant_access: std::get: wrong index for variant",
                  "a refusal of a walk");
    require_equal(result, fits ? getter.show(element.value) : "", "a value of a walk");
    element.consumed = true;
}

/// Does something that a walk has to bear while it stands on `current`: all but removing that
/// element. Tells whether the element kept its value.
bool change_during_walk(Pair& pair, const Pair& other, const std::string& current, Input& input)
{
    const std::string key = take_key(input);
    switch (input.below(6)) {
        case 0:
        case 1: {
            if (!is_removed(current, key)) {
                pair.config.delete_element(key);
                delete_from(pair.model, key);
            }
            return true;
        }
        case 2:
            pair.config += other.config;
            merge_into(pair.model, Model(other.model));
            return false;
        case 3:
            store_literal(pair, "", input);
            return false;
        case 4:
            do_store(other, pair);
            return false;
        default:
            set_both(pair, key, take_value(input));
            return key != current;
    }
}

void do_iterate(Pair& pair, const Pair& other, Input& input)
{
    const std::string prefix = take_key(input);
    const auto is_inside = [&](Model::const_iterator at) {
        return at != pair.model.end() && at->first.compare(0, prefix.size(), prefix) == 0;
    };

    const auto it = pair.config.iterate(prefix);
    Model::const_iterator at = pair.model.lower_bound(prefix);
    for (std::size_t step = 0; is_inside(at) && step < kMostSteps; ++step) {
        const std::string current = at->first;
        require(!it->is_end(), "a walk that goes on");
        const std::string& key = it->key();
        require_equal(key, current, "the key of a walk");
        if (input.below(2) == 1) {
            check_walk_getter(*it, pair.model[current], input);
        }
        if (input.below(2) == 1 && change_during_walk(pair, other, current, input)) {
            require(&it->key() == &key && key == current, "a reference to a key");
        }
        it->advance();
        at = pair.model.upper_bound(current);
    }
    if (is_inside(at)) {
        return;
    }
    require(it->is_end(), "a walk that ends");
    const char* const refusal = "runtime_error: Iteration beyond end of the sequence";
    require_equal(failure_of([&] { it->advance(); }), refusal, "advance()");
    require_equal(failure_of([&] { it->key(); }), refusal, "key()");
    require_equal(failure_of([&] { it->getBoolVector(); }), refusal, "a getter at the end");
}

int index_of(const std::string& component)
{
    std::size_t at = !component.empty() && component[0] == '-' ? 1 : 0;
    const bool is_negative = at == 1;
    if (at == component.size() || component[at] < '0' || component[at] > '9') {
        return -1;
    }
    long long number = 0;
    for (; at < component.size() && component[at] >= '0' && component[at] <= '9'; ++at) {
        number = std::min(number * 10 + (component[at] - '0'), 10'000'000'000LL);
    }
    number = is_negative ? -number : number;
    const bool fits =
        number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max();
    return fits ? static_cast<int>(number) : -1;
}

/// The first element, from `at` on, that belongs to a child of `path`, which ends in a full stop.
Model::const_iterator find_child(const Model& model, Model::const_iterator at,
                                 const std::string& path)
{
    for (; at != model.end() && at->first.compare(0, path.size(), path) == 0; ++at) {
        const std::size_t end = at->first.find('.', path.size());
        if (end != std::string::npos && end > path.size()) {
            return at;
        }
    }
    return model.end();
}

/// The path of the child to which an element belongs.
std::string child_of(const std::string& key, const std::string& path)
{
    return key.substr(0, key.find('.', path.size()));
}

/// Reads a field of a child in one of the ways that there are.
void check_field(Pair& pair, const Accessor& child, const std::string& path, Input& input)
{
    const std::string field = input.below(2) == 1 ? "x" : take_key(input);
    const std::string key = path + "." + field;
    const Getter& getter = getters()[input.below(getters().size())];
    require_equal(child.path(field), key, "the path of a field");
    switch (input.below(5)) {
        case 0:
            return check_getter(pair, getter, false, key,
                                [&] { return getter.get_field(child, field); });
        case 1:
            return check_getter(pair, getter, true, key,
                                [&] { return getter.get_field_or(child, field); });
        case 2:
            return check_type(pair, key, [&] { return to_string(child.getType(field)); });
        case 3:
            return check_same(child.getSubtree(field), subtree_of(pair.model, key));
        default: {
            const Children range = child.iterate_subtree(field);
            const std::string inner = with_full_stop(key);
            const auto at = find_child(pair.model, pair.model.lower_bound(inner), inner);
            require((range.begin() == range.end()) == (at == pair.model.end()), "inner children");
            return require(
                at == pair.model.end() || (*range.begin()).full_key() == child_of(at->first, inner),
                "an inner child");
        }
    }
}

void check_parts(const Accessor& child, const std::string& path, std::size_t prefix_length)
{
    const std::string component = path.substr(std::min(prefix_length, path.size()));
    require_equal(child.full_key(), path, "the path of a child");
    require_equal(child.prefix(), path.substr(0, prefix_length), "the prefix of a child");
    require_equal(child.key(), component, "the component of a child");
    require(child.index() == index_of(component), "the index of a child");
}

/// An accessor that no walk made.
void do_access(Pair& pair, Input& input)
{
    const std::string path = take_key(input);
    const std::size_t prefix_length = input.below(path.size() + 3);
    const Accessor child(pair.config, path, prefix_length);

    check_parts(child, path, prefix_length);
    check_field(pair, child, path, input);
}

void do_walk_children(Pair& pair, const Pair& other, Input& input)
{
    const std::string prefix = take_key(input);
    const std::string path = with_full_stop(prefix);

    const Children range = pair.config.iterate_subtree(prefix);
    Children::Iterator walk = range.begin();
    Children::InternalIterator cursor(pair.config, prefix);
    auto at = find_child(pair.model, pair.model.lower_bound(path), path);
    for (std::size_t step = 0; at != pair.model.end() && step < kMostSteps; ++step) {
        const std::string current = at->first;
        const std::string child_path = child_of(current, path);
        require(walk != range.end() && !cursor.is_end(), "no fewer children than there are");
        const Accessor child = *walk;
        check_parts(child, child_path, path.size());
        require_equal(cursor.current_path(), child_path, "the path of a cursor");
        require(&cursor.config() == &pair.config, "the configuration of a cursor");
        check_field(pair, child, child_path, input);
        if (input.below(2) == 1) {
            change_during_walk(pair, other, current, input);
        }
        ++walk;
        cursor = Children::InternalIterator(std::move(cursor));
        cursor.advance();
        at = pair.model.upper_bound(current);
        while (at != pair.model.end() && child_of(at->first, path) == child_path) {
            ++at;
        }
        at = find_child(pair.model, at, path);
    }
    if (at != pair.model.end()) {
        return;
    }
    ++walk;
    require(walk == range.end() && cursor.is_end(), "no more children than there are");
    require_equal(failure_of([&] { *walk; }), "runtime_error: Internal error",
                  "a child at the end");
    require_equal(failure_of([&] { cursor.current_path(); }), "runtime_error: Internal error",
                  "a path at the end");
}

/// Sets `key` to the value on which a walk stands, by reference where there is one.
void set_to_current(BlockConfiguration& config, const std::string& key, Iterator& it,
                    std::size_t type)
{
    switch (type) {
        case 0:
            return config.set(key, it.getInt());
        case 1:
            return config.set(key, it.getBool());
        case 2:
            return config.set(key, it.getDouble());
        case 3:
            return config.set(key, it.getString());
        case 4:
            return config.set(key, it.getIntVector());
        case 5:
            return config.set(key, it.getDoubleVector());
        case 6:
            return config.set(key, it.getStringVector());
        default:
            return config.set(key, it.getBoolVector());
    }
}

/// Calls with arguments that lie in the configuration itself: a key or a value.
void do_alias(Pair& pair, Input& input)
{
    const auto it = pair.config.iterate(take_key(input));
    if (it->is_end()) {
        return;
    }
    ModelElement& element = pair.model[it->key()];
    const bool takes_text =
        std::holds_alternative<std::string>(element.value) && input.below(2) == 1;
    element.consumed = element.consumed || takes_text;
    const std::string& inside = takes_text ? it->getString() : it->key();
    const std::string text = inside;
    const std::string refusal = refusal_of_key(text);
    switch (input.below(9)) {
        case 0:
            require_failure(failure_of([&] { pair.config.set(inside, inside); }), refusal,
                            "set() of a text under itself");
            if (refusal.empty()) {
                pair.model[text] = {text, false};
            }
            return;
        case 1:
        case 2: {
            const std::string key = input.below(2) == 1 ? it->key() : text;
            const ModelValue value = element.value;
            element.consumed = true;
            const std::string failure = failure_of([&] {
                set_to_current(pair.config, key == text ? inside : it->key(), *it, value.index());
            });
            require_failure(failure, refusal_of_key(key), "set() of a value of its own");
            if (failure.empty()) {
                pair.model[key] = {value, false};
            }
            return;
        }
        case 3:
            pair.config.delete_element(inside);
            return delete_from(pair.model, text);
        case 4:
            if (can_rebase(pair.model, text)) {
                pair.config.rebase(inside);
                pair.model = rebased(pair.model, text);
            }
            return;
        case 5:
            pair.config = pair.config.getSubtree(inside);
            pair.model = subtree_of(pair.model, text);
            return;
        case 6:
            return store_literal(pair, inside, input);
        case 7:
            require_equal(show(pair.config.getString("there is none", inside)), show(text),
                          "a default of its own");
            return;
        default:
            require(pair.config.iterate(inside)->is_end() ==
                        !std::any_of(pair.model.begin(), pair.model.end(),
                                     [&text](const auto& entry) {
                                         return entry.first.compare(0, text.size(), text) == 0;
                                     }),
                    "a walk over what lies below a text");
            return;
    }
}

void do_operation(std::array<Pair, 3>& pairs, Input& input)
{
    Pair& pair = pairs[input.below(3)];
    Pair& other = pairs[input.below(3)];
    switch (input.below(29)) {
        case 0:
        case 1:
        case 2:
        case 3:
            return do_set(pair, input);
        case 4:
        case 5:
            return do_get(pair, input);
        case 6:
            return do_get_type(pair, input);
        case 7:
            return do_delete(pair, input);
        case 8:
            pair.config += other.config;
            return merge_into(pair.model, Model(other.model));
        case 9: {
            BlockConfiguration sum = pair.config + other.config;
            merge_into(pair.model, Model(other.model));
            pair.config = std::move(sum);
            return;
        }
        case 10:
            pair.config = pair.config.diff(other.config);
            pair.model = diff_of(pair.model, other.model);
            return;
        case 11:
            return do_rebase(pair, input);
        case 12: {
            const std::string prefix = take_key(input);
            other.config = pair.config.getSubtree(prefix);
            other.model = subtree_of(pair.model, prefix);
            return;
        }
        case 13:
            return do_iterate(pair, other, input);
        case 14:
            return do_walk_children(pair, other, input);
        case 15:
            pair.config = other.config;
            pair.model = Model(other.model);
            return;
        case 16:
            if (&pair != &other) {
                pair.config = std::move(other.config);
                pair.model = std::move(other.model);
                other.model.clear();
            }
            return;
        case 17:
            require((pair.config == other.config) == are_equal(pair.model, other.model), "==");
            return require((pair.config != other.config) == !are_equal(pair.model, other.model),
                           "!=");
        case 18:
            return store_literal(pair, input.below(2) == 1 ? "p." : "", input);
        case 19:
            return do_print(pair, input);
        case 20:
            return do_store(pair, other);
        case 21:
            return do_alias(pair, input);
        case 22: {
            // A moved-from configuration is an empty one.
            const BlockConfiguration taken = std::move(pair.config);
            check_same(taken, pair.model);
            pair.model.clear();
            return;
        }
        case 23:
            pair.config.delete_element("");
            pair.model.clear();
            return;
        case 24:
            return do_access(pair, input);
        case 25:
            return do_literal(pair, input);
        case 26:
            return do_print_to_output(pair);
        case 27:
            std::swap(pair.config, other.config);
            return std::swap(pair.model, other.model);
        default: {
            std::ifstream in;
            std::ofstream out;
            pair.config.load(in);
            return pair.config.save(out);
        }
    }
}

}  // namespace

void fuzz_config(const std::uint8_t* data, std::size_t size)
{
    std::array<Pair, 3> pairs;
    Input input(data, size);
    for (std::size_t done = 0; !input.is_empty() && done < kMostOperations; ++done) {
        do_operation(pairs, input);
        // One of them each time, all at the end.
        Pair& pair = pairs[done % pairs.size()];
        check_same(pair.config, pair.model);
        if (pair.model.size() > kMostElements) {
            pair.config = BlockConfiguration();
            pair.model.clear();
        }
    }
    for (const Pair& pair : pairs) {
        check_same_marks(pair.config, pair.model);
    }
}

}  // namespace quorval_fuzz
