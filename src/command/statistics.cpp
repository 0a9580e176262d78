#include "statistics.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>

namespace {

/// The first column begins at the left, the others end at the right.
std::string to_line(const Row& row, const std::vector<std::size_t>& widths)
{
    std::string line = row[0] + std::string(widths[0] - row[0].size(), ' ');
    for (std::size_t column = 1; column < row.size(); ++column) {
        line += "  " + std::string(widths[column] - row[column].size(), ' ') + row[column];
    }
    return line + "\n";
}

std::string align(const std::vector<Row>& rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    std::string table;
    for (const Row& row : rows) {
        table += to_line(row, widths);
    }
    return table;
}

template <class Item>
std::string make_table(const Row& titles, const std::vector<Item>& items)
{
    std::vector<Row> rows = {titles};
    for (const Item& item : items) {
        rows.push_back(to_row(item));
    }
    return align(rows);
}

}  // namespace

std::string describe_time(std::chrono::nanoseconds time)
{
    constexpr double kThousand = 1000;
    constexpr std::array kUnits = {"ns", "us", "ms", "s"};
    auto value = static_cast<double>(time.count());
    std::size_t unit = 0;
    for (; unit + 1 < kUnits.size() && value >= kThousand; ++unit) {
        value /= kThousand;
    }
    std::array<char, 32> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.2f %s",
                                    value, kUnits[unit]));
    return text.data();
}

Row block_titles()
{
    return {"block", "runs", "failures", "total", "max", "99 %"};
}

Row to_row(const Quorval::BlockStatistics& block)
{
    return {to_printable(block.path),       std::to_string(block.runs),
            std::to_string(block.failures), describe_time(block.total),
            describe_time(block.longest),   describe_time(block.percentile_99)};
}

Row link_titles()
{
    return {"link", "values", "bytes", "lost", "gaps", "queue"};
}

Row to_row(const Quorval::LinkStatistics& link)
{
    const std::string output = to_printable(link.output);
    return {link.comes_in ? "-> " + output : output + " ->",
            std::to_string(link.values),
            std::to_string(link.bytes),
            std::to_string(link.lost),
            std::to_string(link.gaps),
            std::to_string(link.longest_queue)};
}

std::string to_table(const std::vector<Quorval::BlockStatistics>& statistics)
{
    return make_table(block_titles(), statistics);
}

std::string to_link_table(const std::vector<Quorval::LinkStatistics>& statistics)
{
    return make_table(link_titles(), statistics);
}
