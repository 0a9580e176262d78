// The values of a configuration, and what all operations on them share.
#pragma once

#include <quorval/config.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace Quorval {

/// A value. The alternatives have the order of BlockConfiguration::Type. A vector of bools lies
/// behind a pointer, never null: it is the largest of all, and would make every element larger.
/// Moving or replacing a value cannot fail.
using Value = std::variant<int, bool, double, std::string, std::vector<int>, std::vector<double>,
                           std::vector<std::string>, std::unique_ptr<std::vector<bool>>>;

constexpr std::array<std::string_view, std::variant_size_v<Value>> kTypeNames = {
    "int", "bool", "double", "string", "IntVector", "DoubleVector", "StringVector", "BoolVector"};

template <class T>
constexpr bool kIsScalar = std::is_arithmetic_v<T>;

/// Whether a value holds a T itself, not a pointer to it.
template <class T>
constexpr bool kIsInside = !std::is_same_v<T, std::vector<bool>>;

/// The value that holds `content`, which has one of the eight types.
template <class Content>
Value make_value(Content&& content)
{
    using T = std::decay_t<Content>;
    if constexpr (kIsInside<T>) {
        return Value(std::in_place_type<T>, std::forward<Content>(content));
    } else {
        return std::make_unique<T>(std::forward<Content>(content));
    }
}

/// The content of a value if it has the type T, else null.
template <class T>
const T* content_if(const Value& value)
{
    if constexpr (kIsInside<T>) {
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
            if constexpr (std::is_same_v<std::decay_t<decltype(held)>,
                                         std::unique_ptr<std::vector<bool>>>) {
                return visitor(*held);
            } else {
                return visitor(held);
            }
        },
        value);
}

/// A copy of a value, which cannot copy itself.
inline Value copy_value(const Value& value)
{
    return visit_content(value, [](const auto& content) { return make_value(content); });
}

/// Whether both have the same type and content. A NaN equals nothing.
inline bool equal(const Value& a, const Value& b)
{
    return visit_content(a, [&b](const auto& content) {
        const auto* other = content_if<std::decay_t<decltype(content)>>(b);
        return other != nullptr && content == *other;
    });
}

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
