// What blocks leave open.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

namespace Quorval::runtime {

/// Watches which descriptors appear in the operations of blocks, and warns at its end of those that
/// are still open: "block '<path>' left a descriptor open: '<file>'", or "block '<path>' left <n>
/// descriptors open, the first is '<file>'"; "a block" where it is not known which. Where it cannot
/// be known which were open before, there is no warning. For a process whose descriptors nobody
/// else opens meanwhile. Of one thread, one at a time.
class LeftOpen {
public:
    /// @param is_on  false: nothing is watched
    explicit LeftOpen(bool is_on);
    LeftOpen(const LeftOpen&) = delete;
    LeftOpen& operator=(const LeftOpen&) = delete;
    ~LeftOpen();

    /// A descriptor that no block has any business with.
    void guard(int fd) { guarded_ = fd; }

    /// Notes what the present operation of the thread opened. One system call where that is
    /// nothing.
    /// @throws std::runtime_error  the guarded one is closed, told once:
    ///                             "it closed a descriptor that is not its own"
    void note();

    /// The same where the operation failed, among the next 64 descriptors. What it closed is not
    /// told.
    void note_failure();

private:
    struct Opened {
        int fd = -1;
        dev_t device = 0;
        ino_t file = 0;
        std::string path;  // of the block
    };

    void take_opened();
    bool take(int fd);
    bool was_there(int fd) const;
    const std::string& opener_of(int fd) const;
    void warn() const;

    bool is_on_;
    std::vector<int> before_;  // sorted; empty: not known
    std::vector<Opened> opened_;
    int next_ = 0;      // lower ones are known
    int guarded_ = -1;  // none
};

/// Does so where that is watched. To be called in the operation of a block.
void note_left_open();

/// The same where the operation has failed.
void note_left_open_of_failure() noexcept;

}  // namespace Quorval::runtime
