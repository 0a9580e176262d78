// Configurations as TOML.
#include <quorval/config.h>
#include <quorval/runtime/config_files.h>
#include "messages/printable.h"
#include "store/utf8.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Quorval {

namespace {

using Type = BlockConfiguration::Type;

/// Writes values as TOML, and what TOML cannot hold in a form for people.
class ValueWriter {
public:
    /// What TOML cannot hold of what was written; empty: nothing.
    const std::string& problem() const { return problem_; }
    const std::string& text() const { return text_; }

    void write(int value) { text_ += std::to_string(value); }
    void write(bool value) { text_ += value ? "true" : "false"; }

    void write(double value)
    {
        if (std::isnan(value)) {
            write_nan(value);
            return;
        }
        std::array<char, 32> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
        const std::string_view number(digits.data(), static_cast<std::size_t>(end - digits.data()));
        text_ += number;
        // Else it would be an integer; "inf" and exponents have a letter.
        if (number.find_first_not_of("-0123456789") == std::string_view::npos) {
            text_ += ".0";
        }
    }

    void write(const std::string& value)
    {
        text_ += '"';
        for (std::string_view rest = value; !rest.empty();) {
            const std::size_t size = runtime::utf8_size(rest);
            if (size == 0) {
                problem_ = "not UTF-8";
                text_ += "\\x";
                runtime::append_hex(text_, static_cast<unsigned char>(rest.front()));
            } else if (size == 1) {
                write_ascii(rest.front());
            } else {
                text_ += rest.substr(0, size);
            }
            rest.remove_prefix(std::max<std::size_t>(size, 1));
        }
        text_ += '"';
    }

    template <class Item>
    void write(const std::vector<Item>& items)
    {
        text_ += '[';
        std::string_view separator;
        for (const Item& item : items) {
            text_ += separator;
            write(item);
            separator = ", ";
        }
        text_ += ']';
    }

private:
    /// Both usual ones, of which TOML can tell the sign alone.
    void write_nan(double value)
    {
        std::uint64_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        text_ += std::signbit(value) ? "-nan" : "nan";
        constexpr std::uint64_t kWithoutSign = ~std::uint64_t{0} >> 1U;
        constexpr std::uint64_t kUsual = 0x7FF8'0000'0000'0000;
        if ((bits & kWithoutSign) != kUsual) {
            std::array<char, 16> digits{};
            const auto end =
                std::to_chars(digits.data(), digits.data() + digits.size(), bits, 16).ptr;
            problem_ = "a NaN of its own kind";
            text_ += "(0x" + std::string(digits.data(), end) + ")";
        }
    }

    void write_ascii(char c)
    {
        constexpr std::string_view kEscaped = "\"\\\b\t\n\f\r";
        constexpr std::string_view kEscapes = "\"\\btnfr";
        constexpr char kFirstPrintable = 0x20;
        constexpr char kDelete = 0x7F;
        const std::size_t found = kEscaped.find(c);
        if (found != std::string_view::npos) {
            text_ += '\\';
            text_ += kEscapes[found];
        } else if (c < kFirstPrintable || c == kDelete) {
            text_ += "\\u00";
            runtime::append_hex(text_, static_cast<unsigned char>(c));
        } else {
            text_ += c;
        }
    }

    std::string text_;
    std::string problem_;
};

/// Writes the value of an element.
/// @return whether it is an empty list
bool write_value(ValueWriter& writer, const BlockConfiguration& config, const std::string& key)
{
    const auto write_list = [&writer](const auto& items) {
        writer.write(items);
        return items.empty();
    };
    switch (config.getType(key)) {
        case Type::Int:
            writer.write(config.getInt(key));
            return false;
        case Type::Bool:
            writer.write(config.getBool(key));
            return false;
        case Type::Double:
            writer.write(config.getDouble(key));
            return false;
        case Type::String:
            writer.write(config.getString(key));
            return false;
        case Type::IntVector:
            return write_list(config.getIntVector(key));
        case Type::DoubleVector:
            return write_list(config.getDoubleVector(key));
        case Type::StringVector:
            return write_list(config.getStringVector(key));
        case Type::BoolVector:
            return write_list(config.getBoolVector(key));
    }
    return false;
}

[[noreturn]] void throw_no_toml(const std::string& key, const std::string& problem)
{
    throw std::invalid_argument("'" + key + "' is " + problem);
}

bool has_key(const BlockConfiguration& config, const std::string& key)
{
    const auto first = config.iterate(key);  // a key comes before those that it begins
    return !first->is_end() && first->key() == key;
}

/// Whether a key can stand as it is: its parts are bare keys of TOML, and none of the keys above it
/// has a value. Long ones are quoted, so that the tables of a file are not nested without end.
bool is_bare(const BlockConfiguration& config, const std::string& key)
{
    constexpr std::size_t kMostParts = 32;
    std::size_t parts = 1;
    std::size_t begin = 0;
    for (std::size_t stop = key.find('.'); stop != std::string::npos; stop = key.find('.', begin)) {
        if (stop == begin || ++parts > kMostParts || has_key(config, key.substr(0, stop))) {
            return false;
        }
        begin = stop + 1;
    }
    return begin < key.size();
}

}  // namespace

std::string to_toml(const BlockConfiguration& config)
{
    std::string text;
    for (const auto element = config.iterate(""); !element->is_end(); element->advance()) {
        const std::string& key = element->key();
        ValueWriter writer;
        if (write_value(writer, config, key)) {
            throw_no_toml(key, "an empty list");
        }
        if (!writer.problem().empty()) {
            throw_no_toml(key, writer.problem());
        }
        const char* const quote = is_bare(config, key) ? "" : "\"";
        text.append(quote).append(key).append(quote).append(" = ").append(writer.text()) += '\n';
    }
    return text;
}

std::string to_toml_value(const BlockConfiguration& config, const std::string& key)
{
    ValueWriter writer;
    write_value(writer, config, key);
    if (!writer.problem().empty()) {
        throw_no_toml(key, writer.problem());
    }
    return writer.text();
}

std::string describe_value(const BlockConfiguration& config, const std::string& key)
{
    ValueWriter writer;
    write_value(writer, config, key);
    return writer.text();
}

}  // namespace Quorval
