#include "fuzz/model.h"

#include <quorval/pstore.h>
#include "fuzz/input.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <type_traits>

namespace quorval_fuzz {

using Quorval::BlockConfiguration;

namespace {

std::string show_item(const std::string& item)
{
    return std::to_string(item.size()) + ":" + item;
}

std::string show_item(double item)
{
    char bytes[sizeof item];
    std::memcpy(bytes, &item, sizeof item);
    return std::string(bytes, sizeof item);
}

std::string show_item(int item)
{
    return std::to_string(item);
}

std::string show_item(bool item)
{
    return item ? "true" : "false";
}

template <class Item>
std::string show_item(const std::vector<Item>& items)
{
    std::string text = "{";
    for (const auto& item : items) {
        text += show_item(item) + ",";
    }
    return text + "}";
}

template <class Item>
void print_value(std::ostream& os, const Item& value)
{
    os << value;
}

template <class Item>
void print_value(std::ostream& os, const std::vector<Item>& items)
{
    os << '{';
    const char* separator = "";
    for (const auto& item : items) {
        os << separator << item;
        separator = ", ";
    }
    os << '}';
}

template <class Item>
bool is_same(const Item& a, const Item& b)
{
    return a == b;
}

// By their bits, so that a NaN is itself.
bool is_same(double a, double b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

bool is_same(const std::vector<double>& a, const std::vector<double>& b)
{
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

/// Whether the element under the cursor holds that value. Marks it.
bool holds(BlockConfiguration::Iterator& it, const ModelValue& value)
{
    switch (value.index()) {
        case 0:
            return is_same(it.getInt(), std::get<0>(value));
        case 1:
            return is_same(it.getBool(), std::get<1>(value));
        case 2:
            return is_same(it.getDouble(), std::get<2>(value));
        case 3:
            return is_same(it.getString(), std::get<3>(value));
        case 4:
            return is_same(it.getIntVector(), std::get<4>(value));
        case 5:
            return is_same(it.getDoubleVector(), std::get<5>(value));
        case 6:
            return is_same(it.getStringVector(), std::get<6>(value));
        default:
            return is_same(it.getBoolVector(), std::get<7>(value));
    }
}

}  // namespace

const char* type_name(const ModelValue& value)
{
    static const char* const kNames[] = {"int",       "bool",         "double",       "string",
                                         "IntVector", "DoubleVector", "StringVector", "BoolVector"};
    return kNames[value.index()];
}

std::string show(const ModelValue& value)
{
    return std::string(type_name(value)) + " " +
           std::visit([](const auto& content) { return show_item(content); }, value);
}

std::string refusal_of_key(const std::string& key)
{
    for (const char character : key) {
        const bool is_allowed = (character >= 'a' && character <= 'z') ||
                                (character >= 'A' && character <= 'Z') ||
                                (character >= '0' && character <= '9') || character == '_' ||
                                character == '-' || character == '.';
        if (!is_allowed) {
            return "runtime_error: Parameter name '" + key + "' not valid (should be [a-z0-9_.-]).";
        }
    }
    return "";
}

bool is_equal(const ModelValue& a, const ModelValue& b)
{
    return a == b;
}

std::string print(const Model& model)
{
    return print(model, std::ostringstream());
}

std::string print(const Model& model, const std::ios& format)
{
    std::ostringstream os;
    os.copyfmt(format);
    os << "BlockConfiguration:\n";
    for (const auto& [key, element] : model) {
        os << key << " (" << type_name(element.value) << ") = ";
        std::visit([&os](const auto& value) { print_value(os, value); }, element.value);
        os << '\n';
    }
    return os.str();
}

bool is_consumed(const Model& model)
{
    return std::all_of(model.begin(), model.end(),
                       [](const auto& entry) { return entry.second.consumed; });
}

void check_same(const BlockConfiguration& config, const Model& model)
{
    require(config.is_consumed() == is_consumed(model), "the marks together");
    for (const auto& [key, element] : model) {
        require(config.getTypeName(key) == type_name(element.value), "a look-up");
    }
    const BlockConfiguration copy = config;
    auto expected = model.begin();
    for (auto it = copy.iterate(""); !it->is_end(); it->advance(), ++expected) {
        require(expected != model.end(), "no more elements than the model has");
        require(it->key() == expected->first, "a key");
        require(holds(*it, expected->second.value), "a value");
    }
    require(expected == model.end(), "no fewer elements than the model has");
    require(copy.is_consumed(), "a walk that has read everything");
}

void check_same_marks(const BlockConfiguration& config, const Model& model)
{
    check_same(config, model);
    // In a large one, a few of them: each takes a walk over all.
    const std::size_t step = 1 + model.size() / 6;
    std::size_t number = 0;
    for (const auto& [key, element] : model) {
        if (number++ % step != 0) {
            continue;
        }
        // With all others read, the mark of the whole is that of this one.
        const BlockConfiguration copy = config;
        auto at = model.begin();
        for (auto it = copy.iterate(""); !it->is_end(); it->advance(), ++at) {
            if (it->key() != key) {
                holds(*it, at->second.value);
            }
        }
        require(copy.is_consumed() == element.consumed, "the mark of an element");
    }
}

std::string to_bytes(const BlockConfiguration& config)
{
    // Never closed, so that no file is written; made once, because making it looks at the disk.
    static Quorval::POFStream out(std::filesystem::temp_directory_path().string() + "/",
                                  "quorval-fuzz");
    auto& buffer = dynamic_cast<std::stringbuf&>(*out.rdbuf());
    buffer.str("");
    out << config;
    return buffer.str();
}

}  // namespace quorval_fuzz
