// The socket of a manager of services, or of a journal.
#pragma once

#include <string>
#include <vector>

namespace quorval_test {

/// Takes what services tell.
class NotifySocket {
public:
    /// @param path  of a file that is made; "\\0" in front of a name that is no file
    /// @throws std::system_error  a system call failed
    explicit NotifySocket(const std::string& path);
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    ~NotifySocket();

    /// The next message; waits for it.
    std::string take() const { return receive(0); }
    /// The next message, or nothing where there is none. One that was sent as a file is its text.
    std::string take_present() const;
    /// All of those.
    std::vector<std::string> take_all_present() const;

private:
    std::string receive(int flags) const;

    int fd_;
};

}  // namespace quorval_test
