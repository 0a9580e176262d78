// Which machines of a graph are there.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Quorval::runtime {

/// Tells of other machines that come and go; of many changes in a short time later, and only of
/// what is left of them. Knows no clock.
class Presence {
public:
    using Time = std::chrono::nanoseconds;

    static constexpr const char* kOnline = "online";
    static constexpr const char* kOffline = "offline";

    /// @param machines  the others; messages of those that are not in it mean nothing
    explicit Presence(const std::vector<std::string>& machines);

    /// Takes a message of a machine; anything but the texts above means nothing.
    void take(const std::string& machine, std::string_view text, Time now);

    /// Tells of what was left out, as far as it may now.
    void tell(Time now);

private:
    enum class State { Unknown, Offline, Online };
    struct Machine {
        State state = State::Unknown;
        State told = State::Unknown;
    };

    bool may_tell(Time now);

    std::map<std::string, Machine> machines_;
    Time burst_;  // a message takes a second of it
    Time spent_ = Time::min();
};

}  // namespace Quorval::runtime
