// How large a graph becomes when its superblocks are put in their places.
#pragma once

#include "description/description.h"
#include "description/problem.h"

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
        std::uint64_t connections = 0;  // and exposed ports
        std::uint64_t bytes = 0;        // of paths, seen from here, and configurations
        unsigned height = 0;            // of superblocks in superblocks
        bool is_open = true;            // it is being measured
    };

    const char* add(Size& sum, const CompositeDescription& inside, unsigned depth,
                    const MemberDescription** culprit);
    const char* add_member(Size& sum, const MemberDescription& member, unsigned depth);
    const char* add_kind(Size& sum, const MemberDescription& member, unsigned depth);

    const GraphDescription& description_;
    Problems& problems_;
    std::unordered_map<const CompositeDescription*, Size> sizes_;
    std::unordered_set<const MemberDescription*> cuts_;
};

}  // namespace Quorval::runtime
