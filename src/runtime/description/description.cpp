#include "description/description.h"

#include <algorithm>

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

}  // namespace Quorval::runtime
