#include "graph/size.h"

#include <algorithm>
#include <string>

namespace Quorval::runtime {

namespace {

constexpr std::uint64_t kMostBlocks = 1'000'000;
constexpr std::uint64_t kMostPathBytes = std::uint64_t{1} << 30U;
// Superblocks destroy each other level by level.
constexpr unsigned kMostLevels = 1000;

constexpr const char* kTooManyBlocks = "the graph has more than 1000000 blocks";
constexpr const char* kTooManySuperblocks = "the graph has more than 1000000 superblocks";
constexpr const char* kTooDeep = "superblocks stand in each other more than 1000 levels deep";
constexpr const char* kTooLongPaths = "the paths of the blocks are longer than 1 GiB in all";

}  // namespace

bool SizeCheck::check()
{
    Size size;
    const MemberDescription* culprit = nullptr;
    const char* complaint = add(size, description_.graph, 0, &culprit);
    if (complaint != nullptr) {
        problems_.add_error(culprit->type_place, complaint);
    }
    return complaint == nullptr;
}

/// Adds the members of a composite.
/// @return what is too large, null where nothing is
const char* SizeCheck::add(Size& sum, const CompositeDescription& inside, unsigned depth,
                           const MemberDescription** culprit)
{
    for (const MemberDescription& member : inside.members) {
        if (const char* complaint = add_member(sum, member, depth)) {
            *culprit = &member;
            return complaint;
        }
    }
    return nullptr;
}

const char* SizeCheck::add_member(Size& sum, const MemberDescription& member, unsigned depth)
{
    if (member.type.find(':') == std::string::npos) {
        if (const char* complaint = add_kind(sum, member, depth)) {
            return complaint;
        }
    } else {
        ++sum.blocks;
        sum.path_bytes += member.name.size();
    }
    return sum.blocks > kMostBlocks          ? kTooManyBlocks
           : sum.superblocks > kMostBlocks   ? kTooManySuperblocks
           : sum.path_bytes > kMostPathBytes ? kTooLongPaths
                                             : nullptr;
}

/// Adds a superblock. Each kind is measured once.
const char* SizeCheck::add_kind(Size& sum, const MemberDescription& member, unsigned depth)
{
    const auto kind = description_.kinds.find(member.type);
    if (kind == description_.kinds.end()) {
        return nullptr;
    }
    const auto [measured, is_new] = sizes_.try_emplace(&kind->second);
    Size& size = measured->second;
    if (!is_new && size.is_open) {
        cuts_.insert(&member);
        problems_.add_error(member.type_place, "superblock '" + member.type + "' contains itself");
        return nullptr;
    }
    if (is_new) {
        const MemberDescription* culprit = nullptr;
        const char* complaint =
            depth < kMostLevels ? add(size, kind->second, depth + 1, &culprit) : kTooDeep;
        if (complaint != nullptr) {
            return complaint;
        }
        size.is_open = false;
    }
    sum.blocks += size.blocks;
    sum.superblocks += size.superblocks + 1;
    sum.path_bytes += size.path_bytes + size.blocks * (member.name.size() + 1);
    sum.height = std::max(sum.height, size.height + 1);
    return depth + size.height < kMostLevels ? nullptr : kTooDeep;
}

}  // namespace Quorval::runtime
