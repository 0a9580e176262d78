// The values of a configuration, and what all operations on them share.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <quorval/config.h>

namespace Quorval {

/// A value. The alternatives have the order of BlockConfiguration::Type. Strings and vectors lie
/// behind a pointer, never null: elements stay small, and moving or replacing a value cannot fail.
using Value =
    std::variant<int, bool, double, std::unique_ptr<std::string>, std::unique_ptr<std::vector<int>>,
                 std::unique_ptr<std::vector<double>>, std::unique_ptr<std::vector<std::string>>,
                 std::unique_ptr<std::vector<bool>>>;

constexpr std::array<std::string_view, std::variant_size_v<Value>> kTypeNames = {
    "int", "bool", "double", "string", "IntVector", "DoubleVector", "StringVector", "BoolVector"};

template <class T>
constexpr bool kIsScalar = std::is_arithmetic_v<T>;

/// The value that holds `content`, which has one of the eight types.
template <class T>
Value make_value(T content)
{
    if constexpr (kIsScalar<T>) {
        return content;
    } else {
        return std::make_unique<T>(std::move(content));
    }
}

/// The content of a value if it has the type T, else null.
template <class T>
const T* content_if(const Value& value)
{
    if constexpr (kIsScalar<T>) {
        return std::get_if<T>(&value);
    } else {
        const auto* held = std::get_if<std::unique_ptr<T>>(&value);
        return held != nullptr ? held->get() : nullptr;
    }
}

/// Calls `visitor` with the content of a value.
template <class Visitor>
decltype(auto) visit_content(const Value& value, Visitor&& visitor)
{
    return std::visit(
        [&visitor](const auto& held) -> decltype(auto) {
            if constexpr (kIsScalar<std::decay_t<decltype(held)>>) {
                return visitor(held);
            } else {
                return visitor(*held);
            }
        },
        value);
}

/// std::variant could copy itself, but leaves its target broken when the copy of a string or a
/// vector throws.
inline Value copy_value(const Value& value)
{
    return visit_content(value, [](const auto& content) { return make_value(content); });
}

bool equal(const Value& a, const Value& b);

/// The items of a vector of numbers as numbers of another type.
template <class To, class From>
std::vector<To> convert_items(const std::vector<From>& items)
{
    std::vector<To> result;
    result.reserve(items.size());
    for (const From item : items) {
        result.push_back(static_cast<To>(item));
    }
    return result;
}

inline BlockConfiguration::Type type_of(const Value& value)
{
    return static_cast<BlockConfiguration::Type>(value.index());
}

}  // namespace Quorval
