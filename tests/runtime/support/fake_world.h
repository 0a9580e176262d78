// What surrounds a life, made by hand.
#pragma once

#include "loop/loop.h"
#include "run/life.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace quorval_test {

/// A clock that a test sets, and what blocks get of an event loop and a bus.
class FakeWorld final : public Quorval::runtime::IWorld {
public:
    std::chrono::nanoseconds now() override { return time; }
    bool must_stop() override { return stops; }
    void progress(const std::string& path, std::uint64_t done, std::uint64_t total) override
    {
        progresses.push_back(path + " " + std::to_string(done) + "/" + std::to_string(total));
    }
    sd_event* loop() override { return events == nullptr ? nullptr : events->event(); }
    sd_bus* bus() override { return connection; }

    Quorval::runtime::Loop* events = nullptr;
    sd_bus* connection = nullptr;
    std::chrono::nanoseconds time = std::chrono::seconds(100);
    bool stops = false;
    std::vector<std::string> progresses;
};

}  // namespace quorval_test
