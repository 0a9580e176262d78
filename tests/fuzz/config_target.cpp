#include <algorithm>
#include <array>

#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <quorval/config.h>

#include "fuzz/input.h"
#include "fuzz/model.h"
#include "fuzz/targets.h"

namespace quorval_fuzz {

using Quorval::BlockConfiguration;

namespace {

using KeyValue = BlockConfiguration::KeyValue;

constexpr std::size_t kMostOperations = 16;
constexpr std::size_t kMostElements = 24;
constexpr std::size_t kLongestKey = 120;

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
    std::visit([&](const auto& content) { config.set(key, content); }, value);
}

void do_set(Pair& pair, Input& input)
{
    const std::string key = take_key(input);
    const ModelValue value = take_value(input);
    const std::string refusal = refusal_of_key(key);

    require_failure(failure_of([&] { set(pair.config, key, value); }), refusal, "set()");

    if (refusal.empty()) {
        pair.model[key] = {value, false};
    }
}

// What a getter gives, as a text: the value or the exception.
struct Getter {
    const char* name;
    const char* name_for_types;
    std::vector<std::size_t> accepted;
    std::function<std::string(const BlockConfiguration&, const std::string&)> get;
    std::function<std::string(const BlockConfiguration&, const std::string&)> get_or;
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

void do_get_type(Pair& pair, Input& input)
{
    const std::string key = take_key(input);
    const auto found = pair.model.find(key);
    std::string name;

    const std::string failure = failure_of([&] {
        name = pair.config.getTypeName(key);
        require(name == to_string(pair.config.getType(key)), "the name of a type");
    });

    require_failure(failure.empty() ? name : failure,
                    found != pair.model.end() ? type_name(found->second.value)
                                              : "invalid_argument: No such parameter: " + key,
                    "getTypeName()");
}

void delete_from(Model& model, const std::string& prefix)
{
    for (auto at = model.begin(); at != model.end();) {
        const std::string& key = at->first;
        const bool matches =
            key.find(prefix) != std::string::npos &&
            (prefix.empty() || key.size() == prefix.size() || key[prefix.size()] == '.');
        at = matches ? model.erase(at) : std::next(at);
    }
}

void do_delete(Pair& pair, Input& input)
{
    const std::string prefix = take_key(input);

    pair.config.delete_element(prefix);

    delete_from(pair.model, prefix);
}

/// Deletes with a reference to a key inside.
void do_delete_current(Pair& pair, Input& input)
{
    const auto it = pair.config.iterate(take_key(input));
    if (!it->is_end()) {
        const std::string key = it->key();

        pair.config.delete_element(it->key());

        delete_from(pair.model, key);
    }
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

void do_rebase(Pair& pair, Input& input)
{
    const std::string prefix = take_key(input);
    for (const auto& [key, element] : pair.model) {
        if (key.size() + prefix.size() > kLongestKey) {
            return;
        }
    }

    pair.config.rebase(prefix);

    Model rebased;
    for (const auto& [key, element] : pair.model) {
        rebased[prefix + "." + key] = element;
    }
    pair.model = rebased;
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

void do_iterate(Pair& pair, Input& input)
{
    const std::string prefix = take_key(input);
    std::vector<std::string> expected;
    for (const auto& [key, element] : pair.model) {
        if (key.compare(0, prefix.size(), prefix) == 0) {
            expected.push_back(key);
        }
    }

    const auto it = pair.config.iterate(prefix);
    for (const std::string& key : expected) {
        require(!it->is_end(), "a walk that goes on");
        require_equal(it->key(), key, "the key of a walk");
        if (input.below(2) == 1) {
            ModelElement& element = pair.model[key];
            const bool is_string = std::holds_alternative<std::string>(element.value);
            require_equal(failure_of([&] {
                              require_equal(show(it->getString()), show(element.value),
                                            "a value of a walk");
                          }),
                          is_string ? "" : "bad_variant_access: std::get: wrong index for variant",
                          "a getter of a walk");
            element.consumed = true;
        }
        it->advance();
    }
    require(it->is_end(), "a walk that ends");
    require_equal(failure_of([&] { it->advance(); }),
                  "runtime_error: Iteration beyond end of the sequence", "advance()");
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

void do_walk_children(Pair& pair, Input& input)
{
    const std::string prefix = take_key(input);
    const std::string path = with_full_stop(prefix);
    std::vector<std::string> expected;
    for (const auto& [key, element] : pair.model) {
        const std::size_t end = key.find('.', path.size());
        if (key.compare(0, path.size(), path) == 0 && end != std::string::npos &&
            end > path.size()) {
            const std::string component = key.substr(path.size(), end - path.size());
            if (std::count(expected.begin(), expected.end(), component) == 0) {
                expected.push_back(component);
            }
        }
    }

    std::size_t children = 0;
    for (const auto& child : pair.config.iterate_subtree(prefix)) {
        require(children < expected.size(), "no more children than there are");
        const std::string& component = expected[children++];
        require_equal(child.key(), component, "the component of a child");
        require_equal(child.prefix(), path, "the prefix of a child");
        require_equal(child.full_key(), path + component, "the path of a child");
        require(child.index() == index_of(component), "the index of a child");
        const Getter& getter = getters()[input.below(getters().size())];
        const std::string field = input.below(2) == 1 ? "x" : "";
        require_equal(child.path(field), path + component + "." + field, "the path of a field");
        check_getter(pair, getter, false, child.path(field),
                     [&] { return getter.get(pair.config, child.path(field)); });
        check_same(child.getSubtree(field), subtree_of(pair.model, child.path(field)));
    }
    require(children == expected.size(), "no fewer children than there are");
}

/// Stores a literal with a leaf, a subtree and a list of subtrees.
void do_literal(Pair& pair, Input& input)
{
    const std::string key = take_key(input);
    const std::string member = take_key(input);
    const int number = input.number<int>();
    const KeyValue literals[] = {
        {key, number},
        {key, {{member, "text"}, {member, true}}},
        {key, {{{member, 0.5}}, {}, {{member, {1, 2}}}}},
    };
    const std::size_t choice = input.below(3);
    const std::vector<std::pair<std::string, ModelValue>> expected[] = {
        {{key, number}},
        {{key + "." + member, std::string("text")}, {key + "." + member, true}},
        {{key + ".0." + member, 0.5}, {key + ".2." + member, std::vector<int>{1, 2}}},
    };
    std::string refusal;
    for (const auto& [full_key, value] : expected[choice]) {
        refusal = refusal_of_key(full_key);
        if (!refusal.empty()) {
            break;
        }
        pair.model[full_key] = {value, false};
    }

    require_failure(
        failure_of([&] { KeyValue::set_recursively(pair.config, "", literals[choice]); }), refusal,
        "a literal");
}

void do_print(const Pair& pair)
{
    std::ostringstream text;
    text << pair.config;
    require_equal(text.str(), print(pair.model), "the text form");
}

void do_store(Pair& from, Pair& to)
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

void do_operation(std::array<Pair, 3>& pairs, Input& input)
{
    Pair& pair = pairs[input.below(3)];
    Pair& other = pairs[input.below(3)];
    switch (input.below(24)) {
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
            return do_iterate(pair, input);
        case 14:
            return do_walk_children(pair, input);
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
            return do_literal(pair, input);
        case 19:
            return do_print(pair);
        case 20:
            return do_store(pair, other);
        case 21:
            return do_delete_current(pair, input);
        case 22: {
            // A moved-from configuration is an empty one.
            const BlockConfiguration taken = std::move(pair.config);
            check_same(taken, pair.model);
            pair.model.clear();
            return;
        }
        default:
            pair.config.delete_element("");
            pair.model.clear();
            return;
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
