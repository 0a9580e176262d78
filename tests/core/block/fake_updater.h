// An event loop that records what it is told.
#pragma once

#include <quorval/fdevent.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorval_test {

inline std::string to_text(Quorval::FDEvent::EventMask mask)
{
    return std::string(mask.readable ? "r" : "-") + (mask.writable ? "w" : "-");
}

/// Records each call with what the registration holds at that moment.
class FakeUpdater final : public Quorval::FDEvent::IFDEventUpdater {
public:
    void update_fd(Quorval::FDEvent& event, int new_fd) override
    {
        calls.push_back("update_fd " + state(event) + " -> " + std::to_string(new_fd));
        refuse_if_asked();
    }

    void update_mask(Quorval::FDEvent& event, Quorval::FDEvent::EventMask new_mask) override
    {
        calls.push_back("update_mask " + state(event) + " -> " + to_text(new_mask));
        if (on_update_mask) {
            on_update_mask();
        }
        refuse_if_asked();
    }

    void remove(Quorval::FDEvent& event) override
    {
        calls.push_back("remove " + state(event));
        if (on_remove) {
            on_remove(event);
        }
    }

    std::vector<std::string> calls;
    bool refuses = false;
    std::function<void()> on_update_mask;
    std::function<void(Quorval::FDEvent&)> on_remove;

private:
    static std::string state(const Quorval::FDEvent& event)
    {
        return std::to_string(event.get_fd()) + " " + to_text(event.get_mask());
    }

    void refuse_if_asked() const
    {
        if (refuses) {
            throw std::logic_error("no room");
        }
    }
};

}  // namespace quorval_test
