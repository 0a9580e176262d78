#include "graph/size.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <variant>
#include <vector>

namespace Quorval::runtime {

namespace {

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
    add_connections(size, description_.graph);
    std::array<const MemberDescription*, kLimits.size()> culprits{};
    for (const MemberDescription& member : description_.graph.members) {
        add_member(size, member, 0);
        for (std::size_t i = 0; i < kLimits.size(); ++i) {
            if (culprits[i] == nullptr && size.*kLimits[i].count > kLimits[i].most) {
                culprits[i] = &member;
            }
        }
    }
    for (std::size_t i = 0; i < kLimits.size(); ++i) {
        if (culprits[i] != nullptr) {
            problems_.add_error(culprits[i]->type_place, kLimits[i].complaint);
            return false;
        }
    }
    return true;
}

void SizeCheck::add_connections(Size& sum, const CompositeDescription& inside)
{
    sum.connections +=
        inside.connections.size() + count_ends(inside.inports) + count_ends(inside.outports);
}

void SizeCheck::add_member(Size& sum, const MemberDescription& member, unsigned depth)
{
    for (const Setting& setting : member.config) {
        sum.bytes += setting.key.size() + bytes_of(setting.value);
    }
    if (member.type.find(':') == std::string::npos) {
        add_kind(sum, member, depth);
    } else {
        ++sum.blocks;
        sum.bytes += member.name.size();
    }
    // Without overflow: what is one too many stays so.
    for (const Limit& limit : kLimits) {
        sum.*limit.count = std::min(sum.*limit.count, limit.most + 1);
    }
}

/// Adds a superblock. Each kind is measured once.
void SizeCheck::add_kind(Size& sum, const MemberDescription& member, unsigned depth)
{
    const auto kind = description_.kinds.find(member.type);
    if (!member.has_type || kind == description_.kinds.end()) {
        return;
    }
    const auto present = sizes_.find(&kind->second);
    if (present != sizes_.end() && present->second.is_open) {
        cuts_.insert(&member);
        problems_.add_error(member.type_place, "superblock '" + member.type + "' contains itself");
        return;
    }
    if (depth == kMostLevels) {
        sum.levels = kMostLevels + 1;
        return;
    }
    const auto [measured, is_new] = sizes_.try_emplace(&kind->second);
    Size& size = measured->second;
    if (is_new) {
        add_connections(size, kind->second);
        for (const MemberDescription& inner : kind->second.members) {
            add_member(size, inner, depth + 1);
        }
        size.is_open = false;
    }
    sum.blocks += size.blocks;
    sum.superblocks += size.superblocks + 1;
    sum.levels = std::max(sum.levels, size.levels + 1);
    sum.connections += size.connections;
    sum.bytes += size.bytes + size.blocks * (member.name.size() + 1);
}

}  // namespace Quorval::runtime
