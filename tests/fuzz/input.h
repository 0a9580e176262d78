// What the targets share: taking an input apart, and saying what does not hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ios>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <variant>

namespace quorval_fuzz {

/// An invariant does not hold.
class Broken : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

inline void require(bool holds, const char* invariant)
{
    if (!holds) {
        throw Broken(invariant);
    }
}

inline void require_equal(const std::string& is, const std::string& expected, const char* what)
{
    if (is != expected) {
        throw Broken(std::string(what) + ": '" + is + "' where '" + expected + "' was expected");
    }
}

/// An exception is told by what what() gives, which ends at the first zero.
inline void require_failure(const std::string& is, const std::string& expected, const char* what)
{
    require_equal(is, expected.c_str(), what);
}

/// The exception that `act` throws, with its text, empty when it throws none.
template <class Act>
std::string failure_of(Act&& act)
{
    try {
        act();
        return "";
    } catch (const Broken&) {
        throw;
    } catch (const std::ios_base::failure& error) {
        return std::string("failure: ") + error.what();
    } catch (const std::bad_variant_access& error) {
        return std::string("bad_variant_access: ") + error.what();
    } catch (const std::out_of_range& error) {
        return std::string("out_of_range: ") + error.what();
    } catch (const std::invalid_argument& error) {
        return std::string("invalid_argument: ") + error.what();
    } catch (const std::runtime_error& error) {
        return std::string(typeid(error) == typeid(std::runtime_error) ? "runtime_error: "
                                                                       : "derived: ") +
               error.what();
    }
}

/// Hands out the bytes of an input, then zeros.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

    bool is_empty() const { return at_ == end_; }

    std::uint8_t byte() { return is_empty() ? std::uint8_t{0} : *at_++; }

    /// A number below `limit`, which is at most 256.
    std::size_t below(std::size_t limit) { return byte() % limit; }

    template <class Number>
    Number number()
    {
        unsigned char bytes[sizeof(Number)];
        for (unsigned char& value : bytes) {
            value = byte();
        }
        Number result;
        std::memcpy(&result, bytes, sizeof result);
        return result;
    }

    std::string text(std::size_t longest)
    {
        std::string result(below(longest + 1), '\0');
        for (char& character : result) {
            character = static_cast<char>(byte());
        }
        return result;
    }

private:
    const std::uint8_t* at_;
    const std::uint8_t* end_;
};

}  // namespace quorval_fuzz
