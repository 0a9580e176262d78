// CsvSink: a row for each wave. The file appears whole, or grows row by row.
#include <quorval/settings.h>
#include "blocks.h"
#include "csv.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace basic {

using Quorval::BlockConfiguration;

namespace {

struct CsvSinkSettings {
    std::string path;
    std::vector<std::string> columns;
    bool append = false;
};

const Quorval::Settings<CsvSinkSettings>& csv_sink_settings()
{
    static const auto kSettings =
        Quorval::Settings<CsvSinkSettings>(
            "Writes a CSV file: a row for each wave in which a value came.")
            .add("path", &CsvSinkSettings::path, "the file")
            .required()
            .add("columns", &CsvSinkSettings::columns,
                 "their names; each has an input of that name")
            .length(1, std::numeric_limits<int>::max())
            .required()
            .add("append", &CsvSinkSettings::append,
                 "add rows to the file one by one; otherwise it is replaced when the graph stops");
    return kSettings;
}

/// What a symbolic link leads to is written, and not replaced itself.
std::string follow_links(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path target = std::filesystem::canonical(path, error);
    return error ? path : target.string();
}

/// In the same directory, so that it can be renamed, and hidden until then.
/// @throws std::runtime_error  what is there cannot be replaced
std::string get_temporary_path(const std::filesystem::path& path)
{
    std::error_code ignored;
    if (std::filesystem::exists(path, ignored) &&
        !std::filesystem::is_regular_file(path, ignored)) {
        throw std::runtime_error(path.string() + ": not a regular file");
    }
    const std::string name =
        "." + path.filename().string() + "." + std::to_string(::getpid()) + ".part";
    return path.parent_path() / name;
}

/// What a process of the same number has left behind goes away; a file that is being written is
/// locked, and stays.
void remove_left_behind(const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return;
    }
    if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
        ::unlink(path.c_str());
    }
    ::close(descriptor);
}

class CsvSink : public Quorval::Block {
public:
    CsvSink(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(csv_sink_settings().read(config))
    {
        for (const std::string& column : settings_.columns) {
            inputs_.push_back(Quorval::add_input<double>(*this, column));
        }
    }
    CsvSink(const CsvSink&) = delete;
    CsvSink& operator=(const CsvSink&) = delete;
    ~CsvSink() override { discard(); }

    void start() override
    {
        path_ = follow_links(settings_.path);
        if (settings_.append) {
            open(path_, O_APPEND);
        } else {
            open_temporary(get_temporary_path(path_));
        }
        if (is_empty()) {
            write_names();
        }
    }

    bool run() override
    {
        for (const auto* input : inputs_) {
            buffer_ += input->is_triggered() ? to_text(input->value()) : "";
            buffer_ += input == inputs_.back() ? '\n' : ',';
        }
        constexpr std::size_t kPiece = 65536;
        if (settings_.append || buffer_.size() >= kPiece) {
            flush();
        }
        return true;
    }

    void stop() override
    {
        flush();
        check(::fsync(descriptor_) == 0 || errno == EINVAL);  // a pipe cannot be synced
        check(::close(std::exchange(descriptor_, -1)) == 0);
        if (!temporary_path_.empty()) {
            check(std::rename(temporary_path_.c_str(), path_.c_str()) == 0);
            temporary_path_.clear();
        }
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = csv_sink_settings().apply(settings_, override);
    }

private:
    /// @throws std::system_error  the call before has failed
    void check(bool is_done) const
    {
        if (!is_done) {
            throw std::system_error(errno, std::generic_category(),
                                    settings_.path + ": cannot be written");
        }
    }

    void open(const std::string& path, int flags)
    {
        constexpr mode_t kMode = 0666;
        descriptor_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, kMode);
        check(descriptor_ >= 0);
    }

    void open_temporary(const std::string& path)
    {
        remove_left_behind(path);
        open(path, O_EXCL | O_APPEND);  // what is cut off leaves no gap
        temporary_path_ = path;
        check(::flock(descriptor_, LOCK_EX | LOCK_NB) == 0);
    }

    bool is_empty() const
    {
        struct stat status = {};
        check(::fstat(descriptor_, &status) == 0);
        return status.st_size == 0;
    }

    void write_names()
    {
        for (const std::string& column : settings_.columns) {
            buffer_ += to_cell(column) + (&column == &settings_.columns.back() ? '\n' : ',');
        }
        if (settings_.append) {
            flush();
        }
    }

    void flush()
    {
        for (std::size_t done = 0; done < buffer_.size();) {
            const ssize_t count =
                ::write(descriptor_, buffer_.data() + done, buffer_.size() - done);
            if (count >= 0) {
                done += static_cast<std::size_t>(count);
            } else if (errno != EINTR) {
                take_back(done);
                check(false);
            }
        }
        buffer_.clear();
    }

    /// Cuts half a row off the file, as on a full disk. Leaves errno alone.
    void take_back(std::size_t bytes) const
    {
        const int error = errno;
        struct stat status = {};
        if (bytes > 0 && ::fstat(descriptor_, &status) == 0) {
            [[maybe_unused]] const int result =
                ::ftruncate(descriptor_, status.st_size - static_cast<off_t>(bytes));
        }
        errno = error;
    }

    void discard() noexcept
    {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
        if (!temporary_path_.empty()) {
            ::unlink(temporary_path_.c_str());
        }
    }

    CsvSinkSettings settings_;
    std::string path_;                              // of the file itself
    std::vector<Quorval::InPort<double>*> inputs_;  // as the columns
    int descriptor_ = -1;
    std::string temporary_path_;  // beside the file; empty when there is none
    std::string buffer_;          // rows that are not written yet
};

}  // namespace

void register_csv_sink(Quorval::IRegistry& registry)
{
    Quorval::register_block<CsvSink>(registry, "CsvSink", csv_sink_settings());
}

}  // namespace basic
