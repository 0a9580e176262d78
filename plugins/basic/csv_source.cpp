// CsvSource: the values of one column.
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>
#include "blocks.h"
#include "csv.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace basic {

using Quorval::BlockConfiguration;
using std::chrono::nanoseconds;

namespace {

struct CsvSourceSettings {
    std::string path;
    std::string column;
    double rate = 0;
};

const Quorval::Settings<CsvSourceSettings>& csv_source_settings()
{
    constexpr double kHighest = 1e9;
    static const auto kSettings =
        Quorval::Settings<CsvSourceSettings>(
            "Gives the numbers of a column of a CSV file, row by row. An empty cell gives nothing.")
            .add("path", &CsvSourceSettings::path, "the file; its first row names the columns")
            .required()
            .add("column", &CsvSourceSettings::column, "the name of the column")
            .required()
            .add("rate", &CsvSourceSettings::rate, "rows in a second; 0: as fast as they are taken")
            .range(0, kHighest);
    return kSettings;
}

/// @return false for a text that is no number
bool parse(const std::string& text, double& number)
{
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

class CsvSource : public Quorval::Block {
public:
    CsvSource(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(csv_source_settings().read(config))
    {
    }

    void start() override
    {
        open();
        read_names();
        began_ = get_tools().now();
        ask_for_next();
    }

    bool run() override
    {
        std::string line;
        if (!read_line(line)) {
            return false;
        }
        ++rows_;
        ask_for_next();  // also behind a row that is wrong
        const std::string cell = line.empty() ? line : get_cell(line);
        double number = 0;
        if (!cell.empty()) {
            if (!parse(cell, number)) {
                fail("'" + cell + "' is not a number");
            }
            out_->write(number);
        }
        return true;
    }

    void stop() override { file_.close(); }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = csv_source_settings().apply(settings_, override);
    }

private:
    /// @throws std::runtime_error  names file and line
    [[noreturn]] void fail(const std::string& reason) const
    {
        throw std::runtime_error(settings_.path + ":" + std::to_string(line_) + ": " + reason);
    }

    void open()
    {
        std::error_code error;
        const auto status = std::filesystem::status(settings_.path, error);
        if (!error && std::filesystem::is_directory(status)) {
            error = std::make_error_code(std::errc::is_a_directory);
        }
        if (!error) {
            errno = 0;
            file_.open(settings_.path);
            error = std::error_code(file_ ? 0 : errno, std::generic_category());
        }
        if (error) {
            throw std::runtime_error(settings_.path + ": " + error.message());
        }
    }

    void read_names()
    {
        const std::string mark = "\xEF\xBB\xBF";  // of UTF-8, which some programs write
        std::string line;
        const bool has_line = read_line(line);
        const std::size_t begin = line.compare(0, mark.size(), mark) == 0 ? mark.size() : 0;
        const std::vector<std::string> names =
            has_line ? split_row(line.substr(begin)) : std::vector<std::string>();
        columns_ = names.size();
        for (index_ = 0; index_ < columns_; ++index_) {
            if (names[index_] == settings_.column) {
                return;
            }
        }
        line_ = 1;
        fail("there is no column '" + settings_.column + "'");
    }

    /// A line without its end, of whichever system.
    bool read_line(std::string& line)
    {
        if (!std::getline(file_, line)) {
            if (file_.bad()) {
                fail("cannot be read");
            }
            return false;
        }
        ++line_;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        return true;
    }

    std::string get_cell(const std::string& line) const
    {
        const std::vector<std::string> cells = split_row(line);
        if (cells.size() != columns_) {
            fail(std::to_string(cells.size()) + " cells, not " + std::to_string(columns_));
        }
        return cells[index_];
    }

    void ask_for_next()
    {
        if (settings_.rate == 0) {
            get_tools().request_run();
            return;
        }
        // Where rows are too far apart for a clock to tell, the next one is as far as it can be.
        constexpr std::chrono::duration<double> kLongest = std::chrono::hours(24 * 365 * 100);
        const std::chrono::duration<double> since(
            std::min(static_cast<double>(rows_) / settings_.rate, kLongest.count()));
        get_tools().run_at(began_ + std::chrono::round<nanoseconds>(since));
    }

    CsvSourceSettings settings_;
    Quorval::OutPort<double>* out_ = Quorval::add_output<double>(*this, "out");
    std::ifstream file_;
    std::size_t columns_ = 0;
    std::size_t index_ = 0;  // of the column
    std::int64_t line_ = 0;  // of the file, the last one that was read
    std::int64_t rows_ = 0;
    nanoseconds began_{0};
};

}  // namespace

void register_csv_source(Quorval::IRegistry& registry)
{
    Quorval::register_block<CsvSource>(registry, "CsvSource", csv_source_settings());
}

}  // namespace basic
