// How the elements of a configuration are kept, and what all operations on them share.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <map>
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

struct Element {
    Element() = default;
    explicit Element(Value content) : value(std::move(content)) {}
    Element(const Element& other) : value(copy_value(other.value)), consumed(other.consumed) {}
    Element(Element&&) noexcept = default;
    Element& operator=(const Element& other) { return *this = Element(other); }
    Element& operator=(Element&&) noexcept = default;
    ~Element() = default;

    Value value;
    // A typed getter has read the element since it was stored; getters are const.
    mutable bool consumed = false;
};

/// A key that is looked for. The keys of a configuration begin alike, so a search remembers how
/// much of the key the nearest lower and the nearest greater one that it met have in common with
/// it: all keys in between share the smaller part, and need not be compared there again.
class SoughtKey {
public:
    explicit SoughtKey(const std::string& key) : key_(key) {}

    /// Whether `other`, a key between those met so far, is less than this one.
    bool is_greater_than(const std::string& other) const
    {
        const std::size_t length = std::min(key_.size(), other.size());
        std::size_t common = std::min(common_with_lower_, common_with_greater_);
        while (common < length && key_[common] == other[common]) {
            ++common;
        }
        const bool is_greater = common < length ? static_cast<unsigned char>(other[common]) <
                                                      static_cast<unsigned char>(key_[common])
                                                : other.size() < key_.size();
        (is_greater ? common_with_lower_ : common_with_greater_) = common;
        return is_greater;
    }

private:
    const std::string& key_;
    mutable std::size_t common_with_lower_ = 0;
    mutable std::size_t common_with_greater_ = 0;
};

/// The order of keys: by bytes.
struct KeyLess {
    using is_transparent = void;

    bool operator()(const std::string& a, const std::string& b) const { return a < b; }
    bool operator()(const std::string& a, const SoughtKey& b) const { return b.is_greater_than(a); }
};

/// The elements by their full keys. References to elements stay valid while others come and go.
using Elements = std::map<std::string, Element, KeyLess>;

/// Moves `at` on to the first element whose key is not less than `key`; all before `at` are less.
/// Tells whether it is that key.
template <class Map, class Position>
bool seek(Map& elements, Position& at, const std::string& key)
{
    // What is asked for next tends to be near, but a long way is not to be walked.
    constexpr int kSteps = 4;
    for (int step = 0; step < kSteps && at != elements.end(); ++step, ++at) {
        const int order = at->first.compare(key);
        if (order >= 0) {
            return order == 0;
        }
    }
    if (at == elements.end()) {
        return false;
    }
    at = elements.lower_bound(SoughtKey(key));
    return at != elements.end() && at->first == key;
}

struct BlockConfiguration::Impl {
    Elements elements;

    /// The record of a configuration; a moved-from one has none.
    static const Impl& of(const BlockConfiguration& config);
    static Impl& of(BlockConfiguration& config);

    /// The element of exactly that key, null when there is none.
    const Element* get_element(const std::string& key) const;

    /// Stores a value under `key`, unread, over whatever was there.
    /// @throws std::runtime_error  the key is not valid
    void set(const std::string& key, Value value);

    /// The same for any key, valid or not.
    void put(const std::string& key, Element element);
};

}  // namespace Quorval
