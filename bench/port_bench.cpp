// What an application does with ports in each turn of its loop, and a message that nobody reads.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#ifdef QUORVAL_BENCH_HAS_GLIB
#include <glib.h>
#endif

#include <quorval/block.h>
#include <quorval/log.h>
#include <quorval/port.h>
#include "harness.h"
#include "workload.h"

namespace quorval_bench {

namespace {

using Quorval::Block;
using Quorval::Datatype;
using Quorval::InPort;
using Quorval::InPortInternal;
using Quorval::OutPort;
using Quorval::OutPortInternal;

constexpr std::size_t kPorts = 64;
constexpr std::size_t kRounds = 200;

/// A port as one would write it for one program.
struct PlainPort {
    void* data = nullptr;
    bool is_triggered = false;
    bool auto_reset = true;

    void update(const PlainPort& source)
    {
        is_triggered = is_triggered || source.is_triggered;
        data = source.data;
    }
    void reset(bool force)
    {
        if (force || auto_reset) {
            is_triggered = false;
        }
    }
};

template <class Link>
void transfer(std::vector<Link>& links)
{
    for (std::size_t round = 0; round < kRounds; ++round) {
        for (Link& link : links) {
            link.to->update(*link.from);
            benchmark::ClobberMemory();
            link.to->reset(false);
            benchmark::ClobberMemory();
        }
    }
}

void add_update_reset()
{
    struct Ours {
        std::unique_ptr<OutPortInternal> from;
        std::unique_ptr<InPortInternal> to;
    };
    add_time("update_reset/quorval", kPorts * kRounds, [] {
        auto links = std::make_shared<std::vector<Ours>>();
        for (std::size_t port = 0; port < kPorts; ++port) {
            auto from = std::make_unique<OutPort<double>>("out", Datatype("double"));
            from->write(1);
            links->push_back(
                {std::move(from), std::make_unique<InPort<double>>("in", Datatype("double"))});
        }
        return Side{[links] { transfer(*links); },
                    [links] {
                        return std::all_of(links->begin(), links->end(), [](const Ours& link) {
                            const bool is_reset = !link.to->is_triggered() &&
                                                  link.to->get_data() == link.from->get_data();
                            link.to->update(*link.from);
                            return is_reset && link.to->is_triggered();
                        });
                    }};
    });

    struct Plain {
        std::unique_ptr<PlainPort> from;
        std::unique_ptr<PlainPort> to;
    };
    add_time("update_reset/by_hand", kPorts * kRounds, [] {
        auto links = std::make_shared<std::vector<Plain>>();
        for (std::size_t port = 0; port < kPorts; ++port) {
            links->push_back({std::make_unique<PlainPort>(), std::make_unique<PlainPort>()});
            links->back().from->is_triggered = true;
            links->back().from->data = links->back().from.get();
        }
        return Side{[links] { transfer(*links); },
                    [links] {
                        return std::all_of(links->begin(), links->end(), [](const Plain& link) {
                            return !link.to->is_triggered && link.to->data == link.from->data;
                        });
                    }};
    });
}

/// What the interface takes by itself: `update`, which asks the source whether it is triggered, and
/// `reset`.
void add_update_reset_calls()
{
    add_time("update_reset/calls", kPorts * kRounds, [] {
        auto calls = std::make_shared<std::vector<std::unique_ptr<Calls>>>();
        for (std::size_t port = 0; port < kPorts; ++port) {
            calls->push_back(make_calls());
        }
        return Side{[calls] {
                        for (std::size_t round = 0; round < kRounds; ++round) {
                            for (const auto& port : *calls) {
                                port->count();
                                benchmark::DoNotOptimize(port->is_over());
                                port->step();
                            }
                        }
                    },
                    [calls] {
                        return std::all_of(calls->begin(), calls->end(),
                                           [](const auto& port) { return port->get() == 0; });
                    }};
    });
}

/// Eight outputs of which none is triggered: all have to be looked at.
void add_has_triggered_port()
{
    constexpr std::size_t kOutPorts = 8;
    constexpr std::size_t kQuestions = 5'000;
    struct Ours {
        Block block{"block"};
        std::vector<OutPort<double>*> ports;
        std::size_t triggered = 0;
    };
    add_time("has_triggered_port/quorval", kQuestions, [] {
        auto state = std::make_shared<Ours>();
        for (std::size_t port = 0; port < kOutPorts; ++port) {
            state->ports.push_back(static_cast<OutPort<double>*>(
                state->block.add_outport(std::make_unique<OutPort<double>>(
                    "out" + std::to_string(port), Datatype("double")))));
        }
        return Side{[state] {
                        for (std::size_t question = 0; question < kQuestions; ++question) {
                            state->triggered += state->block.has_triggered_port() ? 1 : 0;
                        }
                    },
                    [state] {
                        state->ports.back()->trigger();
                        return state->triggered == 0 && state->block.has_triggered_port();
                    }};
    });

    struct Plain {
        std::vector<std::unique_ptr<PlainPort>> ports;
        std::size_t triggered = 0;
    };
    add_time("has_triggered_port/by_hand", kQuestions, [] {
        auto state = std::make_shared<Plain>();
        for (std::size_t port = 0; port < kOutPorts; ++port) {
            state->ports.push_back(std::make_unique<PlainPort>());
        }
        return Side{[state] {
                        for (std::size_t question = 0; question < kQuestions; ++question) {
                            const bool is_triggered =
                                std::any_of(state->ports.begin(), state->ports.end(),
                                            [](const auto& port) { return port->is_triggered; });
                            state->triggered += is_triggered ? 1 : 0;
                            benchmark::ClobberMemory();
                        }
                    },
                    [state] { return state->triggered == 0; }};
    });
}

/// Adds one to what it gets.
class Counter : public Block {
public:
    explicit Counter(const std::string& name) : Block(name)
    {
        add_inport(std::make_unique<InPort<double>>("in", Datatype("double")));
        add_outport(std::make_unique<OutPort<double>>("out", Datatype("double")));
        in = static_cast<InPort<double>*>(&get_inport("in")[0].second);
        out = static_cast<OutPort<double>*>(&get_outport("out").second);
    }

    bool run() override
    {
        out->write(in->value() + 1);
        return true;
    }

    InPort<double>* in;
    OutPort<double>* out;
};

/// The same as one would write it for one program.
struct PlainCounter {
    PlainPort in;
    PlainPort out;
    double value = 0;

    void run()
    {
        value = *static_cast<const double*>(in.data) + 1;
        out.data = &value;
        out.is_triggered = true;
    }
};

/// A chain whose last block feeds the first: each step goes through all of it once.
void add_step_of_a_run()
{
    constexpr std::size_t kBlocks = 64;
    constexpr std::size_t kSteps = 100;
    add_time("step_of_a_run/quorval", kBlocks * kSteps, [] {
        auto blocks = std::make_shared<std::vector<std::unique_ptr<Counter>>>();
        for (std::size_t block = 0; block < kBlocks; ++block) {
            blocks->push_back(std::make_unique<Counter>("counter" + std::to_string(block)));
        }
        return Side{[blocks] {
                        const Counter* before = blocks->back().get();
                        for (std::size_t step = 0; step < kSteps; ++step) {
                            for (const auto& block : *blocks) {
                                block->in->update(*before->out);
                                block->run();
                                block->reset_inports(false);
                                before->out->reset(false);
                                before = block.get();
                            }
                        }
                    },
                    [blocks] {
                        return blocks->back()->out->value() == double{kBlocks * kSteps} &&
                               blocks->back()->has_triggered_port() &&
                               !blocks->front()->has_triggered_port();
                    },
                    [blocks] { blocks->back()->out->write(0); }};
    });
    add_time("step_of_a_run/by_hand", kBlocks * kSteps, [] {
        auto blocks = std::make_shared<std::vector<std::unique_ptr<PlainCounter>>>();
        for (std::size_t block = 0; block < kBlocks; ++block) {
            blocks->push_back(std::make_unique<PlainCounter>());
        }
        return Side{[blocks] {
                        PlainCounter* before = blocks->back().get();
                        for (std::size_t step = 0; step < kSteps; ++step) {
                            for (const auto& block : *blocks) {
                                block->in.update(before->out);
                                block->run();
                                block->in.reset(false);
                                before->out.reset(false);
                                before = block.get();
                                benchmark::ClobberMemory();
                            }
                        }
                    },
                    [blocks] {
                        return blocks->back()->value == double{kBlocks * kSteps} &&
                               blocks->back()->out.is_triggered &&
                               !blocks->front()->out.is_triggered;
                    },
                    [blocks] {
                        PlainCounter& last = *blocks->back();
                        last.value = 0;
                        last.out.data = &last.value;
                        last.out.is_triggered = true;
                    }};
    });
}

/// A descriptor that is closed at the end.
struct EventDescriptor {
    EventDescriptor() : fd(::eventfd(0, 0)) {}
    EventDescriptor(const EventDescriptor&) = delete;
    EventDescriptor& operator=(const EventDescriptor&) = delete;
    ~EventDescriptor() { ::close(fd); }

    int fd;
};

/// Whether the descriptor was fired once since it was drained.
bool is_fired_once(int fd)
{
    std::uint64_t count = 0;
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    return ::read(fd, &count, sizeof count) == sizeof count && count == 1;
}

void add_event_port()
{
    constexpr std::size_t kEvents = 500;
    add_time("event_port/quorval", kEvents, [] {
        auto port = std::make_shared<Quorval::EventPort>("event", true, ::eventfd(0, 0));
        return Side{[port] {
                        for (std::size_t event = 0; event < kEvents; ++event) {
                            port->fire();
                            port->trigger(true, false);  // what the event loop does
                            port->reset(false);
                        }
                    },
                    [port] {
                        port->fire();
                        return !port->is_triggered() && is_fired_once(port->get_fd());
                    }};
    });
    add_time("event_port/system", kEvents, [] {
        auto descriptor = std::make_shared<EventDescriptor>();
        auto sum = std::make_shared<std::uint64_t>(0);
        return Side{[=] {
                        *sum = 0;
                        for (std::size_t event = 0; event < kEvents; ++event) {
                            std::uint64_t count = 1;
                            if (::write(descriptor->fd, &count, sizeof count) < 0 ||
                                ::read(descriptor->fd, &count, sizeof count) < 0) {
                                return;
                            }
                            *sum += count;
                        }
                    },
                    [sum] { return *sum == kEvents; }};
    });
}

class RecordingSink : public Quorval::LogInstance {
public:
    explicit RecordingSink(int& received) : received_(received) {}
    void emit(loglevel /*level*/, const char* /*text*/, int /*length*/) override { ++received_; }

private:
    int& received_;
};

int format_and_free(const char* format, ...) __attribute__((format(printf, 1, 2), noinline));

int format_and_free(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* text = nullptr;
    const int length = ::vasprintf(&text, format, args);
    va_end(args);
    if (length >= 0) {
        std::free(text);
    }
    return length;
}

constexpr const char* kFormat = "Block %s took %d of %d values";

void add_dropped_line()
{
    constexpr int kLines = 1'000;
    add_time("dropped_line/quorval", kLines, [] {
        return Side{[] {
                        for (int line = 0; line < kLines; ++line) {
                            logger(LOGLEVEL_DEBUG, kFormat, "filter", line, kLines);
                        }
                    },
                    [] {
                        // That it was the level that made the line be dropped.
                        int received = 0;
                        auto before = std::move(Quorval::loginstance);
                        Quorval::loginstance = std::make_unique<RecordingSink>(received);
                        logger(LOGLEVEL_DEBUG, kFormat, "filter", 1, kLines);
                        logger(LOGLEVEL_INFO, kFormat, "filter", 1, kLines);
                        Quorval::loginstance = std::move(before);
                        return received == 1;
                    }};
    });
    // The message is formatted before it is known that nobody wants it.
    add_time("dropped_line/system", kLines, [] {
        auto characters = std::make_shared<long>(0);
        return Side{[characters] {
                        *characters = 0;
                        for (int line = 0; line < kLines; ++line) {
                            *characters += format_and_free(kFormat, "filter", line, kLines);
                        }
                    },
                    [characters] { return *characters > 30 * kLines; }};
    });
#ifdef QUORVAL_BENCH_HAS_GLIB
    add_time("dropped_line/glib", kLines, [] {
        return Side{
            [] {
                for (int line = 0; line < kLines; ++line) {
                    g_log("bench", G_LOG_LEVEL_DEBUG, kFormat, "filter", line, kLines);
                }
            },
            [] { return g_log_writer_default_would_drop(G_LOG_LEVEL_DEBUG, "bench") != 0; }};
    });
#endif
}

const bool kAreAdded = [] {
    add_update_reset();
    add_update_reset_calls();
    add_has_triggered_port();
    add_step_of_a_run();
    add_event_port();
    add_dropped_line();
    return true;
}();

}  // namespace

}  // namespace quorval_bench
