#include "support/support.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace quorval_test {

namespace {

class RecordingSink : public Quorval::LogInstance {
public:
    RecordingSink(loglevel threshold, std::shared_ptr<std::vector<LogLine>> lines)
        : LogInstance(threshold), lines_(std::move(lines))
    {
    }

    void emit(loglevel level, const char* text, int length) override
    {
        lines_->push_back({level, text, length});
    }

private:
    std::shared_ptr<std::vector<LogLine>> lines_;
};

void set_environment(const std::string& name, const std::optional<std::string>& value)
{
    if (value) {
        ::setenv(name.c_str(), value->c_str(), 1);
    } else {
        ::unsetenv(name.c_str());
    }
}

}  // namespace

LogRecorder::LogRecorder(loglevel threshold)
    : lines_(std::make_shared<std::vector<LogLine>>()),
      before_(
          std::exchange(Quorval::loginstance, std::make_unique<RecordingSink>(threshold, lines_)))
{
}

LogRecorder::~LogRecorder()
{
    Quorval::loginstance = std::move(before_);
}

std::vector<std::string> LogRecorder::texts() const
{
    std::vector<std::string> texts;
    std::transform(lines_->begin(), lines_->end(), std::back_inserter(texts),
                   [](const LogLine& line) { return line.text; });
    return texts;
}

TemporaryDirectory::TemporaryDirectory()
{
    std::string name = (std::filesystem::temp_directory_path() / "quorval-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::system_category(), "mkdtemp " + name);
    }
    path_ = name;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ScopedEnvironment::ScopedEnvironment(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name))
{
    if (const char* before = std::getenv(name_.c_str())) {
        before_ = before;
    }
    set_environment(name_, value);
}

ScopedEnvironment::~ScopedEnvironment()
{
    set_environment(name_, before_);
}

std::string read_file(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + file.string());
    }
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::filesystem::path& file, const std::string& content)
{
    std::ofstream out(file, std::ios::binary);
    out << content;
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

std::vector<int> open_descriptors()
{
    std::vector<int> descriptors;
    DIR* directory = ::opendir("/proc/self/fd");
    while (const dirent* entry = ::readdir(directory)) {
        const int descriptor = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && descriptor != ::dirfd(directory)) {
            descriptors.push_back(descriptor);
        }
    }
    ::closedir(directory);
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

}  // namespace quorval_test
