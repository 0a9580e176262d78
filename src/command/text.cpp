#include "text.h"

#include <clocale>
#include <cstddef>
#include <cwchar>

namespace {

constexpr unsigned kTabWidth = 8;
constexpr unsigned char kBlank = 0x20;
constexpr unsigned char kDelete = 0x7f;

bool is_control(unsigned char byte)
{
    return byte < kBlank || byte == kDelete;
}

/// How many bytes the control character at the beginning has; 0 where another one stands. Those
/// from U+0080 to U+009F are two bytes in UTF-8, and terminals obey some of them.
std::size_t control_length(std::string_view text)
{
    constexpr unsigned char kFirst = 0x80;
    constexpr unsigned char kLast = 0x9f;
    if (text.size() > 1 && text[0] == '\xc2') {
        const auto second = static_cast<unsigned char>(text[1]);
        return second >= kFirst && second <= kLast ? 2 : 0;
    }
    return is_control(static_cast<unsigned char>(text.front())) ? 1 : 0;
}

std::string to_hex(unsigned char byte)
{
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    return {'\\', 'x', kDigits[byte / kDigits.size()], kDigits[byte % kDigits.size()]};
}

/// How wide characters are does not depend on the language of the user.
class Utf8Locale {
public:
    Utf8Locale() : before_(::uselocale(utf8())) {}
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;
    ~Utf8Locale() { ::uselocale(before_); }

private:
    /// Null, which changes nothing, where the system has no such locale.
    static locale_t utf8()
    {
        static const locale_t kLocale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return kLocale;
    }

    locale_t before_;
};

Cell to_cell(std::string_view rest, unsigned column)
{
    if (rest.front() == '\t') {
        const unsigned width = kTabWidth - column % kTabWidth;
        return {std::string(width, ' '), width, 1};
    }
    wchar_t character = 0;
    std::mbstate_t state{};
    const std::size_t bytes = std::mbrtowc(&character, rest.data(), rest.size(), &state);
    const int width = bytes > rest.size() || bytes == 0 ? -1 : ::wcwidth(character);
    if (width < 0) {
        return {to_hex(static_cast<unsigned char>(rest.front())), 4, 1};
    }
    return {std::string(rest.substr(0, bytes)), static_cast<unsigned>(width), bytes};
}

}  // namespace

std::string escape_controls(std::string_view text)
{
    std::string escaped;
    while (!text.empty()) {
        const std::size_t length = control_length(text);
        for (const char character : text.substr(0, length)) {
            escaped += to_hex(static_cast<unsigned char>(character));
        }
        if (length == 0) {
            escaped += text.front();
        }
        text.remove_prefix(length > 0 ? length : 1);
    }
    return escaped;
}

std::string to_printable(std::string_view text)
{
    const Utf8Locale locale;
    std::string printable;
    while (!text.empty()) {
        if (is_control(static_cast<unsigned char>(text.front()))) {
            printable += to_hex(static_cast<unsigned char>(text.front()));
            text.remove_prefix(1);
        } else {
            const Cell cell = to_cell(text, 0);
            printable += cell.text;
            text.remove_prefix(cell.bytes);
        }
    }
    return printable;
}

std::vector<Cell> lay_out(std::string_view line)
{
    const Utf8Locale locale;
    std::vector<Cell> cells;
    unsigned column = 0;
    while (!line.empty()) {
        cells.push_back(to_cell(line, column));
        column += cells.back().width;
        line.remove_prefix(cells.back().bytes);
    }
    return cells;
}
