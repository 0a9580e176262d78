#include "messages/printable.h"

#include <cstddef>
#include <string_view>

namespace Quorval::runtime {

namespace {

/// Right behind the text it is 0.
unsigned char byte(const std::string& text, std::size_t at)
{
    return static_cast<unsigned char>(text[at]);
}

/// How many bytes the control character at a place has; 0 where another one stands. Those from
/// U+0080 to U+009F are two bytes in UTF-8, and terminals obey some of them.
std::size_t control_length(const std::string& text, std::size_t at)
{
    constexpr unsigned char kFirstPrintable = 0x20;
    constexpr unsigned char kDelete = 0x7F;
    constexpr unsigned char kLead = 0xC2;
    constexpr unsigned char kFirst = 0x80;
    constexpr unsigned char kLast = 0x9F;
    const unsigned char c = byte(text, at);
    if (c == kLead && byte(text, at + 1) >= kFirst && byte(text, at + 1) <= kLast) {
        return 2;
    }
    return c < kFirstPrintable || c == kDelete ? 1 : 0;
}

}  // namespace

void append_hex(std::string& out, unsigned char c)
{
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    out += kDigits[c / kDigits.size()];
    out += kDigits[c % kDigits.size()];
}

std::string printable(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = control_length(text, at);
        for (std::size_t i = 0; i < length; ++i) {
            out += "\\x";
            append_hex(out, byte(text, at + i));
        }
        if (length == 0) {
            out += text[at];
        }
        at += length > 0 ? length : 1;
    }
    return out;
}

}  // namespace Quorval::runtime
