// Graph files as texts.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <exception>
#include <string>
#include <utility>

namespace Quorval::runtime {

/// Reading was given up.
struct Interrupted final : std::exception {};

/// Whether somebody else than root may write to a file or directory, and this process is root's.
bool is_refused_for_root(const struct stat& status);

/// "'<path>' is writable by others: refused for root"
std::string text_of_refusal(const std::string& path);

/// Waits for the writer of a pipe, until it has to end.
struct IPatience {
    /// Waits until the descriptor is readable.
    /// @return false: it is not to be waited for any longer
    virtual bool wait_readable(int fd) = 0;

protected:
    ~IPatience() = default;
};

/// An open graph file. Opening never waits.
class GraphFile {
public:
    /// What tells files apart, whatever they are called.
    using Identity = std::pair<dev_t, ino_t>;

    /// Opens a regular file or a pipe. What goes wrong is told by error().
    explicit GraphFile(const std::string& path);
    GraphFile(const GraphFile&) = delete;
    GraphFile& operator=(const GraphFile&) = delete;
    ~GraphFile();

    /// Why the file cannot be read: the text of errno, or "not a regular file". Empty: it can.
    const std::string& error() const { return error_; }

    /// Of a file that was opened.
    Identity identity() const { return identity_; }
    bool is_refused() const { return is_refused_; }

    /// All that it holds, from the beginning. A pipe without a writer is not waited for, it is
    /// empty. What goes wrong is told by error().
    /// @param patience  waits for the writer of a pipe; null: that is waited for in any case
    /// @throws Interrupted  it has come to its end
    std::string read(IPatience* patience = nullptr);

private:
    int open(const std::string& path);
    bool accept(const struct stat& status);
    void wait_for_writer(IPatience* patience) const;

    int fd_ = -1;
    std::string error_;
    Identity identity_{};
    bool is_refused_ = false;
};

}  // namespace Quorval::runtime
