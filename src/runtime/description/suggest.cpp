#include "description/suggest.h"

#include <quorval/runtime/suggest.h>
#include "description/names.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>

namespace Quorval {

namespace {

constexpr int kMostEdits = 2;
constexpr int kFar = kMostEdits + 1;

/// The row of an edit distance, of which only what lies near the diagonal matters: entry i stands
/// for the column row + i - kMostEdits.
using Band = std::array<int, 2 * kMostEdits + 1>;

int entry(const Band& band, int at)
{
    return at >= 0 && at < static_cast<int>(band.size()) ? band[static_cast<std::size_t>(at)]
                                                         : kFar;
}

bool is_ascii(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; });
}

/// The characters of a text, each of which is the bytes that it has in UTF-8.
std::u32string letters_of(const std::string& text)
{
    constexpr unsigned kByte = 8;
    std::u32string letters;
    for (const char c : text) {
        const char32_t byte = static_cast<unsigned char>(c);
        if (runtime::is_continuation(c) && !letters.empty()) {
            letters.back() = (letters.back() << kByte) | byte;
        } else {
            letters += byte;
        }
    }
    return letters;
}

/// How many insertions, deletions and replacements part two texts; kFar where they are more than
/// kMostEdits.
template <class Letters>
int count_edits(const Letters& a, const Letters& b)
{
    const int rows = static_cast<int>(a.size());
    const int columns = static_cast<int>(b.size());
    if (std::abs(rows - columns) > kMostEdits) {
        return kFar;
    }
    Band band{};
    for (int i = 0; i < static_cast<int>(band.size()); ++i) {
        band[static_cast<std::size_t>(i)] = i < kMostEdits ? kFar : i - kMostEdits;
    }
    for (int row = 1; row <= rows; ++row) {
        Band next{};
        for (int i = 0; i < static_cast<int>(band.size()); ++i) {
            const int column = row + i - kMostEdits;
            int& edits = next[static_cast<std::size_t>(i)];
            if (column < 0 || column > columns) {
                edits = kFar;
                continue;
            }
            edits = std::min(entry(band, i + 1), entry(next, i - 1)) + 1;
            if (column > 0) {
                const bool is_same =
                    a[static_cast<std::size_t>(row - 1)] == b[static_cast<std::size_t>(column - 1)];
                edits = std::min(edits, entry(band, i) + (is_same ? 0 : 1));
            }
        }
        band = next;
        if (*std::min_element(band.begin(), band.end()) > kMostEdits) {
            return kFar;
        }
    }
    return std::min(entry(band, columns - rows + kMostEdits), kFar);
}

}  // namespace

std::string find_near(const std::string& name, const std::vector<std::string>& known)
{
    const std::string* nearest = nullptr;
    // Twice the edits have to be fewer than the letters.
    const std::u32string letters = letters_of(name);
    int fewest = std::min(kFar, static_cast<int>((letters.size() + 1) / 2));
    const bool is_plain = is_ascii(name);
    for (const std::string& candidate : known) {
        const int edits = is_plain && is_ascii(candidate)
                              ? count_edits(name, candidate)
                              : count_edits(letters, letters_of(candidate));
        if (edits < fewest || (nearest != nullptr && edits == fewest && candidate < *nearest)) {
            nearest = &candidate;
            fewest = edits;
        }
    }
    return nearest != nullptr ? *nearest : std::string();
}

namespace runtime {

std::string suggestion(const std::string& name, const std::vector<std::string>& known)
{
    const std::string near = find_near(name, known);
    return near.empty() ? near : "; did you mean '" + near + "'?";
}

std::string Suggester::suggest(const std::string& name, const std::vector<std::string>& known)
{
    constexpr std::size_t kMostComparisons = 5'000'000;
    comparisons_ += known.size();
    return comparisons_ <= kMostComparisons ? suggestion(name, known) : std::string();
}

}  // namespace runtime

}  // namespace Quorval
