#include "store/utf8.h"

#include <algorithm>
#include <array>

namespace Quorval::runtime {

namespace {

/// The first bytes of characters of one size, and between what the second one lies: that keeps out
/// longer forms than needed, halves of pairs, and what is past the last character.
struct Lead {
    unsigned char first;
    unsigned char last;
    unsigned char size;
    unsigned char second_first;
    unsigned char second_last;
};

constexpr std::array<Lead, 9> kLeads = {{
    {0x00, 0x7F, 1, 0x00, 0x00},
    {0xC2, 0xDF, 2, 0x80, 0xBF},
    {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F},
    {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF},
    {0xF4, 0xF4, 4, 0x80, 0x8F},
}};

bool is_between(char c, unsigned char first, unsigned char last)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte >= first && byte <= last;
}

}  // namespace

std::size_t utf8_size(std::string_view text)
{
    constexpr unsigned char kFirst = 0x80;
    constexpr unsigned char kLast = 0xBF;
    for (const Lead& lead : kLeads) {
        if (text.empty() || !is_between(text[0], lead.first, lead.last)) {
            continue;
        }
        const bool is_whole =
            lead.size == 1 ||
            (text.size() >= lead.size && is_between(text[1], lead.second_first, lead.second_last) &&
             std::all_of(text.begin() + 2, text.begin() + lead.size,
                         [](char c) { return is_between(c, kFirst, kLast); }));
        return is_whole ? lead.size : 0;
    }
    return 0;
}

}  // namespace Quorval::runtime
