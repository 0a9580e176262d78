// quorval top: what the blocks of a running graph do.
#include <quorval/runtime/remote.h>
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "remote_line.h"
#include "screen.h"
#include "statistics.h"
#include "text.h"
#include "top_table.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Quorval::BlockStatistics;
using Quorval::LinkStatistics;
using Quorval::RemoteError;
using Quorval::RemoteGraph;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr Clock::duration kPeriod = 1s;

HelpText help_of_top()
{
    return {
        "quorval top [OPTION...] NAME",
        "Shows the blocks of a running graph by the time that they take, and what goes over its "
        "links, once a second, until \"q\" is typed or the graph has gone. Times are taken from "
        "the first look at the graph on. Where standard input or output is no terminal, the tables "
        "of blocks and links are printed once, as with --once.",
        "Exit status:\n"
        "  0  done, or the graph has gone\n"
        "  1  there is no such graph, or it refuses\n"
        "  2  wrong use of the command line\n"
        "\n"
        "Example:\n"
        "  quorval top loudness"};
}

std::string to_tables(RemoteGraph& graph)
{
    std::vector<BlockStatistics> sorted;
    for (TopRow& row : to_rows({}, graph.statistics())) {
        sorted.push_back(std::move(row.block));
    }
    const std::vector<LinkStatistics> links = graph.link_statistics();
    return to_table(sorted) + (links.empty() ? "" : to_link_table(links));
}

/// A descriptor of its own.
class OwnedFd {
public:
    explicit OwnedFd(int fd) : fd_(fd)
    {
        if (fd < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot make a descriptor");
        }
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() { ::close(fd_); }

    int get() const { return fd_; }

private:
    int fd_;
};

/// Has the signals that end or change the display come as something to read.
int take_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) {
        sigaddset(&signals, signal);
    }
    static_cast<void>(::pthread_sigmask(SIG_BLOCK, &signals, nullptr));
    return ::signalfd(-1, &signals, SFD_CLOEXEC);
}

struct Answer {
    std::uint64_t waves = 0;
    std::vector<BlockStatistics> blocks;
    std::vector<LinkStatistics> links;
    Clock::time_point time;
};

/// Asks a graph in a thread, so that neither one that does not answer nor its bus holds anything
/// up. The thread keeps what it needs, because nobody waits for it at the end.
class Asker {
public:
    using Find = std::function<std::unique_ptr<RemoteGraph>()>;

    /// @param find  looks for the graph; called here, and later in the thread
    explicit Asker(Find find) : shared_(std::make_shared<Shared>(std::move(find))) {}

    /// Readable when there is an answer.
    int fd() const { return shared_->wake.get(); }
    bool is_asking() const { return answer_.valid(); }

    void ask()
    {
        std::promise<std::optional<Answer>> promise;
        answer_ = promise.get_future();
        std::thread([shared = shared_, promise = std::move(promise)]() mutable {
            try {
                promise.set_value(shared->ask());
            } catch (...) {
                promise.set_exception(std::current_exception());
            }
            static_cast<void>(::eventfd_write(shared->wake.get(), 1));
        }).detach();
    }

    /// @return none: the graph is there, and did not answer
    /// @throws RemoteError  it never answered, or has gone
    std::optional<Answer> take()
    {
        eventfd_t count = 0;
        static_cast<void>(::eventfd_read(fd(), &count));
        return answer_.get();
    }

private:
    struct Shared {
        Find find;
        std::unique_ptr<RemoteGraph> graph;
        OwnedFd wake;
        bool has_answered = false;

        explicit Shared(Find given)
            : find(std::move(given)), graph(find()), wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
        {
        }

        std::optional<Answer> ask()
        {
            try {
                const std::uint64_t waves = graph->waves();
                Answer answer = {waves, graph->statistics(), graph->link_statistics(),
                                 Clock::now()};
                has_answered = true;
                return answer;
            } catch (const RemoteError&) {
                if (!has_answered) {
                    throw;
                }
            }
            graph = find();  // it may be busy, have gone, or have come back
            return std::nullopt;
        }
    };

    std::shared_ptr<Shared> shared_;
    std::future<std::optional<Answer>> answer_;
};

/// The display, from its first look at the graph to its end.
class Top {
public:
    /// @throws RemoteError  there is no such graph
    Top(const RemoteLine& remote, const std::vector<std::string>& arguments)
        : name_(to_printable(arguments.empty() ? "" : arguments.front())),
          asker_([remote, arguments] { return remote.find_graph(arguments); }),
          signals_(take_signals())
    {
    }

    /// @return whether the graph was there to the end
    bool run()
    {
        Screen screen;
        ask();
        while (is_going_on_) {
            std::array<pollfd, 3> waited = {
                {{STDIN_FILENO, POLLIN, 0}, {signals_.get(), POLLIN, 0}, {asker_.fd(), POLLIN, 0}}};
            static_cast<void>(::poll(waited.data(), waited.size(), milliseconds_left()));
            if (waited[0].revents != 0) {
                read_key();
            }
            if (waited[1].revents != 0) {
                take_signal(screen);
            }
            if (waited[2].revents != 0) {
                take_answer();
            }
            if (Clock::now() >= next_) {
                ask();
            }
            if (is_going_on_) {
                Screen::draw(picture());
            }
        }
        return is_there_;
    }

private:
    int milliseconds_left() const
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_ - Clock::now());
        return static_cast<int>(std::max<std::int64_t>(0, left.count()));
    }

    void ask()
    {
        if (!asker_.is_asking()) {
            asker_.ask();
        }
        next_ = Clock::now() + kPeriod;
    }

    void read_key()
    {
        constexpr char kEndOfInput = 4;
        char key = 0;
        const ssize_t count = ::read(STDIN_FILENO, &key, 1);
        is_going_on_ = is_going_on_ && count == 1 && key != 'q' && key != kEndOfInput;
    }

    void take_signal(Screen& screen)
    {
        signalfd_siginfo info{};
        if (::read(signals_.get(), &info, sizeof info) != sizeof info) {
            return;
        }
        if (info.ssi_signo == SIGTSTP) {
            screen.suspend();
        } else if (info.ssi_signo != SIGWINCH) {
            is_going_on_ = false;
        }
    }

    void take_answer()
    {
        try {
            std::optional<Answer> answer = asker_.take();
            if (answer) {
                show(*std::move(answer));
            }
        } catch (const RemoteError&) {
            if (!answer_) {
                throw;
            }
            is_there_ = is_going_on_ = false;
        }
    }

    void show(Answer answer)
    {
        rows_ = to_rows(answer_ ? answer_->blocks : std::vector<BlockStatistics>(), answer.blocks);
        interval_ = answer_ ? answer.time - answer_->time : Clock::duration::zero();
        answer_ = std::move(answer);
    }

    std::vector<std::string> picture() const
    {
        const Screen::Size size = Screen::size();
        return draw_top(name_ + ": " + title(), rows_,
                        answer_ ? answer_->links : std::vector<LinkStatistics>(), interval_,
                        {size.width, size.height, has_output_colours(), has_unicode()});
    }

    std::string title() const
    {
        if (!answer_) {
            return "waiting for its answer";
        }
        const auto silence = std::chrono::floor<std::chrono::seconds>(Clock::now() - answer_->time);
        return std::to_string(rows_.size()) + " blocks, " + std::to_string(answer_->waves) +
               " waves" +
               (silence > kPeriod ? ", no answer for " + std::to_string(silence.count()) + " s"
                                  : "");
    }

    const std::string name_;
    Asker asker_;
    OwnedFd signals_;               // behind the search for the graph, which a signal ends as usual
    std::optional<Answer> answer_;  // the last one
    std::vector<TopRow> rows_;
    Clock::duration interval_{};
    Clock::time_point next_;
    bool is_going_on_ = true;
    bool is_there_ = true;
};

}  // namespace

int top_command(const Arguments& arguments)
{
    CommandLine line(help_of_top());
    const RemoteLine remote(line);
    bool is_once = false;
    line.add_flag("--once", is_once, "print the tables of blocks and links, and end");
    const auto rest = line.read(arguments);
    if (!rest.has_value()) {
        return kDone;
    }
    refuse_more_than(1, *rest);
    if (is_once || !has_screen()) {
        write_output(to_tables(*remote.find_graph(*rest)));
    } else if (!Top(remote, *rest).run()) {
        say("graph '" + rest->front() + "' has gone");
    }
    return kDone;
}
