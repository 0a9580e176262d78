#include "top_table.h"

#include "statistics.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <map>
#include <tuple>
#include <utility>

namespace {

using Quorval::BlockStatistics;
using Time = std::chrono::nanoseconds;

constexpr std::size_t kGap = 2;
constexpr std::size_t kNarrowestPath = 16;
constexpr std::size_t kNarrowestBar = 4;
constexpr std::size_t kWidestBar = 20;
constexpr const char* kBold = "\033[1m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kReverse = "\033[7m";
constexpr const char* kPlain = "\033[0m";

/// Numbers of a row. Where there is no room for all, the last ones are left out.
constexpr std::size_t kNumbers = 6;
constexpr std::size_t kFailures = 2;
using Numbers = std::array<std::string, kNumbers>;

double load_of(const TopRow& row, Time interval)
{
    return interval.count() <= 0
               ? 0
               : static_cast<double>(row.recent.count()) / static_cast<double>(interval.count());
}

Numbers numbers_of(const TopRow& row, Time interval)
{
    constexpr double kPercent = 100;
    std::array<char, 32> load{};
    static_cast<void>(
        std::snprintf(load.data(), load.size(), "%.1f %%", kPercent * load_of(row, interval)));
    const BlockStatistics& block = row.block;
    return {load.data(),
            std::to_string(block.runs),
            std::to_string(block.failures),
            describe_time(block.total),
            describe_time(block.longest),
            describe_time(block.percentile_99)};
}

/// How wide the columns are.
struct Layout {
    std::size_t path = 0;
    std::size_t bar = 0;  // 0: there is none
    std::size_t count = 0;
    std::array<std::size_t, kNumbers> numbers{};
};

Layout lay_out(const std::vector<TopRow>& rows, const std::vector<Numbers>& numbers,
               std::size_t width)
{
    Layout layout;
    for (const Numbers& row : numbers) {
        for (std::size_t at = 0; at < kNumbers; ++at) {
            layout.numbers[at] = std::max(layout.numbers[at], row[at].size());
        }
    }
    std::size_t longest = std::string("block").size();
    for (const TopRow& row : rows) {
        longest = std::max(longest, row.block.path.size());
    }
    std::size_t used = 0;
    while (layout.count < kNumbers &&
           std::min(longest, kNarrowestPath) + used + kGap + layout.numbers[layout.count] <=
               width) {
        used += kGap + layout.numbers[layout.count++];
    }
    layout.path = std::min(longest, width - std::min(width, used));
    used += layout.path + kGap;
    if (layout.count > 0 && width >= used + kNarrowestBar) {
        layout.bar = std::min(kWidestBar, width - used);
    }
    return layout;
}

std::string fill(std::string text, std::size_t width)
{
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

/// The end of a path that is too long, which tells more than its beginning.
std::string shorten(const std::string& path, std::size_t width, bool has_unicode)
{
    if (path.size() <= width) {
        return fill(path, width);
    }
    const std::string mark = has_unicode ? "…" : "...";
    const std::size_t mark_width = has_unicode ? 1 : mark.size();
    return width <= mark_width ? path.substr(path.size() - width)
                               : mark + path.substr(path.size() - (width - mark_width));
}

/// @param share  of the width, from 0 to 1
std::string draw_bar(double share, std::size_t width, bool has_unicode)
{
    constexpr std::array kEighths = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
    if (!has_unicode) {
        return fill(std::string(std::lround(share * static_cast<double>(width)), '#'), width);
    }
    const std::size_t length =
        std::lround(share * static_cast<double>(width) * static_cast<double>(kEighths.size()));
    const std::size_t whole = length / kEighths.size();
    const std::size_t rest = length % kEighths.size();
    std::string bar;
    for (std::size_t at = 0; at < whole; ++at) {
        bar += "█";
    }
    return bar + kEighths[rest] + std::string(width - whole - (rest > 0 ? 1 : 0), ' ');
}

/// Puts the parts of lines together.
class Drawing {
public:
    Drawing(const Layout& layout, const TopStyle& style) : layout_(layout), style_(style) {}

    std::string title(const std::string& text) const
    {
        return coloured(kBold, text.substr(0, style_.width));
    }

    std::string names(const Numbers& names) const
    {
        return coloured(kReverse, fill(row("block", names, fill("", layout_.bar), false),
                                       style_.has_colours ? style_.width : 0));
    }

    std::string block(const TopRow& top, const Numbers& numbers, double share) const
    {
        return row(top.block.path, numbers, draw_bar(share, layout_.bar, style_.has_unicode), true,
                   top.block.failures > 0);
    }

private:
    std::string coloured(const char* colour, const std::string& text) const
    {
        return style_.has_colours ? colour + text + kPlain : text;
    }

    /// The bar stands behind the first number.
    std::string row(const std::string& path, const Numbers& numbers, const std::string& bar,
                    bool is_block, bool has_failures = false) const
    {
        std::string line = shorten(path, layout_.path, style_.has_unicode);
        for (std::size_t at = 0; at < layout_.count; ++at) {
            std::string cell =
                std::string(layout_.numbers[at] - numbers[at].size(), ' ') + numbers[at];
            line += std::string(kGap, ' ');
            line += has_failures && at == kFailures ? coloured(kRed, cell) : cell;
            if (at == 0 && layout_.bar > 0) {
                line += std::string(kGap, ' ');
                line += is_block ? coloured(kGreen, bar) : bar;
            }
        }
        return line;
    }

    const Layout& layout_;
    const TopStyle& style_;
};

}  // namespace

std::vector<TopRow> to_rows(const std::vector<BlockStatistics>& before,
                            const std::vector<BlockStatistics>& now)
{
    std::map<std::string, Time> totals;
    for (const BlockStatistics& block : before) {
        totals[block.path] = block.total;
    }
    std::vector<TopRow> rows;
    rows.reserve(now.size());
    for (const BlockStatistics& block : now) {
        const auto total = totals.find(block.path);
        // Where it is less, another run of the graph has begun.
        const bool is_known = total != totals.end() && total->second <= block.total;
        rows.push_back({block, is_known ? block.total - total->second : Time(0)});
    }
    std::stable_sort(rows.begin(), rows.end(), [](const TopRow& left, const TopRow& right) {
        return std::tie(left.recent, left.block.total) > std::tie(right.recent, right.block.total);
    });
    return rows;
}

std::vector<std::string> draw_top(const std::string& title, const std::vector<TopRow>& rows,
                                  std::chrono::nanoseconds interval, const TopStyle& style)
{
    std::vector<Numbers> numbers = {{"load", "runs", "failures", "total", "max", "99 %"}};
    for (const TopRow& row : rows) {
        numbers.push_back(numbers_of(row, interval));
    }
    const Layout layout = lay_out(rows, numbers, style.width);
    const Drawing drawing(layout, style);
    const double highest = rows.empty() ? 0 : load_of(rows.front(), interval);
    std::vector<std::string> lines = {drawing.title(title), drawing.names(numbers.front())};
    for (std::size_t at = 0; at < rows.size() && lines.size() < style.height; ++at) {
        const double load = load_of(rows[at], interval);
        lines.push_back(drawing.block(rows[at], numbers[at + 1], highest > 0 ? load / highest : 0));
    }
    lines.resize(std::min<std::size_t>(lines.size(), style.height));
    return lines;
}
