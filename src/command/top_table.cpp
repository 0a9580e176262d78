#include "top_table.h"

#include "statistics.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <map>
#include <tuple>
#include <utility>

namespace {

using Quorval::BlockStatistics;
using Quorval::LinkStatistics;
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

/// In a row of a block.
constexpr std::size_t kLoad = 1;
constexpr std::size_t kFailures = 3;  // in one of a link: losses

double load_of(const TopRow& row, Time interval)
{
    return interval.count() <= 0
               ? 0
               : static_cast<double>(row.recent.count()) / static_cast<double>(interval.count());
}

std::string describe_load(double load)
{
    constexpr double kPercent = 100;
    std::array<char, 32> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%.1f %%", kPercent * load));
    return text.data();
}

Row with_load(Row row, const std::string& load)
{
    row.insert(row.begin() + kLoad, load);
    return row;
}

/// How wide the columns are. Where there is no room for all, the last ones are left out.
struct Layout {
    std::vector<std::size_t> widths;
    std::size_t bar = 0;  // behind the first number; 0: there is none
};

Layout lay_out(const std::vector<Row>& rows, std::size_t width, bool wants_bar)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t at = 0; at < row.size(); ++at) {
            widths[at] = std::max(widths[at], row[at].size());
        }
    }
    std::size_t used = 0;
    std::size_t count = 1;
    while (count < widths.size() &&
           std::min(widths[0], kNarrowestPath) + used + kGap + widths[count] <= width) {
        used += kGap + widths[count++];
    }
    widths.resize(count);
    widths[0] = std::min(widths[0], width - std::min(width, used));
    used += widths[0] + kGap;
    const bool has_bar = wants_bar && count > 1 && width >= used + kNarrowestBar;
    return {std::move(widths), has_bar ? std::min(kWidestBar, width - used) : 0};
}

std::string fill(std::string text, std::size_t width)
{
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

/// What is left of a text of UTF-8 without so many bytes at its start and the rest of a character.
std::string cut_start(const std::string& text, std::size_t bytes)
{
    constexpr unsigned char kMask = 0xc0;
    constexpr unsigned char kRest = 0x80;
    while (bytes < text.size() && (static_cast<unsigned char>(text[bytes]) & kMask) == kRest) {
        ++bytes;
    }
    return text.substr(bytes);
}

/// The end of a path that is too long, which tells more than its beginning.
std::string shorten(const std::string& path, std::size_t width, bool has_unicode)
{
    if (path.size() <= width) {
        return fill(path, width);
    }
    const std::string mark = has_unicode ? "…" : "...";
    const std::size_t mark_width = has_unicode ? 1 : mark.size();
    return width <= mark_width ? fill(cut_start(path, path.size() - width), width)
                               : mark + fill(cut_start(path, path.size() - (width - mark_width)),
                                             width - mark_width);
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
    Drawing(Layout layout, const TopStyle& style) : layout_(std::move(layout)), style_(style) {}

    std::string names(const Row& names) const
    {
        return coloured(kReverse, fill(line(names, fill("", layout_.bar), false),
                                       style_.has_colours ? style_.width : 0));
    }

    std::string item(const Row& row, bool has_failures, double share = 0) const
    {
        return line(row, coloured(kGreen, draw_bar(share, layout_.bar, style_.has_unicode)),
                    has_failures);
    }

private:
    std::string coloured(const char* colour, const std::string& text) const
    {
        return style_.has_colours ? colour + text + kPlain : text;
    }

    std::string line(const Row& row, const std::string& bar, bool has_failures) const
    {
        std::string line = shorten(row[0], layout_.widths[0], style_.has_unicode);
        for (std::size_t at = 1; at < layout_.widths.size(); ++at) {
            const std::string cell =
                std::string(layout_.widths[at] - row[at].size(), ' ') + row[at];
            line += std::string(kGap, ' ');
            line += has_failures && at == kFailures ? coloured(kRed, cell) : cell;
            if (at == kLoad && layout_.bar > 0) {
                line += std::string(kGap, ' ') + bar;
            }
        }
        return line;
    }

    Layout layout_;
    const TopStyle& style_;
};

void append(std::vector<std::string>& lines, std::vector<std::string> more)
{
    lines.insert(lines.end(), std::make_move_iterator(more.begin()),
                 std::make_move_iterator(more.end()));
}

std::string draw_title(const std::string& text, const TopStyle& style)
{
    const std::string shown = text.substr(0, style.width);
    return style.has_colours ? kBold + shown + kPlain : shown;
}

/// Names of columns, and as many links as there is room for.
std::vector<std::string> draw_links(const std::vector<LinkStatistics>& links, const TopStyle& style)
{
    std::vector<Row> texts = {link_titles()};
    for (const LinkStatistics& link : links) {
        texts.push_back(to_row(link));
    }
    const Drawing drawing(lay_out(texts, style.width, false), style);
    std::vector<std::string> lines = {drawing.names(texts.front())};
    for (std::size_t at = 0; at < links.size() && lines.size() < style.height; ++at) {
        lines.push_back(drawing.item(texts[at + 1], links[at].lost > 0));
    }
    return lines;
}

/// Likewise of blocks.
std::vector<std::string> draw_blocks(const std::vector<TopRow>& rows, Time interval,
                                     const TopStyle& style)
{
    std::vector<Row> texts = {with_load(block_titles(), "load")};
    for (const TopRow& row : rows) {
        texts.push_back(with_load(to_row(row.block), describe_load(load_of(row, interval))));
    }
    const Drawing drawing(lay_out(texts, style.width, true), style);
    const double highest = rows.empty() ? 0 : load_of(rows.front(), interval);
    std::vector<std::string> lines = {drawing.names(texts.front())};
    for (std::size_t at = 0; at < rows.size() && lines.size() < style.height; ++at) {
        const double load = load_of(rows[at], interval);
        lines.push_back(drawing.item(texts[at + 1], rows[at].block.failures > 0,
                                     highest > 0 ? load / highest : 0));
    }
    return lines;
}

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
                                  const std::vector<LinkStatistics>& links,
                                  std::chrono::nanoseconds interval, const TopStyle& style)
{
    constexpr std::size_t kAbove = 2;  // title and names of columns, or an empty line and names
    const std::size_t height = style.height;
    const std::size_t left = height - std::min(height, rows.size() + kAbove);
    const std::size_t room = std::min(std::max(height / 2, left), links.size() + kAbove);
    const bool has_links = !links.empty() && room > kAbove;

    TopStyle part = style;
    part.height = static_cast<unsigned>(has_links ? height - room : height) - (height > 0 ? 1 : 0);
    std::vector<std::string> lines = {draw_title(title, style)};
    append(lines, draw_blocks(rows, interval, part));
    if (has_links) {
        lines.emplace_back();
        part.height = static_cast<unsigned>(room - 1);
        append(lines, draw_links(links, part));
    }
    lines.resize(std::min(lines.size(), height));
    return lines;
}
