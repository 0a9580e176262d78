// From a descriptor or a time to the run of a block, against the system calls and the standard
// library.

#include <quorval/port.h>
#include "harness.h"
#include "processes.h"
#include "running.h"
#include "schedule/timers.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <queue>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace quorval_bench {

namespace {

constexpr std::size_t kEvents = 2'000;

/// Writes a value for each event.
void fill(const Pipe& pipe)
{
    const std::vector<double> values(kEvents, 1);
    const std::size_t size = kEvents * sizeof(double);
    if (::write(pipe.write_end(), values.data(), size) != static_cast<ssize_t>(size)) {
        throw std::runtime_error("the pipe is full");
    }
}

std::string write_reader(int fd)
{
    const std::string path = scratch_directory() + "reader.toml";
    std::ofstream(path) << "format = 1\nblocks.a = { type = \"bench-chain:Read\", config.fd = "
                        << fd << " }\n";
    return path;
}

/// A block that reads the pipe.
struct Reader {
    Pipe pipe;
    Running running{write_reader(pipe.read_end())};
    double wanted = 0;

    double read() const
    {
        return static_cast<const Quorval::OutPort<double>&>(
                   running.network().nodes[0].block->get_outport("out").second)
            .value();
    }
};

/// The two system calls.
struct ByHand {
    ByHand()
    {
        epoll_event event = {};
        event.events = EPOLLIN;
        ::epoll_ctl(set, EPOLL_CTL_ADD, pipe.read_end(), &event);
    }
    ByHand(const ByHand&) = delete;
    ByHand& operator=(const ByHand&) = delete;
    ~ByHand() { ::close(set); }

    void take()
    {
        epoll_event event = {};
        double value = 0;
        if (::epoll_wait(set, &event, 1, -1) == 1 &&
            ::read(pipe.read_end(), &value, sizeof value) == sizeof value) {
            sum += value;
        }
    }

    Pipe pipe;
    int set = ::epoll_create1(0);
    double sum = 0;
    double wanted = 0;
};

void add_event_to_run()
{
    add_time("event_to_run/quorval", kEvents, [] {
        auto reader = std::make_shared<Reader>();
        return Side{[reader] {
                        for (std::size_t event = 0; event < kEvents; ++event) {
                            reader->running.turn();
                        }
                    },
                    [reader] { return reader->read() == reader->wanted; },
                    [reader] {
                        fill(reader->pipe);
                        reader->wanted += kEvents;
                    }};
    });
    add_time("event_to_run/by_hand", kEvents, [] {
        auto by_hand = std::make_shared<ByHand>();
        return Side{[by_hand] {
                        for (std::size_t event = 0; event < kEvents; ++event) {
                            by_hand->take();
                        }
                    },
                    [by_hand] { return by_hand->sum == by_hand->wanted; },
                    [by_hand] {
                        fill(by_hand->pipe);
                        by_hand->wanted += kEvents;
                    }};
    });
}

using Time = std::chrono::nanoseconds;
using Timed = std::pair<Time, std::uint32_t>;

/// Times of blocks in a random order, always the same one.
std::vector<Timed> make_times(std::size_t count)
{
    std::vector<std::uint32_t> blocks(count);
    std::iota(blocks.begin(), blocks.end(), 0);
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937(1));
    std::vector<Timed> times;
    times.reserve(count);
    for (const std::uint32_t block : blocks) {
        times.emplace_back(Time(7 * times.size() % count), block);
    }
    return times;
}

/// Each block wants to run once, and does.
void add_run_at(std::size_t count)
{
    const std::string name = "run_at/" + std::to_string(count);
    const auto add = [&](const std::string& side, auto make_heap, auto run) {
        add_time(name + side, count, [=] {
            auto heap = make_heap(count);
            auto last = std::make_shared<Time>();
            auto times = std::make_shared<std::vector<Timed>>(make_times(count));
            return Side{
                [=] { *last = run(*heap, *times); },
                [=] { return *last == std::max_element(times->begin(), times->end())->first; }};
        });
    };
    using Timers = Quorval::runtime::Timers;
    add(
        "/quorval", [](std::size_t size) { return std::make_shared<Timers>(size); },
        [](Timers& timers, const std::vector<Timed>& times) {
            for (const auto& [time, block] : times) {
                timers.set(block, time);
            }
            Time last{};
            while (!timers.is_empty()) {
                last = timers.earliest();
                timers.take_earliest();
            }
            return last;
        });
    using Queue = std::priority_queue<Timed, std::vector<Timed>, std::greater<>>;
    add(
        "/queue", [](std::size_t /*size*/) { return std::make_shared<Queue>(); },
        [](Queue& queue, const std::vector<Timed>& times) {
            for (const Timed& time : times) {
                queue.push(time);
            }
            Time last{};
            while (!queue.empty()) {
                last = queue.top().first;
                queue.pop();
            }
            return last;
        });
}

const bool is_registered = [] {
    add_event_to_run();
    for (const std::size_t count : {100, 10'000}) {
        add_run_at(count);
    }
    return true;
}();

}  // namespace

}  // namespace quorval_bench
