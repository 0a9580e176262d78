// The requests of blocks to be run, from any thread.
#pragma once

#include "loop/waker.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace Quorval::runtime {

/// A list into which each block is put once at most, whoever asks. Neither putting in nor taking
/// out waits or allocates.
class Requests {
public:
    /// @param waker  told of each block that was not in the list; null for nobody
    Requests(std::size_t blocks, std::shared_ptr<Waker> waker)
        : waker_(std::move(waker)), entries_(blocks)
    {
    }

    /// From any thread.
    void add(std::uint32_t block) noexcept
    {
        Entry& entry = entries_[block];
        if (entry.is_listed.exchange(true)) {
            return;
        }
        entry.next = first_.load();
        while (!first_.compare_exchange_weak(entry.next, block)) {}
        if (waker_ != nullptr) {
            waker_->wake();
        }
    }

    bool is_empty() const { return first_.load() == kNone; }

    /// Hands each block in the list to `take`; what is asked for meanwhile stays.
    template <class Take>
    void take_all(const Take& take)
    {
        if (is_empty()) {
            return;
        }
        for (std::uint32_t block = first_.exchange(kNone); block != kNone;) {
            const std::uint32_t next = entries_[block].next;
            entries_[block].is_listed = false;
            take(block);
            block = next;
        }
    }

private:
    static constexpr std::uint32_t kNone = UINT32_MAX;

    struct Entry {
        std::atomic<bool> is_listed{false};
        std::uint32_t next = kNone;
    };

    std::shared_ptr<Waker> waker_;
    std::atomic<std::uint32_t> first_{kNone};
    std::vector<Entry> entries_;
};

}  // namespace Quorval::runtime
