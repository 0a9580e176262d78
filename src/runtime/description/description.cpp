#include "description/description.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace Quorval::runtime {

std::size_t CompositeDescription::find_member(std::string_view name) const
{
    const auto at = std::lower_bound(members.begin(), members.end(), name,
                                     [](const MemberDescription& member, std::string_view wanted) {
                                         return member.name < wanted;
                                     });
    const bool is_there = at != members.end() && at->name == name;
    return static_cast<std::size_t>((is_there ? at : members.end()) - members.begin());
}

void CompositeDescription::find_ends()
{
    std::unordered_map<std::string_view, std::uint32_t> positions;
    positions.reserve(members.size());
    for (const MemberDescription& member : members) {
        positions.emplace(member.name, static_cast<std::uint32_t>(positions.size()));
    }
    const auto find = [&](EndDescription& end) {
        const auto at = positions.find(end.block);
        end.member = at == positions.end() ? kNoMember : at->second;
    };
    for (ConnectionDescription& connection : connections) {
        find(connection.from);
        find(connection.to);
    }
    for (std::vector<ExposedDescription>* ports : {&inports, &outports}) {
        for (ExposedDescription& port : *ports) {
            std::for_each(port.ends.begin(), port.ends.end(), find);
        }
    }
}

}  // namespace Quorval::runtime
