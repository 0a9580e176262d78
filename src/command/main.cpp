// quorval: runs graphs, and looks at them.
#include "command.h"
#include "command_line.h"
#include "output.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <string>
#include <vector>

namespace {

struct Command {
    const char* name;
    const char* summary;
    int (*run)(const Arguments&);
};

constexpr std::array<Command, 15> kCommands = {{
    {"check", "look for what is wrong with a graph", check_command},
    {"config", "look at store files, and change them", config_command},
    {"describe", "show a running graph", describe_command},
    {"get", "show the configuration of a block of a running graph", get_command},
    {"graph", "draw a graph", graph_command},
    {"inspect", "show what plug-ins offer", inspect_command},
    {"list", "list running graphs", list_command},
    {"new", "write a plug-in to begin with", new_command},
    {"recording", "look at a recording", recording_command},
    {"replay", "run a graph on what was recorded", replay_command},
    {"run", "run a graph", run_command},
    {"schema", "write a JSON Schema of graph files", schema_command},
    {"set", "change a running graph", set_command},
    {"stop", "stop a running graph", stop_command},
    {"top", "show what the blocks of a running graph do", top_command},
}};

constexpr std::size_t kNameWidth = 24;

HelpText help_text()
{
    std::string commands = "Commands:\n";
    for (const Command& command : kCommands) {
        std::string name = command.name;
        name.resize(kNameWidth, ' ');
        commands += "  " + name + command.summary + "\n";
    }
    return {"quorval COMMAND [OPTION...] FILE...",
            "Runs dataflow graphs of blocks that come in plug-ins.",
            commands +
                "\n"
                "'quorval COMMAND --help' tells more about a command.\n"
                "\n"
                "Exit status:\n"
                "  0  done\n"
                "  1  failed while running, or output could not be written\n"
                "  2  wrong use of the command line\n"
                "  3  the graph, a plug-in, a store file or a recording is wrong\n"
                "\n"
                "Example:\n"
                "  quorval run loudness.toml"};
}

/// What stands before a command, or in its place.
int run_without_command(const Arguments& arguments)
{
    CommandLine line(help_text());
    bool wants_version = false;
    line.add_flag("--version", wants_version, "print the version");
    const auto rest = line.read(arguments);
    if (!rest.has_value()) {
        return kDone;
    }
    if (wants_version) {
        refuse_more_than(0, *rest);
        write_output("quorval " QUORVAL_VERSION "\n");
        return kDone;
    }
    throw UsageError("a command is missing; 'quorval --help' lists them");
}

int run_command_line(const Arguments& arguments)
{
    if (arguments.empty() || arguments.front().rfind('-', 0) == 0) {
        return run_without_command(arguments);
    }
    std::vector<std::string> names;
    for (const Command& command : kCommands) {
        if (arguments.front() == command.name) {
            return command.run(Arguments(std::next(arguments.begin()), arguments.end()));
        }
        names.emplace_back(command.name);
    }
    throw_unknown("command", arguments.front(), names);
}

/// Plug-ins are code that the caller chooses, so the rights of another user must not come to it.
bool has_rights_of_another()
{
    return ::getauxval(AT_SECURE) != 0 || ::getuid() != ::geteuid() || ::getgid() != ::getegid();
}

/// Without this a file could be opened under the number of a standard stream that is closed. What
/// is written to a closed stream still fails.
void open_standard_streams()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) < 0) {
            ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // the lowest free: fd
        }
    }
}

void set_up_signals()
{
    // A reader that goes away is output that cannot be written, and so is a file at its limit.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    // Whoever starts the command may ignore or block what it needs: no child could be waited for,
    // no run be stopped, no crash be reported.
    static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

int main(int argc, char* argv[])
{
    open_standard_streams();
    set_up_signals();
    if (has_rights_of_another()) {
        say_error("set-user-ID use is refused");
        return kWrongUse;
    }
    const Arguments arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    end_process(run_and_close_output([&] { return run_command_line(arguments); }));
}
