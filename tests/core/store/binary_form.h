// The binary form of configurations, made by hand.
#pragma once

#include <cstdint>
#include <cstring>
#include <streambuf>
#include <string>

namespace quorval_test {

/// The bytes of a number as they lie in memory.
template <class Number>
std::string bytes_of(Number number)
{
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

inline std::string count_of(std::uint64_t count)
{
    return bytes_of(count);
}

/// A length and the bytes.
inline std::string text_of(const std::string& text)
{
    return count_of(text.size()) + text;
}

inline std::string header_of(const std::string& key, const std::string& type_name)
{
    return text_of(key) + text_of(type_name);
}

/// A source that can be read but not be asked how much it holds.
class Unseekable : public std::streambuf {
public:
    explicit Unseekable(std::string content) : content_(std::move(content))
    {
        setg(content_.data(), content_.data(), content_.data() + content_.size());
    }

private:
    std::string content_;
};

}  // namespace quorval_test
