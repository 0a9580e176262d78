// What the process has or may do otherwise until the end of a scope.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

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

/// A signal is ignored.
class IgnoredSignal {
public:
    explicit IgnoredSignal(int signal) : signal_(signal)
    {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        ::sigaction(signal_, &ignore, &before_);
    }
    IgnoredSignal(const IgnoredSignal&) = delete;
    IgnoredSignal& operator=(const IgnoredSignal&) = delete;
    ~IgnoredSignal() { ::sigaction(signal_, &before_, nullptr); }

private:
    int signal_;
    struct sigaction before_ {};
};

/// Files grow to so many bytes. What is too much is not written.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : limit_(RLIMIT_FSIZE, bytes) {}

private:
    IgnoredSignal signal_{SIGXFSZ};
    ScopedLimit limit_;
};

/// Standard input is closed, so that what is opened first is 0.
class NoStandardInput {
public:
    NoStandardInput() : before_(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
    {
        ::close(STDIN_FILENO);
    }
    NoStandardInput(const NoStandardInput&) = delete;
    NoStandardInput& operator=(const NoStandardInput&) = delete;
    ~NoStandardInput()
    {
        ::dup2(before_, STDIN_FILENO);
        ::close(before_);
    }

    /// Whether something has its descriptor.
    bool is_taken() const { return ::fcntl(STDIN_FILENO, F_GETFD) >= 0; }

private:
    int before_;
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
