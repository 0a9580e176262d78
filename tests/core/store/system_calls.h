// Watches the system calls that the store makes, and stands in for them.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace quorval_test {

/// While one lives, every call of stat, mkdir, unlink, lchown, open, openat, write, fsync, close,
/// rename and renameat in this process is counted from 0 and recorded, whoever makes it. One at a
/// time.
class SystemCalls {
public:
    /// Runs at a call, with its number. The calls that it makes itself are not recorded.
    using Hook = std::function<void(std::size_t number)>;

    SystemCalls();
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;
    ~SystemCalls();

    /// The call of that number does nothing and gives `result`. One of close closes all the same,
    /// as that of Linux does.
    void fail(std::size_t number, int error, long result = -1);

    /// The call of that number, one of write, takes the first `count` bytes alone.
    void shorten(std::size_t number, std::size_t count);

    /// Run before the work of each call and after it.
    void before_each(Hook hook) { before_ = std::move(hook); }
    void after_each(Hook hook) { after_ = std::move(hook); }

    /// The calls as text: "openat(directory, state.tmp, 0x242, 0600)". A descriptor that open gave
    /// is "directory", one that openat gave is "file".
    const std::vector<std::string>& made() const { return made_; }

    /// The bytes that were handed to write, all calls together.
    const std::string& written() const { return written_; }

    // For the functions that stand in for the system calls.
    long make(const std::string& text, bool always, const std::function<long()>& work);
    long make_open(bool is_directory, const std::string& text, const std::function<long()>& work);
    long make_write(int descriptor, const void* data, std::size_t size);
    std::string name_of(int descriptor) const;

private:
    struct Fault {
        int error;
        long result;
    };

    std::map<std::size_t, Fault> faults_;
    std::map<std::size_t, std::size_t> short_counts_;
    Hook before_;
    Hook after_;
    std::vector<std::string> made_;
    std::string written_;
    int directory_ = -1;
    int file_ = -1;
};

/// Runs `action` in a child process that is to kill itself, and tells whether it did.
bool dies(const std::function<void()>& action);

/// A number as it stands in the texts of the calls.
std::string hexadecimal(int flags);

}  // namespace quorval_test
