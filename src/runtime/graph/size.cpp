#include "graph/size.h"

#include <algorithm>
#include <string>
#include <variant>
#include <vector>

namespace Quorval::runtime {

namespace {

constexpr std::uint64_t kMostBlocks = 1'000'000;
constexpr std::uint64_t kMostConnections = 10'000'000;
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 30U;
// Superblocks destroy each other level by level.
constexpr unsigned kMostLevels = 1000;

constexpr const char* kTooManyBlocks = "the graph has more than 1000000 blocks";
constexpr const char* kTooManySuperblocks = "the graph has more than 1000000 superblocks";
constexpr const char* kTooDeep = "superblocks stand in each other more than 1000 levels deep";
constexpr const char* kTooManyConnections = "the graph has more than 10000000 connections";
constexpr const char* kTooManyBytes =
    "the paths and configurations of the blocks take more than 1 GiB";

std::uint64_t count_ends(const std::vector<ExposedDescription>& ports)
{
    std::uint64_t count = 0;
    for (const ExposedDescription& port : ports) {
        count += port.ends.size();
    }
    return count;
}

std::uint64_t bytes_of(const std::string& text)
{
    return text.size();
}

template <class Number>
std::uint64_t bytes_of(Number /*number*/)
{
    return sizeof(Number);
}

template <class Item>
std::uint64_t bytes_of(const std::vector<Item>& items)
{
    std::uint64_t bytes = 0;
    for (const Item& item : items) {
        bytes += bytes_of(item);
    }
    return bytes;
}

std::uint64_t bytes_of(const Value& value)
{
    return std::visit([](const auto& held) { return bytes_of(held); }, value);
}

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
    sum.connections +=
        inside.connections.size() + count_ends(inside.inports) + count_ends(inside.outports);
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
    for (const Setting& setting : member.config) {
        sum.bytes += setting.key.size() + bytes_of(setting.value);
    }
    if (member.type.find(':') == std::string::npos) {
        if (const char* complaint = add_kind(sum, member, depth)) {
            return complaint;
        }
    } else {
        ++sum.blocks;
        sum.bytes += member.name.size();
    }
    return sum.blocks > kMostBlocks             ? kTooManyBlocks
           : sum.superblocks > kMostBlocks      ? kTooManySuperblocks
           : sum.connections > kMostConnections ? kTooManyConnections
           : sum.bytes > kMostBytes             ? kTooManyBytes
                                                : nullptr;
}

/// Adds a superblock. Each kind is measured once.
const char* SizeCheck::add_kind(Size& sum, const MemberDescription& member, unsigned depth)
{
    const auto kind = description_.kinds.find(member.type);
    if (!member.has_type || kind == description_.kinds.end()) {
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
    sum.connections += size.connections;
    sum.bytes += size.bytes + size.blocks * (member.name.size() + 1);
    sum.height = std::max(sum.height, size.height + 1);
    return depth + size.height < kMostLevels ? nullptr : kTooDeep;
}

}  // namespace Quorval::runtime
