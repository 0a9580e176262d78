// Values from a process to another one: two parts of a graph over a broker, against clients of the
// same broker by hand, and against a library that needs none.

#include "broker.h"
#include "harness.h"
#include "numbered_values.h"
#include "processes.h"

#include <mosquitto.h>

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#ifdef QUORVAL_BENCH_HAS_ZEROMQ
#include <zmq.hpp>
#endif

namespace quorval_bench {

namespace {

constexpr double kWantedSeconds = 1e-4;  // of a processor, for a value of 1 KiB

/// What is sent.
struct Flow {
    std::size_t size = 0;   ///< bytes of a value
    bool keeps_all = true;  ///< else the latest value counts
    std::size_t burst = 1;  ///< values that are given at once
};

/// What the two ends of a flow are made with.
struct Ends {
    Flow flow;
    int orders = -1;    ///< a number comes: values up to it are to be given
    int arrivals = -1;  ///< for Arrivals
    std::string name;   ///< of no other flow
};

/// Who moves the values: two children, and what lies between them.
struct Carrier {
    std::function<void(const Ends&)> give;  ///< never returns
    std::function<void(const Ends&)> take;  ///< likewise
    bool needs_broker = true;
};

/// One for all sides and repetitions.
Broker& broker()
{
    static Broker one;
    return one;
}

std::vector<clockid_t>& clocks_of_children()
{
    static std::vector<clockid_t> clocks;
    return clocks;
}

/// That the processes of the present flow had a processor, the broker included.
double processor_seconds()
{
    constexpr double kNano = 1e-9;
    double seconds = 0;
    for (const clockid_t clock : clocks_of_children()) {
        timespec now{};
        ::clock_gettime(clock, &now);
        seconds += static_cast<double>(now.tv_sec) + kNano * static_cast<double>(now.tv_nsec);
    }
    return seconds;
}

void watch_clock(pid_t process)
{
    clockid_t clock{};
    if (::clock_getcpuclockid(process, &clock) != 0) {
        throw std::runtime_error("a process has no clock");
    }
    clocks_of_children().push_back(clock);
}

std::string next_name()
{
    static int last = 0;
    return "flow" + std::to_string(++last);
}

/// A flow whose ends are connected.
class Exchange {
public:
    Exchange(const Flow& flow, const Carrier& carrier)
        : ends_{flow, orders_.read_end(), arrivals_.write_end(), next_name()},
          taker_([&] { carrier.take(ends_); }),
          giver_([&] { carrier.give(ends_); })
    {
        clocks_of_children().clear();
        watch_clock(taker_.id());
        watch_clock(giver_.id());
        if (carrier.needs_broker) {
            watch_clock(broker().process());
        }
        connect();
    }

    /// Has a burst given, and waits for its last value.
    void run()
    {
        order();
        is_right_ = wait(kPatience) && is_right_;
    }

    bool is_right() const { return is_right_; }

private:
    static constexpr int kPatience = 60'000;  // ms
    static constexpr int kSoon = 200;         // ms

    /// What is given before the taker is there may be lost.
    void connect()
    {
        for (int patience = kSoon; patience < kPatience; patience *= 2) {
            order();
            if (wait(patience)) {
                is_right_ = true;
                return;
            }
        }
        throw std::runtime_error("the ends do not find each other");
    }

    void order()
    {
        last_ += ends_.flow.burst;
        if (::write(orders_.write_end(), &last_, sizeof last_) != sizeof last_) {
            throw std::runtime_error("no values can be ordered");
        }
    }

    /// @return whether the last value ordered came in time, and all of its burst before it
    bool wait(int milliseconds)
    {
        Arrival arrival;
        while (arrival.number != last_) {
            pollfd answer{arrivals_.read_end(), POLLIN, 0};
            if (::poll(&answer, 1, milliseconds) != 1 ||
                ::read(answer.fd, &arrival, sizeof arrival) != sizeof arrival ||
                arrival.number == 0) {
                return false;
            }
        }
        return !ends_.flow.keeps_all || arrival.arrived == ends_.flow.burst;
    }

    Pipe orders_;
    Pipe arrivals_;
    Ends ends_;
    std::uint64_t last_ = 0;
    bool is_right_ = false;
    Child taker_;
    Child giver_;
};

/// Gives what is ordered, by a function that returns when the values are on their way.
template <class Send>
[[noreturn]] void follow_orders(const Ends& ends, Send send)
{
    NumberedValues values(ends.flow.size);
    std::uint64_t number = 0;
    for (std::uint64_t last = 0; ::read(ends.orders, &last, sizeof last) == sizeof last;) {
        send(last - number, [&]() -> const std::string& { return values.make(++number); });
    }
    ::_exit(0);
}

// --- the library ---

/// A file of its own for each of the machines, which write theirs at the same time.
std::string write_graph(const Ends& ends, const std::string& machine)
{
    const std::string size = " config.size = " + std::to_string(ends.flow.size);
    const std::string path = scratch_directory() + ends.name + machine + ".toml";
    std::ofstream(path) << "format = 1\nname = \"" << ends.name
                        << "\"\nconnections = [{ from = \"give.out\", to = \"take.in\", "
                           "delivery = \""
                        << (ends.flow.keeps_all ? "all" : "latest")
                        << "\" }]\n[machines.edge]\n[machines.hub]\n"
                           "[link]\nbroker = \"mqtt://127.0.0.1:"
                        << broker().port()
                        << "\"\n[blocks]\n"
                           "give = { type = \"bench-chain:Give\", machine = \"edge\", config.fd = "
                        << ends.orders << "," << size
                        << " }\n"
                           "take = { type = \"bench-chain:Take\", machine = \"hub\", config.fd = "
                        << ends.arrivals << "," << size << ", config.burst = " << ends.flow.burst
                        << " }\n";
    return path;
}

void run_machine(const Ends& ends, const char* machine)
{
    const std::string file = write_graph(ends, machine);
    ::execl(QUORVAL_BENCH_COMMAND, "quorval", "run", "--plugin-path", QUORVAL_BENCH_PLUGIN_DIR,
            "--machine", machine, file.c_str(), nullptr);
}

// --- libmosquitto by hand ---

struct FreeClient {
    void operator()(mosquitto* client) const { ::mosquitto_destroy(client); }
};
using Client = std::unique_ptr<mosquitto, FreeClient>;

void check(int result)
{
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(::mosquitto_strerror(result));
    }
}

/// With a session that the broker keeps.
Client connect_by_hand(const std::string& name, void* context)
{
    constexpr int kKeepAlive = 30;
    ::mosquitto_lib_init();
    Client client(::mosquitto_new(name.c_str(), false, context));
    check(::mosquitto_int_option(client.get(), MOSQ_OPT_TCP_NODELAY, 1));
    check(::mosquitto_connect(client.get(), "127.0.0.1", broker().port(), kKeepAlive));
    return client;
}

/// As many messages without a receipt as a client has on the way by default.
void give_by_hand(const Ends& ends)
{
    constexpr std::size_t kMostOnTheWay = 20;
    std::size_t published = 0;
    const Client client = connect_by_hand(ends.name + "-give", &published);
    ::mosquitto_publish_callback_set(client.get(),
                                     [](mosquitto* /*client*/, void* count, int /*message*/) {
                                         ++*static_cast<std::size_t*>(count);
                                     });
    follow_orders(ends, [&](std::size_t count, const auto& make_next) {
        published = 0;
        for (std::size_t given = 0; published < count;) {
            while (given < count && given - published < kMostOnTheWay) {
                ++given;
                const std::string& value = make_next();
                check(::mosquitto_publish(client.get(), nullptr, ends.name.c_str(),
                                          static_cast<int>(value.size()), value.data(),
                                          ends.flow.keeps_all ? 1 : 0, !ends.flow.keeps_all));
            }
            if (published < count) {
                check(::mosquitto_loop(client.get(), -1, 1));
            }
        }
    });
}

void take_by_hand(const Ends& ends)
{
    Arrivals arrivals(ends.arrivals, ends.flow.size, ends.flow.burst);
    const Client client = connect_by_hand(ends.name + "-take", &arrivals);
    ::mosquitto_message_callback_set(
        client.get(), [](mosquitto* /*client*/, void* taker, const mosquitto_message* message) {
            static_cast<Arrivals*>(taker)->take({static_cast<const char*>(message->payload),
                                                 static_cast<std::size_t>(message->payloadlen)});
        });
    check(::mosquitto_subscribe(client.get(), nullptr, ends.name.c_str(),
                                ends.flow.keeps_all ? 1 : 0));
    check(::mosquitto_loop_forever(client.get(), -1, 1));
}

// --- ZeroMQ ---

#ifdef QUORVAL_BENCH_HAS_ZEROMQ

/// Hands on all values: with its option for the last one alone, that one may get lost.
class ZeroMq {
public:
    void give(const Ends& ends) const
    {
        zmq::context_t context;
        zmq::socket_t socket(context, zmq::socket_type::push);
        socket.connect(address_);
        follow_orders(ends, [&](std::size_t count, const auto& make_next) {
            for (; count > 0; --count) {
                socket.send(zmq::buffer(make_next()), zmq::send_flags::none);
            }
        });
    }

    void take(const Ends& ends) const
    {
        zmq::context_t context;
        zmq::socket_t socket(context, zmq::socket_type::pull);
        socket.bind(address_);
        Arrivals arrivals(ends.arrivals, ends.flow.size, ends.flow.burst);
        for (zmq::message_t message; socket.recv(message, zmq::recv_flags::none);) {
            arrivals.take({static_cast<const char*>(message.data()), message.size()});
        }
    }

private:
    std::string address_ = "tcp://127.0.0.1:" + std::to_string(find_port());
};

#endif

// --- the cases ---

void add(const std::string& name, const Flow& flow, const std::function<Carrier()>& make,
         std::size_t operations, double (*seconds)())
{
    constexpr std::size_t kRuns = 3;
    const std::size_t bursts = operations / flow.burst;
    add_time(
        name, operations,
        [=] {
            const Carrier carrier = make();
            if (carrier.needs_broker) {
                broker();
            }
            auto exchange = std::make_shared<Exchange>(flow, carrier);
            return Side{[=] {
                            for (std::size_t count = 0; count < bursts; ++count) {
                                exchange->run();
                            }
                        },
                        [=] { return exchange->is_right(); }, [] {}, seconds};
        },
        kRuns);
}

/// All sides of a case.
/// @param operations  values in a run
void add_flow(const std::string& name, const Flow& flow, std::size_t operations,
              double (*seconds)())
{
    const auto make_graphs = [] {
        return Carrier{[](const Ends& ends) { run_machine(ends, "edge"); },
                       [](const Ends& ends) { run_machine(ends, "hub"); }};
    };
    add(name + "/quorval", flow, make_graphs, operations, seconds);
    const auto make_clients = [] { return Carrier{give_by_hand, take_by_hand}; };
    add(name + "/by_hand", flow, make_clients, operations, seconds);
#ifdef QUORVAL_BENCH_HAS_ZEROMQ
    const auto make_sockets = [] {
        const ZeroMq sockets;
        return Carrier{[sockets](const Ends& ends) { sockets.give(ends); },
                       [sockets](const Ends& ends) { sockets.take(ends); }, false};
    };
    add(name + "/zeromq", flow, make_sockets, operations, seconds);
#endif
}

void add_flows(const std::string& delivery, bool keeps_all)
{
    constexpr std::size_t kSingles = 50;
    for (const std::size_t size : {64, 1'024, 65'536}) {
        const std::string end = delivery + "/" + std::to_string(size);
        const std::size_t burst = size > 10'000 ? 200 : 2'000;
        add_flow("link_" + end, {size, keeps_all, burst}, burst, wall_seconds);
        add_flow("link_single_" + end, {size, keeps_all, 1}, kSingles, wall_seconds);
    }
}

const bool is_registered = [] {
    constexpr std::size_t kSize = 1'024;
    constexpr std::size_t kBurst = 2'000;
    add_flows("all", true);
    add_flows("latest", false);
    add_flow("link_work/" + std::to_string(kSize), {kSize, true, kBurst}, kBurst,
             processor_seconds);
    add_known_seconds("link_work/" + std::to_string(kSize) + "/goal", kWantedSeconds);
    return true;
}();

}  // namespace

}  // namespace quorval_bench
