#include "description/names.h"

#include <algorithm>
#include <filesystem>

namespace Quorval::runtime {

bool is_continuation(char byte)
{
    constexpr unsigned kMask = 0xC0;
    constexpr unsigned kMark = 0x80;
    return (static_cast<unsigned char>(byte) & kMask) == kMark;
}

bool is_name_character(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

bool is_name(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), is_name_character);
}

bool is_key(std::string_view text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return is_name_character(c) || c == '.'; });
}

std::string name_of_file(const std::string& file)
{
    std::string name;
    for (const char c : std::filesystem::path(file).stem().string()) {
        if (is_name_character(c)) {
            name += c;
        } else if (!is_continuation(c)) {
            name += '_';
        }
    }
    return name.empty() ? "_" : name;
}

}  // namespace Quorval::runtime
