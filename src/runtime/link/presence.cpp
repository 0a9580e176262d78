#include "link/presence.h"

#include <quorval/log.h>

#include <algorithm>
#include <cstdint>

namespace Quorval::runtime {

namespace {

constexpr std::chrono::seconds kMessage(1);
constexpr int kSpare = 10;  // messages at once, beside two for each machine

}  // namespace

Presence::Presence(const std::vector<std::string>& machines)
    : burst_(kMessage * (kSpare + 2 * static_cast<std::int64_t>(machines.size())))
{
    for (const std::string& machine : machines) {
        machines_[machine];
    }
}

void Presence::take(const std::string& machine, std::string_view text, Time now)
{
    const auto found = machines_.find(machine);
    if (found != machines_.end() && (text == kOnline || text == kOffline)) {
        found->second.state = text == kOnline ? State::Online : State::Offline;
        tell(now);
    }
}

void Presence::tell(Time now)
{
    for (auto& [name, machine] : machines_) {
        if (machine.state == machine.told || !may_tell(now)) {
            continue;
        }
        const bool is_new = machine.told == State::Unknown;
        machine.told = machine.state;
        logger(is_new ? LOGLEVEL_INFO : LOGLEVEL_WARNING, "machine '%s' is %s", name.c_str(),
               machine.state == State::Online ? kOnline : kOffline);
    }
}

bool Presence::may_tell(Time now)
{
    spent_ = std::max(spent_, now - burst_);
    if (spent_ + kMessage > now) {
        return false;
    }
    spent_ += kMessage;
    return true;
}

}  // namespace Quorval::runtime
