// CsvSource: the values of one column.
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>
#include "blocks.h"
#include "csv.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
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

/// The lines of a file; of a pipe those that have come so far. Never waits.
class Lines {
public:
    enum class Found { Line, Nothing, End, Failure };

    Lines() = default;
    Lines(const Lines&) = delete;
    Lines& operator=(const Lines&) = delete;
    ~Lines() { close(); }

    /// From the beginning.
    /// @return an errno, 0 for none
    int open(const std::string& path)
    {
        text_.clear();
        begin_ = 0;
        fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        struct stat status = {};
        if (fd_ < 0 || ::fstat(fd_, &status) != 0) {
            return errno;
        }
        is_whole_ = S_ISREG(status.st_mode);
        return S_ISDIR(status.st_mode) ? EISDIR : 0;
    }

    void close()
    {
        if (fd_ >= 0) {
            ::close(std::exchange(fd_, -1));
        }
    }

    int fd() const { return fd_; }
    /// Whether it is a plain file, of which take() never finds Nothing.
    bool is_whole() const { return is_whole_; }

    /// Takes the next one, without the end of it.
    Found take(std::string& line)
    {
        std::size_t end = text_.find('\n', begin_);
        while (end == std::string::npos) {
            const std::size_t looked = text_.size() - begin_;
            const Found found = read_more();
            if (found == Found::End && !text_.empty()) {
                line = std::exchange(text_, {});
                return Found::Line;
            }
            if (found != Found::Line) {
                return found;
            }
            end = text_.find('\n', looked);
        }
        line.assign(text_, begin_, end - begin_);
        begin_ = end + 1;
        return Found::Line;
    }

private:
    /// @return Line for a part of one, too
    Found read_more()
    {
        constexpr std::size_t kAtOnce = 65536;
        text_.erase(0, std::exchange(begin_, 0));
        const std::size_t size = text_.size();
        text_.resize(size + kAtOnce);
        ssize_t count = -1;
        do {
            count = ::read(fd_, text_.data() + size, kAtOnce);
        } while (count < 0 && errno == EINTR);
        const bool is_early = count < 0 && errno == EAGAIN;
        text_.resize(size + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return count > 0    ? Found::Line
               : count == 0 ? Found::End
               : is_early   ? Found::Nothing
                            : Found::Failure;
    }

    int fd_ = -1;
    bool is_whole_ = false;
    std::string text_;       // that was read
    std::size_t begin_ = 0;  // of the part that was not taken yet
};

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
        if (lines_.is_whole()) {
            step();
        } else {
            port_ = make_fdport("file", lines_.fd(), {true, false});
        }
    }

    bool run() override { return !is_over_ && step(); }

    void stop() override
    {
        if (port_ != nullptr) {
            port_->set_event(nullptr);
        }
        lines_.close();
    }

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

    /// The same where nothing more is to be had from the file.
    [[noreturn]] void give_up(const std::string& reason)
    {
        is_over_ = true;
        get_tools().request_run();
        fail(reason);
    }

    /// As if nothing had been read before: a block may be started again.
    void open()
    {
        is_late_ = false;
        is_over_ = false;
        columns_ = 0;
        line_ = 0;
        rows_ = 0;
        if (const int error = lines_.open(settings_.path)) {
            throw std::runtime_error(settings_.path + ": " +
                                     std::generic_category().message(error));
        }
    }

    /// Takes the next line, as far as there is one.
    /// @return whether there may be more
    bool step()
    {
        std::string line;
        const Lines::Found found = read_line(line);
        if (found == Lines::Found::Nothing) {
            is_late_ = true;
            return true;
        }
        if (columns_ == 0) {
            read_names(found == Lines::Found::Line, line);
            began_ = get_tools().now();
            ask_for_next();
            return true;
        }
        if (found == Lines::Found::End) {
            return false;
        }
        if (std::exchange(is_late_, false) && settings_.rate != 0) {
            began_ = get_tools().now() - time_of_next();
        }
        ++rows_;
        ask_for_next();  // also behind a row that is wrong
        give(line);
        return true;
    }

    void give(const std::string& line)
    {
        const std::string cell = line.empty() ? line : get_cell(line);
        double number = 0;
        if (cell.empty()) {
            return;
        }
        if (!parse(cell, number)) {
            fail("'" + cell + "' is not a number");
        }
        out_->write(number);
    }

    void read_names(bool has_line, const std::string& line)
    {
        const std::string mark = "\xEF\xBB\xBF";  // of UTF-8, which some programs write
        const std::size_t begin = line.compare(0, mark.size(), mark) == 0 ? mark.size() : 0;
        const std::vector<std::string> names =
            has_line ? split_row(line.substr(begin)) : std::vector<std::string>();
        const auto name = std::find(names.begin(), names.end(), settings_.column);
        if (name == names.end()) {
            line_ = 1;
            give_up("there is no column '" + settings_.column + "'");
        }
        columns_ = names.size();
        index_ = static_cast<std::size_t>(name - names.begin());
    }

    /// Without its end, of whichever system. Where there is none yet, the next run is that in which
    /// the loop has seen that there is more.
    Lines::Found read_line(std::string& line)
    {
        const Lines::Found found = lines_.take(line);
        if (found == Lines::Found::Failure) {
            give_up("cannot be read");
        }
        if (port_ != nullptr) {
            port_->set_eventmask({found == Lines::Found::Nothing, false});
        }
        line_ += found == Lines::Found::Line ? 1 : 0;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        return found;
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
        } else {
            get_tools().run_at(began_ + time_of_next());
        }
    }

    /// When the next row is due, from the beginning on.
    nanoseconds time_of_next() const
    {
        // Where rows are too far apart for a clock to tell, the next one is as far as it can be.
        constexpr std::chrono::duration<double> kLongest = std::chrono::hours(24 * 365 * 100);
        const std::chrono::duration<double> since(
            std::min(static_cast<double>(rows_) / settings_.rate, kLongest.count()));
        return std::chrono::round<nanoseconds>(since);
    }

    CsvSourceSettings settings_;
    Quorval::OutPort<double>* out_ = Quorval::add_output<double>(*this, "out");
    Lines lines_;
    Quorval::FdPort* port_ = nullptr;  // null where nobody waits for lines
    bool is_late_ = false;             // the next row was not there when it was due
    bool is_over_ = false;             // nothing more is to be had
    std::size_t columns_ = 0;          // 0: the names were not read yet
    std::size_t index_ = 0;            // of the column
    std::int64_t line_ = 0;            // of the file, the last one that was read
    std::int64_t rows_ = 0;
    nanoseconds began_{0};  // rows are due at their rate from then on
};

}  // namespace

void register_csv_source(Quorval::IRegistry& registry)
{
    Quorval::register_block<CsvSource>(registry, "CsvSource", csv_source_settings());
}

}  // namespace basic
