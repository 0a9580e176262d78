#include "schedule/plan.h"

#include <algorithm>

namespace Quorval::runtime {

namespace {

constexpr std::uint32_t kNone = UINT32_MAX;
constexpr std::uint32_t kMany = kNone - 1;
// Of a task, so that little is looked at of which little runs.
constexpr std::uint32_t kLongestChain = 64;

/// Where there is another one already, there are many.
void add_neighbour(std::uint32_t& neighbour, std::uint32_t block)
{
    neighbour = neighbour == kNone || neighbour == block ? block : kMany;
}

}  // namespace

/// Works on the chains as they are found, in the order of their first blocks, and numbers them by
/// level in the end.
class Plan::Builder {
public:
    Builder(const Network& network, const std::vector<Tie>& ties, Plan& plan)
        : ties_(ties),
          plan_(plan),
          before_(ties.size(), kNone),
          behind_(ties.size(), kNone),
          least_level_(ties.size(), 0)
    {
        for (const Wire& wire : network.wires) {
            if (wire.from != wire.to) {
                edges_.push_back(wire.is_delayed ? Edge{wire.to, wire.from}
                                                 : Edge{wire.from, wire.to});
            }
        }
        std::sort(edges_.begin(), edges_.end(),
                  [](const Edge& a, const Edge& b) { return a.first < b.first; });
        for (const Edge& edge : edges_) {
            add_neighbour(before_[edge.second], edge.first);
            add_neighbour(behind_[edge.first], edge.second);
        }
    }

    void build()
    {
        plan_.task_of_.resize(ties_.size());
        auto edge = edges_.begin();
        for (std::uint32_t block = 0; block < ties_.size(); ++block) {
            place(block);
            const std::uint32_t chain = plan_.task_of_[block];
            for (; edge != edges_.end() && edge->first == block; ++edge) {
                std::uint32_t& least = least_level_[edge->second];
                least = std::max(least, chains_[chain].level + 1);
            }
        }
        number_chains();
        fill_tasks();
    }

private:
    struct Edge {
        std::uint32_t first;
        std::uint32_t second;
    };
    struct Chain {
        std::uint32_t level;
        std::uint32_t length;
        bool is_tied;
    };

    /// Puts a block to the chain of the one before it, or into one of its own.
    void place(std::uint32_t block)
    {
        if (continues_chain(block)) {
            plan_.task_of_[block] = plan_.task_of_[before_[block]];
            ++chains_[plan_.task_of_[block]].length;
            return;
        }
        const bool is_tied = ties_[block] != Tie::None;
        const std::uint32_t level = level_of(block);
        (is_tied ? tied_level_ : free_end_) = is_tied ? level : std::max(free_end_, level + 1);
        plan_.task_of_[block] = static_cast<std::uint32_t>(chains_.size());
        chains_.push_back({level, 1, is_tied});
    }

    bool continues_chain(std::uint32_t block) const
    {
        const std::uint32_t before = before_[block];
        return before < kMany && behind_[before] == block && ties_[block] == Tie::None &&
               ties_[before] == Tie::None && chains_[plan_.task_of_[before]].length < kLongestChain;
    }

    std::uint32_t level_of(std::uint32_t block) const
    {
        const std::uint32_t level = least_level_[block];
        switch (ties_[block]) {
            case Tie::Thread:
                return std::max(level, tied_level_);
            case Tie::Place:
                return std::max({level, tied_level_, free_end_});
            default:
                return level;
        }
    }

    void number_chains()
    {
        std::vector<std::uint32_t> by_level(chains_.size());
        for (std::uint32_t chain = 0; chain < by_level.size(); ++chain) {
            by_level[chain] = chain;
        }
        std::stable_sort(by_level.begin(), by_level.end(),
                         [this](auto a, auto b) { return chains_[a].level < chains_[b].level; });
        std::vector<std::uint32_t> number(chains_.size());
        plan_.tasks_.resize(chains_.size() + 1);
        std::uint32_t first = 0;
        for (std::uint32_t task = 0; task < by_level.size(); ++task) {
            const Chain& chain = chains_[by_level[task]];
            number[by_level[task]] = task;
            plan_.tasks_[task].first = first;
            plan_.tasks_[task].is_tied = chain.is_tied;
            first += chain.length;
        }
        plan_.tasks_.back().first = first;
        end_levels(by_level);
        for (std::uint32_t& task : plan_.task_of_) {
            task = number[task];
        }
    }

    void end_levels(const std::vector<std::uint32_t>& by_level)
    {
        auto end = static_cast<std::uint32_t>(by_level.size());
        for (std::uint32_t task = end; task-- > 0;) {
            plan_.tasks_[task].end_of_level = end;
            if (task > 0 && chains_[by_level[task]].level != chains_[by_level[task - 1]].level) {
                end = task;
            }
        }
    }

    void fill_tasks()
    {
        plan_.blocks_.resize(ties_.size() + 1);
        std::vector<std::uint32_t> filled(plan_.tasks_.size());
        for (std::uint32_t block = 0; block < ties_.size(); ++block) {
            const std::uint32_t task = plan_.task_of_[block];
            plan_.blocks_[plan_.tasks_[task].first + filled[task]++] = block;
        }
    }

    const std::vector<Tie>& ties_;
    Plan& plan_;
    std::vector<Edge> edges_;                 // by their first block
    std::vector<std::uint32_t> before_;       // by block: the one that it depends on, or kMany
    std::vector<std::uint32_t> behind_;       // by block: the one that depends on it, or kMany
    std::vector<std::uint32_t> least_level_;  // by block, as far as its edges are known
    std::vector<Chain> chains_;
    std::uint32_t tied_level_ = 0;  // of the last tied block
    std::uint32_t free_end_ = 0;    // the level behind those of all chains
};

Plan::Plan(const Network& network, const std::vector<Tie>& ties)
{
    Builder(network, ties, *this).build();
}

}  // namespace Quorval::runtime
