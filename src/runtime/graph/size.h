// How large a graph becomes when its superblocks are put in their places.
#pragma once

#include "description/description.h"
#include "description/problem.h"

#include <array>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>

namespace Quorval::runtime {

/// Measures kinds of superblocks before anything is made of them.
class SizeCheck {
public:
    SizeCheck(const GraphDescription& description, Problems& problems)
        : description_(description), problems_(problems)
    {
    }

    /// Whether the graph can be made. Reports superblocks that contain themselves, which does not
    /// stand in the way, and the member with which a graph becomes too large, which does.
    bool check();

    /// Whether a member is one with which a superblock contains itself.
    bool closes_cycle(const MemberDescription& member) const { return cuts_.count(&member) > 0; }

private:
    struct Size {
        std::uint64_t blocks = 0;       // plain ones
        std::uint64_t superblocks = 0;  // all that are inside
        std::uint64_t levels = 0;       // of superblocks in superblocks
        std::uint64_t connections = 0;  // and exposed ports
        std::uint64_t bytes = 0;        // of paths, seen from here, and configurations
        bool is_open = true;            // it is being measured
    };

    /// What a graph may have at most of something that is counted.
    struct Limit {
        std::uint64_t Size::*count;
        std::uint64_t most;
        const char* complaint;
    };

    // Superblocks destroy each other level by level.
    static constexpr std::uint64_t kMostLevels = 1000;
    /// In the order in which they are complained of.
    static constexpr std::array<Limit, 5> kLimits = {{
        {&Size::blocks, 1'000'000, "the graph has more than 1000000 blocks"},
        {&Size::superblocks, 1'000'000, "the graph has more than 1000000 superblocks"},
        {&Size::levels, kMostLevels, "superblocks stand in each other more than 1000 levels deep"},
        {&Size::connections, 10'000'000, "the graph has more than 10000000 connections"},
        {&Size::bytes, std::uint64_t{1} << 30U,
         "the paths and configurations of the blocks take more than 1 GiB"},
    }};

    static void add_connections(Size& sum, const CompositeDescription& inside);
    void add_member(Size& sum, const MemberDescription& member, unsigned depth);
    void add_kind(Size& sum, const MemberDescription& member, unsigned depth);

    const GraphDescription& description_;
    Problems& problems_;
    std::unordered_map<const CompositeDescription*, Size> sizes_;
    std::unordered_set<const MemberDescription*> cuts_;
};

}  // namespace Quorval::runtime
