// Which blocks of a network may run at the same time.
#pragma once

#include "schedule/network.h"

#include <cstdint>
#include <vector>

namespace Quorval::runtime {

/// What holds a block back, beside what it depends on.
enum class Tie : std::uint8_t {
    None,    // runs on any thread
    Thread,  // on the thread of the graph, behind those before it in the order that are tied too
    Place,   // likewise, and behind every block before it in the order
};

/// Blocks in tasks, tasks in levels. The tasks of one level do not depend on each other; each
/// depends on tasks of lower levels alone. A task is a chain of blocks that have to run one after
/// the other, or a single block; a tied block is a task of its own.
class Plan {
public:
    /// @param network  arranged
    /// @param ties     by block
    Plan(const Network& network, const std::vector<Tie>& ties);

    std::uint32_t tasks() const { return static_cast<std::uint32_t>(tasks_.size()) - 1; }
    std::uint32_t task_of(std::uint32_t block) const { return task_of_[block]; }

    // Of tasks, which are numbered by level and then by their first block.

    bool is_tied(std::uint32_t task) const { return tasks_[task].is_tied; }
    /// The first task of the next level.
    std::uint32_t end_of_level(std::uint32_t task) const { return tasks_[task].end_of_level; }
    /// The blocks of a task, in the order of their run, and where they end.
    const std::uint32_t* begin(std::uint32_t task) const { return &blocks_[tasks_[task].first]; }
    const std::uint32_t* end(std::uint32_t task) const { return begin(task + 1); }

private:
    struct Task {
        std::uint32_t first = 0;  // of the blocks; the last lies before that of the next task
        std::uint32_t end_of_level = 0;
        bool is_tied = false;
    };
    class Builder;

    std::vector<std::uint32_t> task_of_;
    std::vector<std::uint32_t> blocks_;  // by task; then one that ends the last
    std::vector<Task> tasks_;            // likewise
};

}  // namespace Quorval::runtime
