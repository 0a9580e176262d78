// What blocks leave open.
#pragma once

#include <sys/stat.h>

#include <map>
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

    /// What is open by now and has no block keeps none.
    void begin_end();

    /// Behind begin_end(), as note_failure() where the operation was the end of a block, which
    /// closes what it opened. Three system calls, as long as there is a descriptor to be had and it
    /// left nothing open, and one for each that it was seen to open.
    void note_end();

private:
    struct Opened {
        dev_t device = 0;
        ino_t file = 0;
        std::string path;  // of the block; empty: not known
    };

    void forget_closed();
    int find_free() const;
    void take_opened();
    bool take(int fd);
    bool was_there(int fd) const;
    const std::string& opener_of(int fd) const;
    void warn() const;

    bool is_on_;
    std::vector<int> before_;  // sorted; empty: not known
    std::map<int, Opened> opened_;
    int next_ = 0;      // lower ones are known, and this one was free
    int guarded_ = -1;  // none
};

/// Does so where that is watched. To be called in the operation of a block.
void note_left_open();

/// The same where the operation has failed.
void note_left_open_of_failure() noexcept;

/// To be called before blocks are stopped, and before they are destroyed.
void note_open_before_end() noexcept;

/// To be called when a block was stopped or destroyed.
/// @param path  of the block
void note_left_open_at_end(const char* path) noexcept;

}  // namespace Quorval::runtime
