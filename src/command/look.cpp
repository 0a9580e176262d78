#include "look.h"

#include <quorval/runtime/messages.h>
#include "look_child.h"
#include "signal_name.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <iostream>
#include <optional>
#include <system_error>
#include <utility>

namespace {

using nlohmann::json;
using Quorval::PluginFile;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kPieceSize = 65536;
/// So often it is looked whether the process has ended; more often once it tells nothing more.
constexpr std::chrono::milliseconds kStep(100);
constexpr std::chrono::milliseconds kStepAtTheEnd(5);

int check(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

/// A process that tells in lines.
class Teller {
public:
    using Work = std::function<void(const Tell&)>;

    explicit Teller(const Work& work)
    {
        std::array<int, 2> ends{};
        check(::pipe2(ends.data(), O_CLOEXEC), "pipe2");
        reader_ = ends[0];
        ::fcntl(reader_, F_SETFL, O_NONBLOCK);
        static_cast<void>(std::fflush(nullptr));
        const pid_t parent = ::getpid();
        // Behind what has to come before it.
        // NOLINTNEXTLINE(cppcoreguidelines-prefer-member-initializer)
        child_ = ::fork();
        if (child_ == 0) {
            be_child(work, ends[1], parent);
        }
        const int error = errno;
        ::close(ends[1]);
        if (child_ < 0) {
            ::close(reader_);
            throw std::system_error(error, std::generic_category(), "fork");
        }
    }
    Teller(const Teller&) = delete;
    Teller& operator=(const Teller&) = delete;
    ~Teller()
    {
        if (!has_ended_) {
            ::kill(child_, SIGKILL);
            while (::waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {}
        }
        ::close(reader_);
    }

    /// The next line.
    /// @return nothing when the process has ended, or the time is up
    std::optional<std::string> next(Clock::time_point deadline)
    {
        while (true) {
            const bool has_ended = reap();
            read_what_is_there();
            const std::size_t end = text_.find('\n');
            if (end != std::string::npos) {
                std::string line = text_.substr(0, end);
                text_.erase(0, end + 1);
                return line;
            }
            if (has_ended || Clock::now() >= deadline) {
                return std::nullopt;
            }
            wait(deadline);
        }
    }

    /// "crashed<when>: signal 11 (SIGSEGV)", or what else was its end.
    std::string describe_end(const std::string& when) const
    {
        if (!WIFSIGNALED(state_)) {
            return "called exit" + when;
        }
        return "crashed" + when + ": " + describe_signal(WTERMSIG(state_));
    }
    bool has_ended() const { return has_ended_; }

private:
    [[noreturn]] static void be_child(const Work& work, int writer, pid_t parent)
    {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(1);
        }
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
            static_cast<void>(std::signal(signal, SIG_DFL));
        }
        const Quorval::Messages messages;
        work([writer](const json& line) { write_line(writer, line); });
        std::cout.flush();
        static_cast<void>(std::fflush(nullptr));
        ::_exit(0);
    }

    static void write_line(int fd, const json& line)
    {
        const std::string text = line.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
            if (count < 0 && errno != EINTR) {
                return;
            }
            done += count < 0 ? 0 : static_cast<std::size_t>(count);
        }
    }

    bool reap()
    {
        has_ended_ = has_ended_ || ::waitpid(child_, &state_, WNOHANG) == child_;
        return has_ended_;
    }

    void read_what_is_there()
    {
        std::array<char, kPieceSize> buffer{};
        ssize_t count = 0;
        while ((count = ::read(reader_, buffer.data(), buffer.size())) > 0) {
            text_.append(buffer.data(), static_cast<std::size_t>(count));
        }
        is_open_ = count < 0;
    }

    /// A pipe that a process of the plug-in's own keeps open says nothing about the end of this
    /// one.
    void wait(Clock::time_point deadline) const
    {
        using std::chrono::milliseconds;
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
        const milliseconds step = is_open_ ? kStep : kStepAtTheEnd;
        pollfd stream{is_open_ ? reader_ : -1, POLLIN, 0};
        ::poll(&stream, 1,
               static_cast<int>(std::max(milliseconds(0), std::min(left, step)).count()));
    }

    pid_t child_ = -1;
    int reader_ = -1;
    bool is_open_ = true;
    std::string text_;
    int state_ = 0;  // of the end
    bool has_ended_ = false;
};

json parse(const std::string& line)
{
    json record = json::parse(line, nullptr, false);
    return record.is_object() ? record : json::object();
}

json to_json(const Quorval::PluginNote& note)
{
    return {{"interface", note.interface},
            {"standard_library", note.standard_library},
            {"compiler", note.compiler},
            {"version", note.version}};
}

std::string names_in(const json& types)
{
    std::string list;
    for (const json& type : types) {
        list += (list.empty() ? "" : ", ") + type["type"].get<std::string>();
    }
    return list.empty() ? "none" : list;
}

/// Goes on in another process behind each type whose code ended one.
class Looker {
public:
    Looker(const PluginFile& file, const LookOptions& options)
        : file_(file), options_(options), deadline_(Clock::now() + options.limit)
    {
    }

    Look look()
    {
        json& plugin = look_.plugin;
        plugin = {{"name", file_.name}};
        if (!file_.file.empty()) {
            plugin["file"] = file_.file;
            if (const auto note = Quorval::read_plugin_note(file_.file)) {
                plugin["note"] = to_json(*note);
            }
        }
        while (!is_done_) {
            look_once();
        }
        choose_type();
        return std::move(look_);
    }

private:
    void look_once()
    {
        Teller teller([this](const Tell& tell) { tell_about(file_, options_, next_, tell); });
        const auto first = teller.next(deadline_);
        const json record = parse(first.value_or(""));
        if (record.contains("types")) {
            look_at_types(teller, record["types"]);
        } else if (record.contains("problem")) {
            give_up(record["problem"]);
        } else {
            give_up("plug-in '" + file_.name + "' " +
                    end_of(teller, " while it was loaded", "loaded"));
        }
        while (teller.next(deadline_)) {}  // its output is whole then
    }

    void look_at_types(Teller& teller, const json& types)
    {
        json& known = look_.plugin["types"];
        if (known.is_null()) {
            known = types;
        }
        for (; options_.makes_blocks && next_ < known.size(); ++next_) {
            const auto line = teller.next(deadline_);
            if (!line) {
                end_at_type(teller, known);
                return;
            }
            known[next_].update(parse(*line));
        }
        is_done_ = true;
    }

    /// When the time is up, that holds for the types behind this one too.
    void end_at_type(const Teller& teller, json& types)
    {
        look_.is_usable = false;
        const std::size_t end = teller.has_ended() ? next_ + 1 : types.size();
        for (; next_ < end; ++next_) {
            json& type = types[next_];
            type["problem"] = "block '" + type["type"].get<std::string>() + "' " +
                              end_of(teller, " in create", "created");
        }
        is_done_ = next_ == types.size();
    }

    std::string end_of(const Teller& teller, const std::string& when, const std::string& deed) const
    {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(options_.limit);
        return teller.has_ended()
                   ? teller.describe_end(when)
                   : "was not " + deed + " within " + std::to_string(seconds.count()) + " seconds";
    }

    void give_up(const std::string& problem)
    {
        look_.plugin["problem"] = problem;
        look_.is_usable = false;
        is_done_ = true;
    }

    /// Leaves the type that was asked for.
    void choose_type()
    {
        json& types = look_.plugin["types"];
        if (types.is_null()) {
            look_.plugin.erase("types");
        } else if (!options_.type.empty()) {
            json chosen = json::array();
            std::copy_if(types.begin(), types.end(), std::back_inserter(chosen),
                         [&](const json& type) { return type["type"] == options_.type; });
            if (chosen.empty()) {
                give_up("plug-in '" + file_.name + "' has no block type '" + options_.type +
                        "'; it has " + names_in(types));
            }
            types = std::move(chosen);
        }
    }

    const PluginFile& file_;
    const LookOptions& options_;
    Clock::time_point deadline_;
    Look look_;
    std::size_t next_ = 0;  // of the types
    bool is_done_ = false;
};

}  // namespace

Look look_at(const PluginFile& file, const LookOptions& options)
{
    return Looker(file, options).look();
}
