#include "csv.h"

#include <array>
#include <charconv>
#include <cstddef>

namespace basic {

std::string to_text(double number)
{
    constexpr std::size_t kLongest = 32;
    std::array<char, kLongest> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number);
    return std::string(text.data(), end.ptr);
}

std::string to_cell(const std::string& text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string cell = "\"";
    for (const char letter : text) {
        cell += letter == '"' ? "\"\"" : std::string(1, letter);
    }
    return cell + '"';
}

std::vector<std::string> split_row(const std::string& line)
{
    std::vector<std::string> cells(1);
    bool is_quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char letter = line[i];
        if (letter == ',' && !is_quoted) {
            cells.emplace_back();
        } else if (letter != '"') {
            cells.back() += letter;
        } else if (is_quoted && i + 1 < line.size() && line[i + 1] == '"') {
            cells.back() += '"';
            ++i;
        } else {
            is_quoted = !is_quoted;
        }
    }
    return cells;
}

}  // namespace basic
