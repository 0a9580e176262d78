#include "description/names.h"

#include <algorithm>
#include <filesystem>

namespace Quorval::runtime {

bool is_name_character(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

bool is_name(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), is_name_character);
}

std::string name_of_file(const std::string& file)
{
    std::string name = std::filesystem::path(file).stem().string();
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !is_name_character(c); }, '_');
    return name.empty() ? "_" : name;
}

}  // namespace Quorval::runtime
