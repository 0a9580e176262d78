// What the process has or may do otherwise until the end of a scope.
#pragma once

#include <sys/resource.h>

#include <csignal>
#include <filesystem>

namespace quorval_test {

/// Of a resource there is no more than that.
class ScopedLimit {
public:
    using Resource = decltype(RLIMIT_NOFILE);

    ScopedLimit(Resource resource, rlim_t most) : resource_(resource)
    {
        ::getrlimit(resource_, &before_);
        rlimit limit = before_;
        limit.rlim_cur = most;
        ::setrlimit(resource_, &limit);
    }
    ScopedLimit(const ScopedLimit&) = delete;
    ScopedLimit& operator=(const ScopedLimit&) = delete;
    ~ScopedLimit() { ::setrlimit(resource_, &before_); }

private:
    Resource resource_;
    rlimit before_{};
};

/// No descriptor is to be had.
class NoDescriptors {
private:
    ScopedLimit limit_{RLIMIT_NOFILE, 0};
};

/// Files grow to so many bytes. What is too much is not written.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : limit_(RLIMIT_FSIZE, bytes) {}
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() { static_cast<void>(std::signal(SIGXFSZ, handler_)); }

private:
    void (*handler_)(int) = std::signal(SIGXFSZ, SIG_IGN);
    ScopedLimit limit_;
};

/// Another working directory.
class ScopedWorkingDirectory {
public:
    explicit ScopedWorkingDirectory(const std::filesystem::path& directory)
        : before_(std::filesystem::current_path())
    {
        std::filesystem::current_path(directory);
    }
    ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
    ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;
    ~ScopedWorkingDirectory() { std::filesystem::current_path(before_); }

private:
    std::filesystem::path before_;
};

}  // namespace quorval_test
