// Random histories of operations, held against a model written in the plainest way.

#include <quorval/config.h>
#include <quorval/pstore.h>
#include "core/config/contents.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <istream>
#include <limits>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <variant>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Type = BlockConfiguration::Type;

using Ints = std::vector<int>;
using Doubles = std::vector<double>;
using Strings = std::vector<std::string>;
using Bools = std::vector<bool>;
using Value = std::variant<int, bool, double, std::string, Ints, Doubles, Strings, Bools>;

const Strings kTypeNames = {"int",       "bool",         "double",       "string",
                            "IntVector", "DoubleVector", "StringVector", "BoolVector"};

struct Triple {
    std::string key;
    Value value;
    bool consumed;
};

/// A configuration as a list of triples in any order.
using Model = std::vector<Triple>;

// ---- What happened in an operation: a result or an exception, as text. ----

template <class Action>
std::string outcome(Action&& action)
{
    try {
        return action();
    } catch (const std::exception& error) {
        return std::string(typeid(error).name()) + ": " + error.what();
    }
}

template <class Exception>
std::string threw(const std::string& text)
{
    return std::string(typeid(Exception).name()) + ": " +
           text.c_str();  // what() ends at a null byte
}

/// Every bit of a value, so that 0.0 and -0.0 differ and a NaN does not.
std::string exact(int value)
{
    return std::to_string(value);
}
std::string exact(bool value)
{
    return value ? "true" : "false";
}
std::string exact(const std::string& value)
{
    return "'" + value + "'";
}
std::string exact(double value)
{
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return std::to_string(bits) + "d";
}
std::string exact(float value)
{
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return std::to_string(bits) + "f";
}

template <class Item>
std::string exact(const std::vector<Item>& items)
{
    std::string text = "[";
    for (const auto& item : items) {
        text += exact(item) + ";";
    }
    return text + "]";
}

std::string exact(const Value& value)
{
    return kTypeNames[value.index()] +
           std::visit([](const auto& content) { return exact(content); }, value);
}

// ---- The model. ----

bool model_is_valid(const std::string& key)
{
    return key.find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.") ==
           std::string::npos;
}

std::string model_refusal(const std::string& key)
{
    return threw<std::runtime_error>("Parameter name '" + key +
                                     "' not valid (should be [a-z0-9_.-]).");
}

bool begins_with(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

Triple* model_find(Model& model, const std::string& key)
{
    for (Triple& triple : model) {
        if (triple.key == key) {
            return &triple;
        }
    }
    return nullptr;
}

void model_put(Model& model, const Triple& triple)
{
    if (Triple* found = model_find(model, triple.key)) {
        *found = triple;
    } else {
        model.push_back(triple);
    }
}

Model sorted(Model model)
{
    std::sort(model.begin(), model.end(), [](const Triple& a, const Triple& b) {
        return std::lexicographical_compare(a.key.begin(), a.key.end(), b.key.begin(), b.key.end(),
                                            [](unsigned char x, unsigned char y) { return x < y; });
    });
    return model;
}

void model_delete(Model& model, const std::string& prefix)
{
    Model left;
    for (const Triple& triple : model) {
        const bool occurs = triple.key.find(prefix) != std::string::npos;
        const bool whole = triple.key.size() == prefix.size();
        const bool stop = triple.key.size() > prefix.size() && triple.key[prefix.size()] == '.';
        if (!(occurs && (whole || stop || prefix.empty()))) {
            left.push_back(triple);
        }
    }
    model = left;
}

bool model_equal(Model a, Model b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (const Triple& triple : a) {
        const Triple* other = model_find(b, triple.key);
        if (other == nullptr || !(other->value == triple.value)) {
            return false;
        }
    }
    return true;
}

Model model_merge(Model a, const Model& b)
{
    for (const Triple& triple : b) {
        model_put(a, triple);
    }
    return a;
}

Model model_diff(const Model& a, Model b)
{
    Model result;
    for (const Triple& triple : a) {
        const Triple* other = model_find(b, triple.key);
        if (other == nullptr || !(other->value == triple.value)) {
            result.push_back(triple);
        }
    }
    return result;
}

Model model_rebase(Model model, const std::string& prefix)
{
    for (Triple& triple : model) {
        triple.key = prefix + "." + triple.key;
    }
    return model;
}

std::string with_full_stop(const std::string& prefix)
{
    return !prefix.empty() && prefix.back() == '.' ? prefix : prefix + ".";
}

Model model_subtree(const Model& model, const std::string& prefix)
{
    const std::string path = with_full_stop(prefix);
    Model result;
    for (const Triple& triple : sorted(model)) {
        if (triple.key.find(path) != std::string::npos) {
            model_put(result, {triple.key.substr(path.size()), triple.value, false});
        }
    }
    return result;
}

Strings model_children(const Model& model, const std::string& prefix)
{
    const std::string path = with_full_stop(prefix);
    Strings children;
    for (const Triple& triple : sorted(model)) {
        const std::size_t stop = triple.key.find('.', path.size());
        if (!begins_with(triple.key, path) || stop == std::string::npos || stop == path.size()) {
            continue;
        }
        const std::string child = triple.key.substr(0, stop);
        if (children.empty() || children.back() != child) {
            children.push_back(child);
        }
    }
    return children;
}

std::string model_text(const Model& model)
{
    std::ostringstream os;
    os << "BlockConfiguration:\n";
    for (const Triple& triple : sorted(model)) {
        os << triple.key << " (" << kTypeNames[triple.value.index()] << ") = ";
        std::visit(
            [&os](const auto& content) {
                if constexpr (std::is_arithmetic_v<std::decay_t<decltype(content)>> ||
                              std::is_same_v<std::decay_t<decltype(content)>, std::string>) {
                    os << content;
                } else {
                    os << "{";
                    for (std::size_t i = 0; i < content.size(); ++i) {
                        os << (i == 0 ? "" : ", ") << content[i];
                    }
                    os << "}";
                }
            },
            triple.value);
        os << "\n";
    }
    return os.str();
}

// ---- Typed reading of the model. ----

template <class To, class From>
std::vector<To> converted(const std::vector<From>& items)
{
    return std::vector<To>(items.begin(), items.end());
}

/// The getters by number, in the order of the types, then getFloat and getFloatVector.
constexpr int kGetters = 10;
const Strings kGetterNames = {"getInt",       "getBool",         "getDouble",       "getString",
                              "getIntVector", "getDoubleVector", "getStringVector", "getBoolVector",
                              "getFloat",     "getFloatVector"};

/// What a getter makes of a value, nothing if it does not accept its type.
std::optional<std::string> model_convert(int getter, const Value& value)
{
    const auto type = static_cast<int>(value.index());
    if (getter == type) {
        return std::visit([](const auto& content) { return exact(content); }, value);
    }
    if (getter == 2 && type == 0) {
        return exact(double(std::get<int>(value)));
    }
    if (getter == 8 && type == 0) {
        return exact(float(std::get<int>(value)));
    }
    if (getter == 8 && type == 2) {
        return exact(float(std::get<double>(value)));
    }
    if (getter == 5 && type == 4) {
        return exact(converted<double>(std::get<Ints>(value)));
    }
    if (getter == 9 && type == 4) {
        return exact(converted<float>(std::get<Ints>(value)));
    }
    if (getter == 9 && type == 5) {
        return exact(converted<float>(std::get<Doubles>(value)));
    }
    return std::nullopt;
}

std::string model_read(Model& model, int getter, const std::string& key, bool with_default)
{
    Triple* triple = model_find(model, key);
    const std::string begin = "BlockConfiguration::";
    const std::string middle = " failed, the parameter '" + key + "' ";
    if (triple == nullptr) {
        return with_default ? "default"
                            : threw<std::out_of_range>(begin + kGetterNames[getter] + middle +
                                                       "does not exist");
    }
    const auto result = model_convert(getter, triple->value);
    if (!result) {
        return threw<std::runtime_error>(begin + kGetterNames[getter == 9 ? 5 : getter] + middle +
                                         "is type: " + kTypeNames[triple->value.index()]);
    }
    triple->consumed = true;
    return *result;
}

/// A general cursor converts nothing but doubles to floats, and marks first.
std::string model_read_cursor(Triple& triple, int getter)
{
    triple.consumed = true;
    const auto type = static_cast<int>(triple.value.index());
    if (getter == type || (getter == 8 && type == 2) || (getter == 9 && type == 5)) {
        return *model_convert(getter, triple.value);
    }
    return threw<std::bad_variant_access>("std::get: wrong index for variant");
}

// ---- The same of the library. ----

/// Reads with a getter by its number; T is anything with the getters of a configuration.
template <class T>
std::string read(const T& from, int getter, const std::string& key)
{
    switch (getter) {
        case 0:
            return exact(from.getInt(key));
        case 1:
            return exact(from.getBool(key));
        case 2:
            return exact(from.getDouble(key));
        case 3:
            return exact(from.getString(key));
        case 4:
            return exact(from.getIntVector(key));
        case 5:
            return exact(from.getDoubleVector(key));
        case 6:
            return exact(from.getStringVector(key));
        case 7:
            return exact(from.getBoolVector(key));
        case 8:
            return exact(from.getFloat(key));
        default:
            return exact(from.getFloatVector(key));
    }
}

/// The text of a result, "default" for a value that no element of the test holds.
template <class Result>
std::string or_default(const Result& result, const Result& default_value)
{
    return result == default_value ? "default" : exact(result);
}

template <class T>
std::string read_or_default(const T& from, int getter, const std::string& key)
{
    const auto with = [](auto default_value, auto call) {
        return or_default(call(default_value), default_value);
    };
    switch (getter) {
        case 0:
            return with(-987, [&](const auto& d) { return from.getInt(key, d); });
        // No bool is held by no element: both defaults tell.
        case 1:
            return from.getBool(key, true) == from.getBool(key, false)
                       ? exact(from.getBool(key, true))
                       : "default";
        case 2:
            return with(-987.0, [&](const auto& d) { return from.getDouble(key, d); });
        case 3:
            return with(std::string("?"), [&](const auto& d) { return from.getString(key, d); });
        case 4:
            return with(Ints{-987}, [&](const auto& d) { return from.getIntVector(key, d); });
        case 5:
            return with(Doubles{-987}, [&](const auto& d) { return from.getDoubleVector(key, d); });
        case 6:
            return with(Strings{"?"}, [&](const auto& d) { return from.getStringVector(key, d); });
        case 7:
            return with(Bools(77), [&](const auto& d) { return from.getBoolVector(key, d); });
        case 8:
            return with(-987.0F, [&](const auto& d) { return from.getFloat(key, d); });
        default:
            return with(std::vector<float>{-987},
                        [&](const auto& d) { return from.getFloatVector(key, d); });
    }
}

std::string read_cursor(BlockConfiguration::Iterator& cursor, int getter)
{
    switch (getter) {
        case 0:
            return exact(cursor.getInt());
        case 1:
            return exact(cursor.getBool());
        case 2:
            return exact(cursor.getDouble());
        case 3:
            return exact(cursor.getString());
        case 4:
            return exact(cursor.getIntVector());
        case 5:
            return exact(cursor.getDoubleVector());
        case 6:
            return exact(cursor.getStringVector());
        case 7:
            return exact(cursor.getBoolVector());
        case 8:
            return exact(cursor.getFloat());
        default:
            return exact(cursor.getFloatVector());
    }
}

void set(BlockConfiguration& config, const std::string& key, const Value& value)
{
    std::visit([&](const auto& content) { config.set(key, content); }, value);
}

// ---- Comparing the two. ----

/// Every element with all its bits, read from a copy, so that no mark changes.
Strings elements_of(const BlockConfiguration& config)
{
    const BlockConfiguration copy(config);
    Strings result;
    for (const auto cursor = copy.iterate(""); !cursor->is_end(); cursor->advance()) {
        const auto type = static_cast<int>(copy.getType(cursor->key()));
        result.push_back(cursor->key() + " " + kTypeNames[type] + read_cursor(*cursor, type));
    }
    return result;
}

Strings elements_of(const Model& model)
{
    Strings result;
    for (const Triple& triple : sorted(model)) {
        result.push_back(triple.key + " " + exact(triple.value));
    }
    return result;
}

Strings unread_of(const Model& model)
{
    Strings result;
    for (const Triple& triple : sorted(model)) {
        if (!triple.consumed) {
            result.push_back(triple.key);
        }
    }
    return result;
}

void expect_same(const BlockConfiguration& config, const Model& model, bool with_each_mark)
{
    EXPECT_EQ(elements_of(config), elements_of(model));
    EXPECT_EQ(config.is_consumed(), unread_of(model).empty());
    if (with_each_mark) {
        EXPECT_EQ(quorval_test::unread_keys(config), unread_of(model));
    }
}

// ---- Random things. ----

class Random {
public:
    explicit Random(unsigned seed) : engine_(seed) {}

    /// A number from 0 to count - 1. The distributions of the standard differ between libraries.
    int below(int count) { return static_cast<int>(engine_() % static_cast<unsigned>(count)); }

    template <class T>
    const T& pick(const std::vector<T>& items)
    {
        return items[static_cast<std::size_t>(below(static_cast<int>(items.size())))];
    }

    std::string path()
    {
        static const Strings kComponents = {"a", "b", "ab", "a-b", "0", "1", "2", "10", "", "A"};
        std::string path = pick(kComponents);
        for (int more = below(4); more > 0; --more) {
            path += "." + pick(kComponents);
        }
        return path;
    }

    /// Mostly a path, sometimes one that no setter accepts.
    std::string any_path() { return below(12) == 0 ? path() + pick(kOdd) : path(); }

    /// A beginning of a key: a path, or one cut anywhere.
    std::string prefix()
    {
        const std::string whole = any_path();
        return below(3) == 0 ? whole.substr(0, static_cast<std::size_t>(below(5))) : whole;
    }

    double real()
    {
        static const Doubles kReals = {0.0,
                                       -0.0,
                                       1.0,
                                       0.1,
                                       2.5,
                                       1e6,
                                       -3.0,
                                       1e300,
                                       std::numeric_limits<double>::quiet_NaN(),
                                       std::numeric_limits<double>::denorm_min()};
        return pick(kReals);
    }

    int integer()
    {
        static const Ints kIntegers = {0,
                                       1,
                                       2,
                                       -1,
                                       16777217,
                                       std::numeric_limits<int>::min(),
                                       std::numeric_limits<int>::max()};
        return pick(kIntegers);
    }

    std::string text()
    {
        static const Strings kTexts = {"",
                                       "a",
                                       "b",
                                       "two words",
                                       std::string(1, '\0'),
                                       "long enough not to lie in the string itself"};
        return pick(kTexts);
    }

    template <class Make>
    auto items(Make make)
    {
        std::vector<decltype(make())> result;
        for (int more = below(4); more > 0; --more) {
            result.push_back(make());
        }
        return result;
    }

    Value value()
    {
        switch (below(8)) {
            case 0:
                return integer();
            case 1:
                return below(2) == 0;
            case 2:
                return real();
            case 3:
                return text();
            case 4:
                return items([this] { return integer(); });
            case 5:
                return items([this] { return real(); });
            case 6:
                return items([this] { return text(); });
            default:
                return Bools(static_cast<std::size_t>(below(70)), below(2) == 0);
        }
    }

private:
    const Strings kOdd = {" ", "\xff", "/", "\x80.x", std::string(1, '\0')};

    std::mt19937 engine_;
};

// ---- Histories. ----

/// Two configurations and their models, and the operations that change or ask them.
class History {
public:
    History(unsigned seed, Quorval::PStore store) : random_(seed), store_(std::move(store)) {}

    void step()
    {
        side_ = random_.below(2);
        using Operation = void (History::*)();
        static const std::vector<Operation> kOperations = {
            &History::set_value,    &History::set_value,      &History::set_value,
            &History::set_value,    &History::set_value,      &History::set_value,
            &History::set_members,  &History::get_value,      &History::get_value,
            &History::get_type,     &History::delete_element, &History::merge,
            &History::add,          &History::diff,           &History::rebase,
            &History::take_subtree, &History::walk_children,  &History::walk_elements,
            &History::write_text,   &History::read_back,      &History::copy,
            &History::move,         &History::compare};
        (this->*random_.pick(kOperations))();
        ++steps_;
        const bool with_each_mark = steps_ % 8 == 0;
        for (int side = 0; side < 2; ++side) {
            expect_same(configs_[side], models_[side], with_each_mark);
            shorten(side);
        }
    }

    void store_and_load()
    {
        for (int side = 0; side < 2; ++side) {
            Model valid;
            for (const Triple& triple : models_[side]) {
                if (model_is_valid(triple.key)) {
                    valid.push_back({triple.key, triple.value, false});
                }
            }
            BlockConfiguration config;
            for (const Triple& triple : valid) {
                set(config, triple.key, triple.value);
            }

            store_.store("state", config);

            expect_same(store_.load("state"), valid, true);
        }
    }

private:
    BlockConfiguration& config() { return configs_[side_]; }
    BlockConfiguration& other_config() { return configs_[1 - side_]; }
    Model& model() { return models_[side_]; }
    Model& other_model() { return models_[1 - side_]; }

    /// Keys that a rebase made long are cut back, and so are large configurations.
    void shorten(int side)
    {
        bool is_long = models_[side].size() > 24;
        for (const Triple& triple : models_[side]) {
            is_long = is_long || triple.key.size() > 40;
        }
        if (is_long) {
            configs_[side].delete_element("");
            models_[side].clear();
        }
    }

    /// A key, every other time one that is there.
    std::string key()
    {
        return model().empty() || random_.below(2) == 0 ? random_.any_path()
                                                        : random_.pick(model()).key;
    }

    void set_value()
    {
        const std::string name = key();
        const Value value = random_.value();

        const std::string result = outcome([&] {
            set(config(), name, value);
            return "set";
        });

        if (model_is_valid(name)) {
            EXPECT_EQ(result, "set");
            model_put(model(), {name, value, false});
        } else {
            EXPECT_EQ(result, model_refusal(name));
        }
    }

    void set_members()
    {
        const std::string list = random_.path();
        const std::string first = random_.any_path();
        const std::string second = random_.any_path();
        const int number = random_.integer();
        const std::string text = random_.text();
        using KeyValue = BlockConfiguration::KeyValue;

        const std::string result = outcome([&] {
            KeyValue::set_recursively(
                config(), "p.", KeyValue(list, {{{first, number}}, {}, {{second, {text, text}}}}));
            return "set";
        });

        Model members = {{"p." + list + ".0." + first, number, false},
                         {"p." + list + ".2." + second, Strings{text, text}, false}};
        std::string expected = "set";
        for (const Triple& member : members) {
            if (!model_is_valid(member.key)) {
                expected = model_refusal(member.key);
                break;
            }
            model_put(model(), member);
        }
        EXPECT_EQ(result, expected);
    }

    void get_value()
    {
        const std::string name = key();
        const int getter = random_.below(kGetters);

        if (random_.below(2) == 0) {
            EXPECT_EQ(outcome([&] { return read(config(), getter, name); }),
                      model_read(model(), getter, name, false));
        } else {
            EXPECT_EQ(outcome([&] { return read_or_default(config(), getter, name); }),
                      model_read(model(), getter, name, true));
        }
    }

    void get_type()
    {
        const std::string name = key();

        const Triple* triple = model_find(model(), name);
        const std::string expected =
            triple == nullptr ? threw<std::invalid_argument>("No such parameter: " + name)
                              : kTypeNames[triple->value.index()];
        EXPECT_EQ(outcome([&] { return config().getTypeName(name); }), expected);
        EXPECT_EQ(outcome([&] { return to_string(config().getType(name)); }), expected);
    }

    void delete_element()
    {
        const std::string prefix = random_.below(3) == 0 ? key() : random_.prefix();

        config().delete_element(prefix);

        model_delete(model(), prefix);
    }

    void merge()
    {
        if (random_.below(8) == 0) {
            const BlockConfiguration& itself = config();
            config() += itself;
            return;
        }
        config() += other_config();
        model() = model_merge(model(), other_model());
    }

    void add()
    {
        expect_same(config() + other_config(), model_merge(model(), other_model()), true);
    }

    void diff()
    {
        expect_same(config().diff(other_config()), model_diff(model(), other_model()), true);
        expect_same(config().diff(config()), model_diff(model(), model()), true);
    }

    void rebase()
    {
        const std::string prefix = random_.prefix();

        config().rebase(prefix);

        model() = model_rebase(model(), prefix);
    }

    void take_subtree()
    {
        const std::string prefix = random_.prefix();
        if (prefix.empty()) {
            return;
        }
        expect_same(config().getSubtree(prefix), model_subtree(model(), prefix), true);
    }

    void walk_children()
    {
        const std::string prefix = random_.prefix();
        const int getter = random_.below(kGetters);

        Strings found;
        Strings read_fields;
        for (const auto& child : config().iterate_subtree(prefix)) {
            EXPECT_EQ(child.full_key(), child.prefix() + child.key());
            EXPECT_EQ(child.prefix(), with_full_stop(prefix));
            found.push_back(child.full_key());
            for (const auto& below : child.iterate_subtree("a")) {
                found.push_back(below.full_key());
            }
            read_fields.push_back(outcome([&] { return read(child, getter, "a"); }));
        }

        Strings expected;
        Strings expected_fields;
        for (const std::string& child : model_children(model(), prefix)) {
            expected.push_back(child);
            for (const std::string& below : model_children(model(), child + ".a")) {
                expected.push_back(below);
            }
            expected_fields.push_back(model_read(model(), getter, child + ".a", false));
        }
        EXPECT_EQ(found, expected) << "below '" << prefix << "'";
        EXPECT_EQ(read_fields, expected_fields);
    }

    void walk_elements()
    {
        const std::string prefix = random_.prefix();
        const int getter = random_.below(kGetters + 2);  // sometimes none

        Strings found;
        for (const auto cursor = config().iterate(prefix); !cursor->is_end(); cursor->advance()) {
            found.push_back(cursor->key());
            if (getter < kGetters) {
                found.push_back(outcome([&] { return read_cursor(*cursor, getter); }));
            }
        }

        Strings expected;
        model() = sorted(model());
        for (Triple& triple : model()) {
            if (begins_with(triple.key, prefix)) {
                expected.push_back(triple.key);
                if (getter < kGetters) {
                    expected.push_back(model_read_cursor(triple, getter));
                }
            }
        }
        EXPECT_EQ(found, expected) << "with '" << prefix << "'";
    }

    void write_text()
    {
        std::ostringstream os;

        os << config();

        EXPECT_EQ(os.str(), model_text(model()));
    }

    /// The binary form of one configuration, read over the other.
    void read_back()
    {
        Quorval::POFStream out(store_.get_path(), "never-closed");
        out << config();
        std::istream in(out.rdbuf());

        const std::string result = outcome([&] {
            in >> other_config();
            return "read";
        });

        std::string expected = "read";
        for (const Triple& triple : sorted(model())) {
            if (!model_is_valid(triple.key)) {
                expected = model_refusal(triple.key);
                break;
            }
            model_put(other_model(), {triple.key, triple.value, false});
        }
        EXPECT_EQ(result, expected);
    }

    void copy()
    {
        if (random_.below(2) == 0) {
            config() = other_config();
        } else {
            config() = BlockConfiguration(other_config());
        }
        model() = other_model();
    }

    void move()
    {
        config() = std::move(other_config());
        model() = other_model();
        other_model().clear();
    }

    void compare()
    {
        EXPECT_EQ(config() == other_config(), model_equal(model(), other_model()));
        EXPECT_EQ(config() != other_config(), !model_equal(model(), other_model()));
        EXPECT_EQ(config() == BlockConfiguration(config()), model_equal(model(), model()));
    }

    Random random_;
    Quorval::PStore store_;
    BlockConfiguration configs_[2];
    Model models_[2];
    int side_ = 0;
    int steps_ = 0;
};

TEST(ConfigProperty, BehavesLikeAListOfTriplesInEveryHistory)
{
    constexpr unsigned kHistories = 200;
    constexpr int kSteps = 60;
    const quorval_test::TemporaryDirectory directory;

    for (unsigned seed = 1; seed <= kHistories; ++seed) {
        SCOPED_TRACE("history " + std::to_string(seed));
        History history(seed, Quorval::PStore(directory.store_path()));
        for (int step = 0; step < kSteps && !HasFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            history.step();
        }
        if (seed % 10 == 0) {
            history.store_and_load();
        }
        ASSERT_FALSE(HasFailure());
    }
}

}  // namespace
