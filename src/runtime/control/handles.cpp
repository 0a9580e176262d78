#include "control/handles.h"

#include <algorithm>
#include <system_error>

namespace Quorval::runtime {

std::string bus_name_of(const std::string& graph)
{
    std::string name = graph;
    std::replace(name.begin(), name.end(), '-', '_');
    const bool begins_with_digit = !name.empty() && name[0] >= '0' && name[0] <= '9';
    return kNamePrefix + std::string(begins_with_digit ? "_" : "") + name;
}

int open_bus(Bus kind, BusHandle& bus)
{
    sd_bus* opened = nullptr;
    const int result =
        kind == Bus::System ? sd_bus_open_system(&opened) : sd_bus_open_user(&opened);
    if (result < 0) {
        return result;
    }
    bus.reset(opened);
    return 0;
}

const char* to_text(Bus kind)
{
    return kind == Bus::System ? "the system's bus" : "the user's bus";
}

std::string text_of_errno(int result)
{
    return std::generic_category().message(-result);
}

}  // namespace Quorval::runtime
