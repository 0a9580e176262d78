// Two machines of a graph exchange values over a broker that is stopped and started again, and each
// of them is looked at whether anything grows.
//
//     link_soak [DIVISOR]
//
// restarts the broker 1,000 times, or a DIVISOR-th of it: every second time it is killed.
#include "runtime/link/broker.h"
#include "soak/holdings.h"
#include "support/process.h"
#include "support/support.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using quorval_test::Process;

/// A pipe whose ends programs inherit, but for the one that stays here.
class Pipe {
public:
    explicit Pipe(int own) : own_(own)
    {
        if (::pipe(ends_.data()) != 0 ||
            ::fcntl(ends_.at(static_cast<std::size_t>(own)), F_SETFD, FD_CLOEXEC) != 0) {
            throw std::runtime_error("there is no pipe");
        }
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }

    int own() const { return ends_.at(static_cast<std::size_t>(own_)); }
    int other() const { return ends_.at(static_cast<std::size_t>(1 - own_)); }

    /// Its user has it.
    void close_other()
    {
        ::close(other());
        ends_.at(static_cast<std::size_t>(1 - own_)) = -1;
    }

private:
    int own_;
    std::array<int, 2> ends_{};
};

/// Both machines, and the broker between them.
class Machines {
public:
    using Clock = std::chrono::steady_clock;

    Machines()
        : broker_(directory_.path()), edge_(command("edge", {})), hub_(command("hub", ends()))
    {
        orders_.close_other();
        answers_.close_other();
        for (Process* const machine : {&edge_, &hub_}) {
            expect(machine->wait_for("stands\n"), "a machine does not find the broker");
        }
    }

    std::vector<pid_t> processes() const { return {edge_.id(), hub_.id()}; }

    /// Ends the broker while values are on their way, and has more wait for it than there is room
    /// for. When it is back, values go to and fro for twice as long as it was away: after a shorter
    /// time the pauses of the links would grow each time.
    void restart_broker(bool kills)
    {
        order(kBurst);
        const auto begin = Clock::now();
        kills ? broker_.kill() : broker_.stop();
        order(kBurst);
        broker_.restart();
        for (Process* const machine : {&edge_, &hub_}) {
            expect(machine->wait_for_next(" is back\n"), "a machine does not come back");
        }
        const auto end = Clock::now();
        do {
            exchange();
        } while (Clock::now() - end < 2 * (end - begin));
    }

    void stop()
    {
        for (Process* const machine : {&edge_, &hub_}) {
            machine->send(SIGTERM);
            const quorval_test::ProcessResult result = machine->wait();
            if (result.status != 0) {
                throw std::runtime_error("a machine has failed:\n" + result.err);
            }
        }
    }

private:
    static constexpr std::int64_t kBurst = 200;

    /// @throws std::runtime_error  it is not so; with what the machines have said
    void expect(bool is_so, std::string otherwise)
    {
        if (is_so) {
            return;
        }
        for (Process* const machine : {&edge_, &hub_}) {
            machine->send(SIGTERM);
            otherwise += "\n" + machine->wait().err;
        }
        throw std::runtime_error(otherwise);
    }

    /// Of the pipes, for the edge.
    std::vector<int> ends() const { return {orders_.other(), answers_.other()}; }

    quorval_test::ProcessOptions command(const std::string& machine, const std::vector<int>& closed)
    {
        const std::string file = directory_.path() / "g.toml";
        quorval_test::write_file(file, graph());
        quorval_test::ProcessOptions options;
        options.command = {QUORVAL_COMMAND,         "run",       "-v",    "--plugin-path",
                           QUORVAL_SOAK_PLUGIN_DIR, "--machine", machine, file};
        options.closed = closed;
        return options;
    }

    std::string graph() const
    {
        return "format = 1\nmachines = { edge = {}, hub = {} }\nconnections = [\n"
               "    { from = 'ask.all_out', to = 'all.in', delivery = 'all' },\n"
               "    { from = 'all.out', to = 'ask.all_in', delivery = 'all' },\n"
               "    'ask.latest_out -> latest.in',\n"
               "    'latest.out -> ask.latest_in',\n]\n" +
               broker_.link() + "link.queue = " + std::to_string(kBurst / 2) +
               "\n[blocks]\n"
               "all = { type = 'link_soak_plugin:Echo', machine = 'hub' }\n"
               "latest = { type = 'link_soak_plugin:Echo', machine = 'hub' }\n"
               "ask = { type = 'link_soak_plugin:Ask', machine = 'edge', config = { orders = " +
               std::to_string(orders_.other()) + ", answers = " + std::to_string(answers_.other()) +
               " } }\n";
    }

    /// Has so many more values given.
    void order(std::int64_t count)
    {
        last_ += count;
        expect(::write(orders_.own(), &last_, sizeof last_) == sizeof last_, "nobody takes orders");
    }

    /// Has a value go to the other machine and back in both ways.
    void exchange()
    {
        constexpr int kPatience = 100'000;  // ms
        order(1);
        for (std::int64_t answer = 0; answer != last_;) {
            pollfd one{answers_.own(), POLLIN, 0};
            expect(::poll(&one, 1, kPatience) == 1 &&
                       ::read(one.fd, &answer, sizeof answer) == sizeof answer,
                   "values do not arrive any more");
        }
    }

    quorval_test::TemporaryDirectory directory_;
    quorval_test::Broker broker_;
    Pipe orders_{1};
    Pipe answers_{0};
    std::int64_t last_ = 0;
    Process edge_;
    Process hub_;
};

bool is_flat(long divisor)
{
    Machines machines;
    const bool is_flat = run_flat(
        "restarts", 1'000 / divisor, [&](long number) { machines.restart_broker(number % 2 == 0); },
        machines.processes());
    machines.stop();
    return is_flat;
}

}  // namespace

int main(int argc, char** argv)
{
    // A machine that has ended takes no orders; that is told below.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const long divisor = read_divisor(argc, argv);
        return divisor == 0 ? 2 : tell_result(is_flat(divisor));
    } catch (const std::exception& error) {
        std::cerr << "link_soak: " << error.what() << '\n';
        return 1;
    }
}
