// What the tests of all folders share.
#pragma once

#include <quorval/log.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace quorval_test {

/// Expects `action` to throw exactly an Exception, no derived class, with exactly this text.
template <class Exception, class Action>
void expect_throw(Action&& action, const std::string& text)
{
    try {
        std::forward<Action>(action)();
        ADD_FAILURE() << "threw nothing, expected: " << text;
    } catch (const std::exception& error) {
        EXPECT_EQ(typeid(error), typeid(Exception)) << "it was " << typeid(error).name();
        EXPECT_EQ(error.what(), text);
    }
}

/// One message that reached the sink.
struct LogLine {
    loglevel level;
    std::string text;
    int length;

    bool operator==(const LogLine& other) const
    {
        return level == other.level && text == other.text && length == other.length;
    }
};

/// Installs a sink that records, and puts the one before back.
class LogRecorder {
public:
    explicit LogRecorder(loglevel threshold = LOGLEVEL_DEBUG);
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;
    ~LogRecorder();

    const std::vector<LogLine>& lines() const { return *lines_; }
    std::vector<std::string> texts() const;
    void clear() { lines_->clear(); }

private:
    std::shared_ptr<std::vector<LogLine>> lines_;
    std::unique_ptr<Quorval::LogInstance> before_;
};

/// A new empty directory, removed with all that is in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory();

    /// Absolute, without a "/" at its end.
    const std::filesystem::path& path() const { return path_; }
    /// As a store wants it: with a "/" at its end.
    std::string store_path() const { return path_.string() + "/"; }

private:
    std::filesystem::path path_;
};

/// Sets an environment variable, or removes it when there is no value, and puts it back.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const std::optional<std::string>& value);
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    ~ScopedEnvironment();

private:
    std::string name_;
    std::optional<std::string> before_;
};

std::string read_file(const std::filesystem::path& file);
void write_file(const std::filesystem::path& file, const std::string& content);

/// The numbers of the open descriptors of this process.
std::vector<int> open_descriptors();

}  // namespace quorval_test
