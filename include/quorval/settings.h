// Declared settings: one declaration gives a block type its defaults, limits, errors and
// description. And typed ports, which need no name of a data type.
#pragma once

#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/export.h>
#include <quorval/pluginloader.h>
#include <quorval/port.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Quorval {

/// What a registry is, too, that takes descriptions of block types: register_block() asks for it
/// with a dynamic_cast. New operations come at the end.
class QUORVAL_EXPORT IDescriptionRegistry {
public:
    /// Records what Settings::describe() tells about a block type. Called behind
    /// register_block_create_fn() for the same type.
    virtual void describe_block(const std::string& type, const BlockConfiguration& description) = 0;

    IDescriptionRegistry(const IDescriptionRegistry&) = delete;
    IDescriptionRegistry& operator=(const IDescriptionRegistry&) = delete;

protected:
    IDescriptionRegistry() = default;
    ~IDescriptionRegistry() = default;
};

/// What is wrong with the value of a setting.
struct SettingProblem {
    std::string text;  ///< empty when nothing is
    int item = -1;     ///< the index of the wrong item of a list; -1: the value as a whole
};

/// One declared setting, apart from the structure that holds its value. A plain record, for tools.
struct Setting {
    std::string key;
    std::string text;  ///< what it is for
    BlockConfiguration::Type type = BlockConfiguration::Type::Int;
    bool is_float = false;     ///< a double, or a list of them, that the block holds as a float
    bool is_required = false;  ///< there is no default
    bool is_live = false;      ///< can be changed while the graph runs
    bool has_range = false;
    double minimum = 0;  ///< of a number, or of each number of a list
    double maximum = 0;
    bool has_length = false;
    int minimum_items = 0;  ///< of a list
    int maximum_items = 0;
    std::vector<std::string> choices;  ///< for a string, or each of a list; empty: no limit
};

/// Whether `config` has an element for the setting. Does not consume it.
inline bool has_value(const BlockConfiguration& config, const Setting& setting);

/// Looks at the element of the setting, which has to be there, and consumes it. The text is that
/// of Settings::read().
inline SettingProblem find_problem(const BlockConfiguration& config, const Setting& setting);

/// Takes the settings out of what Settings::describe() returned.
/// @throws what the getters throw, for a description that is none; std::invalid_argument for a
///     type of setting that this header does not know: "there is no type of setting '<type>'"
inline std::vector<Setting> read_settings(const BlockConfiguration& description);

/// What this header keeps to itself. Cold functions are those that the compiler would spend most
/// time on; they are used while blocks are made and changed.
namespace settings_detail {

using Type = BlockConfiguration::Type;

// ---- Texts ----

/// One after the other. Sums of strings would take the compiler longer than all the rest.
[[gnu::cold]] inline std::string join(std::initializer_list<std::string_view> parts)
{
    std::string text;
    for (const std::string_view part : parts) {
        text.append(part);
    }
    return text;
}

/// The shortest form that reads back. Not std::to_string, which brings a unique symbol into every
/// plug-in.
template <class Number, class... Format>
std::string format(Number number, Format... format)
{
    constexpr std::size_t kLongest = 32;
    char text[kLongest];  // NOLINT(*-avoid-c-arrays): std::array is one more header
    return std::string(text, std::to_chars(text, text + kLongest, number, format...).ptr);
}

// Not those of <cmath>, a large header.
inline bool is_nan(double number)
{
    return number != number;
}

inline bool is_finite(double number)
{
    return !is_nan(number - number);
}

/// Whether a float takes a number, rounded where it has to be.
inline bool fits_float(double number)
{
    // Half a step above the greatest float, from where on a number is rounded to infinity.
    constexpr double kTooGreat = 0x1.ffffffp+127;
    return number > -kTooGreat && number < kTooGreat;
}

inline std::string to_text(double number)
{
    return is_nan(number) ? "nan" : format(number);  // of either sign
}

inline std::string to_whole_text(double number)
{
    return format(number, std::chars_format::fixed);
}

/// The double that is written like the float: 0.1 and not 0.10000000149011612.
[[gnu::cold]] inline double widen(float number)
{
    auto wide = static_cast<double>(number);
    if (is_finite(wide)) {
        const std::string text = format(number);
        std::from_chars(text.data(), text.data() + text.size(), wide);
    }
    return wide;
}

inline const char* get_type_name(Type type)
{
    switch (type) {
        case Type::Int:
            return "int";
        case Type::Bool:
            return "bool";
        case Type::Double:
            return "double";
        case Type::String:
            return "string";
        case Type::IntVector:
            return "IntVector";
        case Type::DoubleVector:
            return "DoubleVector";
        case Type::StringVector:
            return "StringVector";
        case Type::BoolVector:
            return "BoolVector";
    }
    return "";
}

[[gnu::cold]] inline Type get_type(const std::string& name)
{
    constexpr int kLast = static_cast<int>(Type::BoolVector);
    for (int i = 0; i <= kLast; ++i) {
        if (name == get_type_name(static_cast<Type>(i))) {
            return static_cast<Type>(i);
        }
    }
    throw std::invalid_argument(join({"there is no type of setting '", name, "'"}));
}

inline bool is_whole(const Setting& setting)
{
    return setting.type == Type::Int || setting.type == Type::IntVector;
}

inline bool is_number(const Setting& setting)
{
    return is_whole(setting) || setting.type == Type::Double || setting.type == Type::DoubleVector;
}

inline bool is_string(const Setting& setting)
{
    return setting.type == Type::String || setting.type == Type::StringVector;
}

inline bool is_list(const Setting& setting)
{
    return setting.type >= Type::IntVector;
}

/// What a problem with the item of this index is said to be with.
inline int get_item(const Setting& setting, std::size_t index)
{
    return is_list(setting) ? static_cast<int>(index) : -1;
}

inline bool has(const BlockConfiguration& config, const std::string& key)
{
    const auto first = config.iterate(key);  // a key comes before those that it begins
    return !first->is_end() && first->key() == key;
}

// ---- Looking at a value ----

[[gnu::cold]] inline SettingProblem make_problem(const Setting& setting,
                                                 std::initializer_list<std::string_view> allowed,
                                                 std::string_view value, int item)
{
    std::string text = join({"'", setting.key, "' has to be ", join(allowed), ", not ", value});
    if (item >= 0) {
        text = join({text, " (item ", to_whole_text(item), ")"});
    }
    return {std::move(text), item};
}

[[gnu::cold]] inline SettingProblem look_at_length(const Setting& setting, std::size_t count)
{
    const auto length = static_cast<double>(count);
    if (!setting.has_length ||
        (length >= setting.minimum_items && length <= setting.maximum_items)) {
        return {};
    }
    return make_problem(setting,
                        {"of ", to_whole_text(setting.minimum_items), " to ",
                         to_whole_text(setting.maximum_items), " items"},
                        to_whole_text(length), -1);
}

inline std::string to_text(const Setting& setting, double number)
{
    return is_whole(setting) ? to_whole_text(number) : to_text(number);
}

[[gnu::cold]] inline SettingProblem look_at_number(const Setting& setting, double number, int item)
{
    const bool is_inside =
        is_finite(number) && number >= setting.minimum && number <= setting.maximum;
    if (setting.has_range && !is_inside) {
        return make_problem(
            setting,
            {"from ", to_text(setting, setting.minimum), " to ", to_text(setting, setting.maximum)},
            to_text(setting, number), item);
    }
    if (!is_finite(number) || (setting.is_float && !fits_float(number))) {
        return make_problem(setting, {"a finite number"}, to_text(number), item);
    }
    return {};
}

[[gnu::cold]] inline SettingProblem look_at_text(const Setting& setting, const std::string& text,
                                                 int item)
{
    std::string choices;
    for (const std::string& choice : setting.choices) {
        if (choice == text) {
            return {};
        }
        choices = join({choices, choices.empty() ? "" : ", ", choice});
    }
    if (setting.choices.empty()) {
        return {};
    }
    return make_problem(setting, {"one of ", choices}, join({"'", text, "'"}), item);
}

/// The value, or the items of a list.
[[gnu::cold]] inline std::vector<double> get_numbers(const BlockConfiguration& config,
                                                     const Setting& setting)
{
    if (setting.type == Type::Int) {
        return {static_cast<double>(config.getInt(setting.key))};
    }
    if (setting.type == Type::Double) {
        return {config.getDouble(setting.key)};
    }
    if (setting.type == Type::IntVector) {
        const std::vector<int> items = config.getIntVector(setting.key);
        return std::vector<double>(items.begin(), items.end());
    }
    return config.getDoubleVector(setting.key);
}

[[gnu::cold]] inline SettingProblem look_at_numbers(const BlockConfiguration& config,
                                                    const Setting& setting)
{
    if (setting.is_float && setting.type == Type::Double) {
        config.getFloat(setting.key);  // another type is refused in the words of this getter
    }
    const std::vector<double> numbers = get_numbers(config, setting);
    SettingProblem problem = look_at_length(setting, numbers.size());
    for (std::size_t i = 0; problem.text.empty() && i < numbers.size(); ++i) {
        problem = look_at_number(setting, numbers[i], get_item(setting, i));
    }
    return problem;
}

[[gnu::cold]] inline SettingProblem look_at_texts(const BlockConfiguration& config,
                                                  const Setting& setting)
{
    std::vector<std::string> texts;
    if (is_list(setting)) {
        texts = config.getStringVector(setting.key);
    } else {
        texts.push_back(config.getString(setting.key));
    }
    SettingProblem problem = look_at_length(setting, texts.size());
    for (std::size_t i = 0; problem.text.empty() && i < texts.size(); ++i) {
        problem = look_at_text(setting, texts[i], get_item(setting, i));
    }
    return problem;
}

/// @throws std::runtime_error  the element has another type, with the text of the getter
[[gnu::cold]] inline SettingProblem look_at_value(const BlockConfiguration& config,
                                                  const Setting& setting)
{
    if (is_number(setting)) {
        return look_at_numbers(config, setting);
    }
    if (is_string(setting)) {
        return look_at_texts(config, setting);
    }
    if (is_list(setting)) {
        return look_at_length(setting, config.getBoolVector(setting.key).size());
    }
    config.getBool(setting.key);
    return {};
}

[[gnu::cold]] inline std::vector<double> widen_all(const std::vector<float>& numbers)
{
    std::vector<double> wide;
    wide.reserve(numbers.size());
    for (const float number : numbers) {
        wide.push_back(widen(number));
    }
    return wide;
}

// ---- Fields of a structure ----

template <class>
constexpr bool is_never()
{
    return false;
}

constexpr auto kNoType = static_cast<Type>(-1);

template <class Field>
constexpr Type get_field_type()
{
    if constexpr (std::is_same_v<Field, int>) {
        return Type::Int;
    } else if constexpr (std::is_same_v<Field, bool>) {
        return Type::Bool;
    } else if constexpr (std::is_same_v<Field, double> || std::is_same_v<Field, float>) {
        return Type::Double;
    } else if constexpr (std::is_same_v<Field, std::string>) {
        return Type::String;
    } else if constexpr (std::is_same_v<Field, std::vector<int>>) {
        return Type::IntVector;
    } else if constexpr (std::is_same_v<Field, std::vector<double>> ||
                         std::is_same_v<Field, std::vector<float>>) {
        return Type::DoubleVector;
    } else if constexpr (std::is_same_v<Field, std::vector<std::string>>) {
        return Type::StringVector;
    } else if constexpr (std::is_same_v<Field, std::vector<bool>>) {
        return Type::BoolVector;
    } else {
        return kNoType;
    }
}

/// Whether a member of this type can hold a setting.
template <class Field>
constexpr bool is_field()
{
    return get_field_type<Field>() != kNoType;
}

template <class Field>
constexpr bool is_float_field()
{
    return std::is_same_v<Field, float> || std::is_same_v<Field, std::vector<float>>;
}

template <class Field>
void load(const BlockConfiguration& config, const std::string& key, void* address)
{
    auto& field = *static_cast<Field*>(address);
    constexpr Type kType = get_field_type<Field>();
    if constexpr (kType == Type::Int) {
        field = config.getInt(key);
    } else if constexpr (kType == Type::Bool) {
        field = config.getBool(key);
    } else if constexpr (std::is_same_v<Field, float>) {
        field = config.getFloat(key);
    } else if constexpr (kType == Type::Double) {
        field = config.getDouble(key);
    } else if constexpr (kType == Type::String) {
        field = config.getString(key);
    } else if constexpr (kType == Type::IntVector) {
        field = config.getIntVector(key);
    } else if constexpr (is_float_field<Field>()) {
        field = config.getFloatVector(key);
    } else if constexpr (kType == Type::DoubleVector) {
        field = config.getDoubleVector(key);
    } else if constexpr (kType == Type::StringVector) {
        field = config.getStringVector(key);
    } else {
        field = config.getBoolVector(key);
    }
}

template <class Field>
void store(BlockConfiguration& config, const std::string& key, const void* address)
{
    const auto& field = *static_cast<const Field*>(address);
    if constexpr (std::is_same_v<Field, float>) {
        config.set(key, widen(field));
    } else if constexpr (is_float_field<Field>()) {
        config.set(key, widen_all(field));
    } else {
        config.set(key, field);
    }
}

/// Where the structure holds the value of a setting, and the operations of its type.
struct Member {
    std::ptrdiff_t offset;
    void (*load)(const BlockConfiguration& config, const std::string& key, void* address);
    void (*store)(BlockConfiguration& config, const std::string& key, const void* address);
};

struct Declared : Setting {
    Member member = {};
};

// ---- Declarations ----

[[gnu::cold]] inline std::string describe_mistake(const Setting& setting, std::string_view text)
{
    return join({"setting '", setting.key, "' (", get_type_name(setting.type), "): ", text});
}

/// What Settings<T> does that does not depend on T, so that it is compiled once. `values` points to
/// a T.
class Declarations {
public:
    explicit Declarations(std::string summary) : summary_(std::move(summary)) {}

    void add(std::string_view key, std::string_view text, Type type, bool is_float,
             const Member& member);
    void set_range(double minimum, double maximum);
    void set_length(int minimum, int maximum);
    void set_choices(std::vector<std::string> choices);
    void set_choices(std::initializer_list<std::string_view> choices);
    /// The setting that was added last.
    Setting& last(std::string_view operation);

    void read(const BlockConfiguration& config, void* values) const;
    void apply(const BlockConfiguration& override, void* values) const;
    void check(const void* values) const;
    void check(const void* values, const std::string& type) const;
    BlockConfiguration describe(const void* values) const;

private:
    void note_mistake(const Setting& setting, std::string_view text);
    void refuse_mistakes() const;
    void check_default(std::size_t index, const void* values) const;
    void load_value(std::size_t index, const BlockConfiguration& config, void* values) const;
    void store_value(std::size_t index, const void* values, BlockConfiguration& config,
                     const std::string& key) const;

    std::string summary_;
    std::vector<Declared> settings_;
    std::string mistake_;  // the first in the declaration; empty: none so far
};

[[gnu::cold]] inline void Declarations::note_mistake(const Setting& setting, std::string_view text)
{
    if (mistake_.empty()) {
        mistake_ = describe_mistake(setting, text);
    }
}

[[gnu::cold]] inline void Declarations::refuse_mistakes() const
{
    if (!mistake_.empty()) {
        throw std::logic_error(mistake_);
    }
}

[[gnu::cold]] inline void Declarations::add(std::string_view key, std::string_view text, Type type,
                                            bool is_float, const Member& member)
{
    const std::size_t count = settings_.size();
    Declared& setting = settings_.emplace_back();
    setting.member = member;
    setting.key = key;
    setting.text = text;
    setting.type = type;
    setting.is_float = is_float;
    if (key.empty()) {
        note_mistake(setting, "it has no key");
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (settings_[i].key == key) {
            note_mistake(setting, "it is declared twice");
        }
    }
}

[[gnu::cold]] inline Setting& Declarations::last(std::string_view operation)
{
    if (settings_.empty()) {
        // So that there is something to change. What is declared wrongly is never used.
        add("", "", Type::Int, false, Member());
        mistake_ =
            describe_mistake(settings_.back(), join({operation, " comes before the first add()"}));
    }
    return settings_.back();
}

[[gnu::cold]] inline void Declarations::set_range(double minimum, double maximum)
{
    Setting& setting = last("range()");
    const auto is_int = [](double bound) {
        return bound >= std::numeric_limits<int>::min() &&
               bound <= std::numeric_limits<int>::max() &&
               bound == static_cast<double>(static_cast<int>(bound));
    };
    if (!is_number(setting)) {
        note_mistake(setting, "range() is for numbers");
    } else if (!(minimum <= maximum)) {
        note_mistake(setting,
                     join({"nothing is from ", to_text(minimum), " to ", to_text(maximum)}));
    } else if (is_whole(setting) && !(is_int(minimum) && is_int(maximum))) {
        note_mistake(setting, "the ends of its range have to be ints");
    }
    setting.has_range = true;
    setting.minimum = minimum;
    setting.maximum = maximum;
}

[[gnu::cold]] inline void Declarations::set_length(int minimum, int maximum)
{
    Setting& setting = last("length()");
    if (!is_list(setting)) {
        note_mistake(setting, "length() is for lists");
    } else if (minimum < 0 || minimum > maximum) {
        note_mistake(setting, join({"no list has ", to_whole_text(minimum), " to ",
                                    to_whole_text(maximum), " items"}));
    }
    setting.has_length = true;
    setting.minimum_items = minimum;
    setting.maximum_items = maximum;
}

[[gnu::cold]] inline void Declarations::set_choices(std::vector<std::string> choices)
{
    Setting& setting = last("choices()");
    if (!is_string(setting)) {
        note_mistake(setting, "choices() is for strings");
    } else if (choices.empty()) {
        note_mistake(setting, "there is nothing to choose from");
    }
    setting.choices = std::move(choices);
}

[[gnu::cold]] inline void Declarations::set_choices(std::initializer_list<std::string_view> choices)
{
    std::vector<std::string> texts;
    for (const std::string_view choice : choices) {
        texts.emplace_back(choice);
    }
    set_choices(std::move(texts));
}

[[gnu::cold]] inline void Declarations::load_value(std::size_t index,
                                                   const BlockConfiguration& config,
                                                   void* values) const
{
    const Declared& setting = settings_[index];
    const SettingProblem problem = find_problem(config, setting);
    if (!problem.text.empty()) {
        throw std::invalid_argument(problem.text);
    }
    const Member& member = setting.member;
    member.load(config, setting.key, static_cast<char*>(values) + member.offset);
}

[[gnu::cold]] inline void Declarations::store_value(std::size_t index, const void* values,
                                                    BlockConfiguration& config,
                                                    const std::string& key) const
{
    const Member& member = settings_[index].member;
    member.store(config, key, static_cast<const char*>(values) + member.offset);
}

[[gnu::cold]] inline void Declarations::read(const BlockConfiguration& config, void* values) const
{
    refuse_mistakes();
    for (std::size_t i = 0; i < settings_.size(); ++i) {
        if (has_value(config, settings_[i])) {
            load_value(i, config, values);
        } else if (settings_[i].is_required) {
            throw std::invalid_argument(join({"'", settings_[i].key, "' is missing"}));
        }
    }
}

[[gnu::cold]] inline void Declarations::apply(const BlockConfiguration& override,
                                              void* values) const
{
    refuse_mistakes();
    for (std::size_t i = 0; i < settings_.size(); ++i) {
        if (!has_value(override, settings_[i])) {
            continue;
        }
        if (!settings_[i].is_live) {
            throw std::invalid_argument(
                join({"'", settings_[i].key, "' cannot be changed while the graph runs"}));
        }
        load_value(i, override, values);
    }
}

[[gnu::cold]] inline void Declarations::check(const void* values) const
{
    refuse_mistakes();
    for (std::size_t i = 0; i < settings_.size(); ++i) {
        check_default(i, values);
    }
}

[[gnu::cold]] inline void Declarations::check(const void* values, const std::string& type) const
{
    try {
        check(values);
    } catch (const std::logic_error& error) {
        throw std::logic_error(join({"block type '", type, "': ", error.what()}));
    }
}

/// Also finds a key that no configuration can hold.
[[gnu::cold]] inline void Declarations::check_default(std::size_t index, const void* values) const
{
    const Setting& setting = settings_[index];
    BlockConfiguration config;
    try {
        store_value(index, values, config, setting.key);
    } catch (const std::runtime_error& error) {
        throw std::logic_error(describe_mistake(setting, error.what()));
    }
    if (setting.is_required) {
        return;
    }
    const std::string text = find_problem(config, setting).text;
    if (!text.empty()) {
        throw std::logic_error(describe_mistake(setting, join({"its default is wrong: ", text})));
    }
}

/// The key of a part of the description.
[[gnu::cold]] inline std::string get_path(std::size_t index, std::string_view part)
{
    return join({"settings.", to_whole_text(static_cast<double>(index)), ".", part});
}

[[gnu::cold]] inline void describe_limits(const Setting& setting, std::size_t index,
                                          BlockConfiguration& description)
{
    const bool is_int = is_whole(setting);
    if (setting.has_range && is_int) {
        description.set(get_path(index, "minimum"), static_cast<int>(setting.minimum));
        description.set(get_path(index, "maximum"), static_cast<int>(setting.maximum));
    } else if (setting.has_range) {
        description.set(get_path(index, "minimum"), setting.minimum);
        description.set(get_path(index, "maximum"), setting.maximum);
    }
    if (setting.has_length) {
        description.set(get_path(index, "minimum_items"), setting.minimum_items);
        description.set(get_path(index, "maximum_items"), setting.maximum_items);
    }
    if (!setting.choices.empty()) {
        description.set(get_path(index, "choices"), setting.choices);
    }
}

[[gnu::cold]] inline BlockConfiguration Declarations::describe(const void* values) const
{
    BlockConfiguration description;
    description.set("summary", summary_);
    for (std::size_t i = 0; i < settings_.size(); ++i) {
        const Setting& setting = settings_[i];
        description.set(get_path(i, "key"), setting.key);
        description.set(get_path(i, "type"), get_type_name(setting.type));
        description.set(get_path(i, "float"), setting.is_float);
        description.set(get_path(i, "text"), setting.text);
        description.set(get_path(i, "required"), setting.is_required);
        description.set(get_path(i, "live"), setting.is_live);
        if (!setting.is_required) {
            store_value(i, values, description, get_path(i, "default"));
        }
        describe_limits(setting, i, description);
    }
    return description;
}

[[gnu::cold]] inline void read_limits(const BlockConfiguration& description, std::size_t index,
                                      Setting& setting)
{
    setting.has_range = has(description, get_path(index, "minimum"));
    if (setting.has_range) {
        setting.minimum = description.getDouble(get_path(index, "minimum"));
        setting.maximum = description.getDouble(get_path(index, "maximum"));
    }
    setting.has_length = has(description, get_path(index, "minimum_items"));
    if (setting.has_length) {
        setting.minimum_items = description.getInt(get_path(index, "minimum_items"));
        setting.maximum_items = description.getInt(get_path(index, "maximum_items"));
    }
    setting.choices = description.getStringVector(get_path(index, "choices"), {});
}

[[gnu::cold]] inline Setting read_setting(const BlockConfiguration& description, std::size_t index)
{
    Setting setting;
    setting.key = description.getString(get_path(index, "key"));
    setting.text = description.getString(get_path(index, "text"), "");
    setting.type = get_type(description.getString(get_path(index, "type")));
    setting.is_float = description.getBool(get_path(index, "float"), false);
    setting.is_required = description.getBool(get_path(index, "required"), false);
    setting.is_live = description.getBool(get_path(index, "live"), false);
    read_limits(description, index, setting);
    return setting;
}

// ---- Registering ----

/// Hands the description over where the registry takes one. What is compiled without run-time
/// types cannot ask; its blocks are registered all the same.
inline void hand_over(IRegistry& registry, const std::string& type,
                      const BlockConfiguration& description)
{
#ifdef __cpp_rtti
    if (auto* const descriptions = dynamic_cast<IDescriptionRegistry*>(&registry)) {
        descriptions->describe_block(type, description);
    }
#else
    static_cast<void>(registry);
    static_cast<void>(type);
    static_cast<void>(description);
#endif
}

template <class BlockType>
std::unique_ptr<Container> create(std::string name, const BlockConfiguration& config,
                                  const InitTools& tools)
{
    static_assert(std::is_base_of_v<Container, BlockType>,
                  "a block type is a class derived from Quorval::Block");
    constexpr bool kTakesTools =
        std::is_constructible_v<BlockType, std::string, const BlockConfiguration&,
                                const InitTools&>;
    constexpr bool kTakesNoTools =
        std::is_constructible_v<BlockType, std::string, const BlockConfiguration&>;
    static_assert(kTakesTools || kTakesNoTools,
                  "a block type is no abstract class, and has the public constructor "
                  "(std::string name, const BlockConfiguration& config, const InitTools& tools), "
                  "or the one without the tools");
    if constexpr (kTakesTools) {
        return std::make_unique<BlockType>(std::move(name), config, tools);
    } else if constexpr (kTakesNoTools) {
        static_cast<void>(tools);
        return std::make_unique<BlockType>(std::move(name), config);
    } else {
        return nullptr;
    }
}

}  // namespace settings_detail

inline bool has_value(const BlockConfiguration& config, const Setting& setting)
{
    return settings_detail::has(config, setting.key);
}

[[gnu::cold]] inline SettingProblem find_problem(const BlockConfiguration& config,
                                                 const Setting& setting)
{
    try {
        return settings_detail::look_at_value(config, setting);
    } catch (const std::runtime_error& error) {  // of the getter: it has another type
        SettingProblem problem;
        problem.text = error.what();
        return problem;
    }
}

inline std::vector<Setting> read_settings(const BlockConfiguration& description)
{
    std::vector<Setting> settings;
    using namespace settings_detail;
    for (std::size_t i = 0; has(description, get_path(i, "key")); ++i) {
        settings.push_back(read_setting(description, i));
    }
    return settings;
}

/// The settings of a block type: what their keys are, which member of the structure T holds each of
/// them, and what is allowed. The defaults are what a T holds that is made as `T()`.
///
///     Settings<GainSettings>("Multiplies every sample.")
///         .add("factor", &GainSettings::factor, "what samples are multiplied by")
///             .range(-1000, 1000).live()
///         .add("taps", &GainSettings::taps, "of the filter").length(1, 1024);
///
/// A mistake in a declaration that still compiles, such as a default outside of its range, is a
/// std::logic_error of register_block(): "block type '<type>': setting '<key>' (<type>): <text>".
///
/// A value. Once it is declared, several threads may use it.
template <class T>
class Settings {
public:
    /// @param summary  what the block type is for, in a sentence
    explicit Settings(std::string summary) : declarations_(std::move(summary)) {}

    /// Declares a setting. What follows up to the next add() is about it.
    /// @param member  an int, a bool, a double, a float, a std::string, or a std::vector of one of
    ///                these
    /// @param text    what it is for, without a full stop
    template <class Field, class Structure>
    Settings& add(std::string_view key, Field Structure::*member, std::string_view text)
    {
        using namespace settings_detail;
        constexpr bool kIsMember = std::is_base_of_v<Structure, T>;
        static_assert(kIsMember, "the member is one of another structure");
        static_assert(is_field<Field>(),
                      "a setting is an int, a bool, a double, a float, a std::string, or a "
                      "std::vector of one of these");
        if constexpr (kIsMember && is_field<Field>()) {  // one mistake, one message
            declarations_.add(key, text, get_field_type<Field>(), is_float_field<Field>(),
                              {get_offset(member), &load<Field>, &store<Field>});
        }
        return *this;
    }

    /// The least and the greatest value of a number, or of each number of a list. Without a range
    /// every finite number is allowed.
    Settings& range(double minimum, double maximum)
    {
        declarations_.set_range(minimum, maximum);
        return *this;
    }

    /// How many items a list has at least and at most.
    Settings& length(int minimum, int maximum)
    {
        declarations_.set_length(minimum, maximum);
        return *this;
    }

    /// The values that a string, or each string of a list, may have.
    Settings& choices(std::vector<std::string> choices)
    {
        declarations_.set_choices(std::move(choices));
        return *this;
    }
    Settings& choices(std::initializer_list<std::string_view> choices)
    {
        declarations_.set_choices(choices);
        return *this;
    }

    /// The setting can be changed while the graph runs.
    Settings& live()
    {
        declarations_.last("live()").is_live = true;
        return *this;
    }

    /// The setting has no default: it has to be given.
    Settings& required()
    {
        declarations_.last("required()").is_required = true;
        return *this;
    }

    /// The settings that `config` gives, with the defaults for those that it does not have. Reads
    /// every declared key.
    /// @throws std::invalid_argument  a value that is not allowed: "'<key>' has to be <what>, not
    ///     <value>", with " (item <n>)" behind it for an item of a list, counted from 0; <what> is
    ///     "from <minimum> to <maximum>", "one of <choice>, <choice>", "of <minimum> to <maximum>
    ///     items" or "a finite number"; a required one that is not there: "'<key>' is missing"; a
    ///     value of another type, with the text of the getter
    T read(const BlockConfiguration& config) const
    {
        T values = defaults_;
        declarations_.read(config, &values);
        return values;
    }

    /// `current` with the changes of `override`. Reads every declared key of `override`.
    /// @throws what read() throws for a value, and std::invalid_argument for one that is not
    ///     live(): "'<key>' cannot be changed while the graph runs"
    T apply(const T& current, const BlockConfiguration& override) const
    {
        T values = current;
        declarations_.apply(override, &values);
        return values;
    }

    /// Looks for mistakes in the declaration.
    /// @throws std::logic_error  there is one: "setting '<key>' (<type>): <text>"
    void check() const { declarations_.check(defaults()); }
    /// The same, with "block type '<type>': " in front of the text.
    void check(const std::string& type) const { declarations_.check(defaults(), type); }

    /// The description, for tools: "summary"; for each setting, from "settings.0." on, "key",
    /// "type" (that of its element, as BlockConfiguration::getTypeName() has it), "text",
    /// "required", "live", "float" (whether the block holds it as a float), and where there are
    /// such, "default", "minimum" and "maximum", "minimum_items" and "maximum_items", "choices".
    /// More keys may follow.
    BlockConfiguration describe() const { return declarations_.describe(defaults()); }

private:
    // Not inlined: a compiler that sees an empty structure takes it for one without a value.
    [[gnu::noinline]] const void* defaults() const { return &defaults_; }

    template <class Field, class Structure>
    std::ptrdiff_t get_offset(Field Structure::*member) const
    {
        return reinterpret_cast<const char*>(&(defaults_.*member)) -
               reinterpret_cast<const char*>(&defaults_);
    }

    settings_detail::Declarations declarations_;
    T defaults_{};
};

/// Registers a block type, and hands the description of its settings over where the registry takes
/// descriptions. The block type has the constructor
/// (std::string name, const BlockConfiguration& config, const InitTools& tools), or the one without
/// the tools; then InitTools need not be defined.
/// @throws std::logic_error  a mistake in the declaration of the settings, see Settings
/// @throws what the registry throws
template <class BlockType, class T>
void register_block(IRegistry& registry, const std::string& type, const Settings<T>& settings)
{
    settings.check(type);
    registry.register_block_create_fn(type, &settings_detail::create<BlockType>);
    settings_detail::hand_over(registry, type, settings.describe());
}

/// The name of the data type that ports for values of T have. A plug-in that has a type of its own
/// specialises it:
///
///     template <>
///     struct Quorval::PortType<SampleBlock> {
///         static constexpr const char* name() { return "sample-block"; }
///     };
template <class T>
struct PortType {
    static constexpr const char* name()
    {
        static_assert(settings_detail::is_never<T>(),
                      "a port for this type needs a specialisation of Quorval::PortType");
        return "";
    }
};

template <>
struct PortType<bool> {
    static constexpr const char* name() { return "bool"; }
};
template <>
struct PortType<std::int32_t> {
    static constexpr const char* name() { return "int32"; }
};
template <>
struct PortType<std::int64_t> {
    static constexpr const char* name() { return "int64"; }
};
template <>
struct PortType<float> {
    static constexpr const char* name() { return "float"; }
};
template <>
struct PortType<double> {
    static constexpr const char* name() { return "double"; }
};
template <>
struct PortType<std::string> {
    static constexpr const char* name() { return "string"; }
};
template <>
struct PortType<std::vector<std::int32_t>> {
    static constexpr const char* name() { return "int32-vector"; }
};
template <>
struct PortType<std::vector<std::int64_t>> {
    static constexpr const char* name() { return "int64-vector"; }
};
template <>
struct PortType<std::vector<float>> {
    static constexpr const char* name() { return "float-vector"; }
};
template <>
struct PortType<std::vector<double>> {
    static constexpr const char* name() { return "double-vector"; }
};

/// Adds an input for values of T to a block.
/// @return the port, owned by the block
/// @throws what Block::add_inport() throws
template <class T>
InPort<T>* add_input(Block& block, const std::string& name, bool auto_reset = true)
{
    auto port = std::make_unique<InPort<T>>(name, Datatype(PortType<T>::name()), auto_reset);
    InPort<T>* const input = port.get();
    block.add_inport(std::move(port));
    return input;
}

/// Adds an output for values of T to a block.
/// @return the port, owned by the block
/// @throws what Block::add_outport() throws
template <class T>
OutPort<T>* add_output(Block& block, const std::string& name)
{
    auto port = std::make_unique<OutPort<T>>(name, Datatype(PortType<T>::name()));
    OutPort<T>* const output = port.get();
    block.add_outport(std::move(port));
    return output;
}

}  // namespace Quorval
