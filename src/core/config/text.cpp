#include <quorval/config.h>
#include "config/impl.h"

#include <array>
#include <cfenv>
#include <charconv>
#include <cstddef>
#include <iostream>
#include <locale>
#include <string>
#include <string_view>
#include <vector>

namespace Quorval {

namespace {

// In the order of BlockConfiguration::Type.
constexpr std::array<std::string_view, kTypeNames.size()> kTypeLabels = {
    " (int) = ",       " (bool) = ",         " (double) = ",       " (string) = ",
    " (IntVector) = ", " (DoubleVector) = ", " (StringVector) = ", " (BoolVector) = "};

/// Gathers the parts of a line, so that the stream is not asked for each of them.
class LineWriter {
public:
    explicit LineWriter(std::ostream& os) : os_(os), is_plain_(is_plain(os)) {}

    void add(std::string_view text) { line_ += text; }

    void write(const std::string& text) { add(text); }

    void write(int value) { write_number(value, value); }
    void write(bool value) { write_number(value, value ? 1 : 0); }
    void write(double value)
    {
        write_number(value, value, std::chars_format::general, static_cast<int>(os_.precision()));
    }

    template <class Item>
    void write(const std::vector<Item>& items)
    {
        line_ += '{';
        std::string_view separator;
        for (const Item& item : items) {
            line_ += separator;
            write(item);
            separator = ", ";
        }
        line_ += '}';
    }

    void end_line()
    {
        line_ += '\n';
        write_line();
        os_.flush();
    }

private:
    // For numbers of up to so many digits.
    static constexpr int kMaxPrecision = 17;

    /// Whether the stream formats numbers as std::to_chars() does, which is faster.
    static bool is_plain(const std::ostream& os)
    {
        constexpr auto kNumberFlags = std::ios::basefield | std::ios::boolalpha |
                                      std::ios::floatfield | std::ios::showpoint |
                                      std::ios::showpos | std::ios::uppercase;
        return (os.flags() & kNumberFlags) == std::ios::dec && os.precision() >= 0 &&
               os.precision() <= kMaxPrecision && os.getloc() == std::locale::classic() &&
               std::fegetround() == FE_TONEAREST;
    }

    template <class Scalar, class... Plain>
    void write_number(Scalar value, Plain... plain)
    {
        if (!is_plain_) {
            write_line();
            os_ << value;
            return;
        }
        std::array<char, kMaxPrecision + 8> digits{};  // sign, full stop, exponent
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), plain...).ptr;
        add({digits.data(), static_cast<std::size_t>(end - digits.data())});
    }

    void write_line()
    {
        os_.write(line_.data(), static_cast<std::streamsize>(line_.size()));
        line_.clear();
    }

    std::ostream& os_;
    bool is_plain_;
    std::string line_;
};

}  // namespace

std::ostream& operator<<(std::ostream& os, const BlockConfiguration& config)
{
    // A field width that the caller has set is for this first text, and ends with it.
    os << "BlockConfiguration:" << std::endl;
    LineWriter line(os);
    for (const Entry& entry : BlockConfiguration::Impl::of(config).elements) {
        line.add(entry.key);
        line.add(kTypeLabels[entry.value.index()]);
        visit_content(entry.value, [&line](const auto& content) { line.write(content); });
        line.end_line();
    }
    return os;
}

void BlockConfiguration::print() const
{
    std::cout << *this << std::endl;
}

}  // namespace Quorval
