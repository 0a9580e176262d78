// quorval-sound: an application in small. It loads the plug-in, builds a graph, wires it and runs
// it on an event loop.
#include <quorval/pluginloader.h>
#include <quorval/superblock.h>
#include "../tools.h"
#include "change.h"
#include "console.h"
#include "event_loop.h"
#include "options.h"
#include "schedule.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Container;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;

constexpr int kFailedRun = 1;
constexpr int kWrongUse = 2;
constexpr const char* kPlugin = "sound.so";

/// Without this a file could be opened under the number of a standard stream that is closed, and
/// the lines of the user be read from a recording.
void open_standard_streams()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) < 0) {
            ::open("/dev/null", O_RDWR);  // takes the lowest free number, which is fd
        }
    }
}

/// The event loop takes the signals that end the program. A reader who goes away and a limit on the
/// size of files are errors like others, so that nothing half-written stays.
void prepare_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
}

/// Where the plug-in lies when the user does not say: beside the program, as it is built, or where
/// the installation puts it.
void set_plugin_directory()
{
    const fs::path program = fs::read_symlink("/proc/self/exe").parent_path();
    const bool is_built = fs::exists(program / kPlugin);
    const fs::path directory = is_built ? program : program / QUORVAL_SOUND_PLUGIN_DIR;
    ::setenv("QUORVAL_PLUGIN_DIR", directory.lexically_normal().c_str(), 0);
}

void check_files(const host::Options& options)
{
    std::error_code ignored;
    if (fs::equivalent(options.in, options.out, ignored)) {
        throw std::invalid_argument("IN and OUT are the same file: " + options.in);
    }
}

/// What a symbolic link OUT leads to is replaced, not the link.
std::string follow_links(const std::string& path)
{
    std::error_code error;
    const fs::path target = fs::canonical(path, error);
    return error ? path : target.string();
}

/// The configuration of all blocks, a subtree for each.
BlockConfiguration make_configuration(const host::Options& options)
{
    BlockConfiguration config{
        {"source", {{"path", options.in}}},
        {"gain", {{"factor", options.gain}}},
        {"fir", {{"taps", options.taps}}},
        {"sink", {{"path", follow_links(options.out)}, {"encoding", options.encoding}}},
    };
    if (!options.store.empty()) {
        config += {
            {"before", {{"pstore_path", options.store + "before/"}}},
            {"after", {{"pstore_path", options.store + "after/"}}},
        };
    }
    return config;
}

/// Creates a block, configured by the subtree of its name, and puts it into a superblock.
Container& add_block(Superblock& superblock, const Quorval::PluginLoader& loader,
                     const BlockConfiguration& config, const std::string& type,
                     const std::string& name)
{
    return superblock.add_block(loader.create(type, config.getSubtree(name), name));
}

/// Gain and filter, with a meter on either side. The input feeds the first meter and the gain.
///
///     in ─┬─ before   ┌─ after
///         └─ gain ─ fir ─ out
std::unique_ptr<Superblock> make_effects(const Quorval::PluginLoader& loader,
                                         const BlockConfiguration& config)
{
    auto effects = std::make_unique<Superblock>("effects");
    const Container& before = add_block(*effects, loader, config, "LevelMeter", "before");
    const Container& gain = add_block(*effects, loader, config, "Gain", "gain");
    const Container& fir = add_block(*effects, loader, config, "Fir", "fir");
    const Container& after = add_block(*effects, loader, config, "LevelMeter", "after");
    effects->add_connection(gain, "out", fir, "in");
    effects->add_connection(fir, "out", after, "in");
    effects->add_inport("in", before, "in");
    effects->add_inport("in", gain, "in");
    effects->add_outport("out", fir, "out");
    return effects;
}

/// The whole graph: source ─ effects ─ sink.
std::unique_ptr<Superblock> make_graph(const Quorval::PluginLoader& loader,
                                       const BlockConfiguration& config)
{
    auto graph = std::make_unique<Superblock>("graph");
    const Container& source = add_block(*graph, loader, config, "SoundFileSource", "source");
    const Container& effects =
        graph->add_block(UniqueDlPtr<Container>(nullptr, make_effects(loader, config)));
    const Container& sink = add_block(*graph, loader, config, "SoundFileSink", "sink");
    graph->add_connection(source, "out", effects, "in");
    graph->add_connection(effects, "out", sink, "in");
    return graph;
}

/// The program while it runs.
class Player {
public:
    Player(Container& graph, host::Console& console)
        : console_(console), schedule_(graph), tools_(make_tools())
    {
        for (Block* block : schedule_.blocks()) {
            block->set_tools(tools_);
            for (Quorval::FdPort* port : block->get_fdports()) {
                watch(*port);
            }
        }
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            loop_.watch_signal(signal, [this] { is_interrupted_ = true; });
        }
        // Urgent, so that a change counts from the next piece of the recording on.
        input_ = loop_.watch(
            STDIN_FILENO, {true, false}, [this](bool, bool) { read_input(); },
            host::EventLoop::Priority::Urgent);
    }

    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    ~Player()
    {
        // The graph lives longer than the loop.
        for (Block* block : schedule_.blocks()) {
            for (Quorval::FdPort* port : block->get_fdports()) {
                port->set_event(nullptr);
            }
        }
    }

    /// Runs the graph until a block has done its part or a signal ends it.
    /// @return whether it came to its end
    bool play()
    {
        for (Block* block : schedule_.blocks()) {
            block->start();
        }
        bool goes_on = true;
        while (goes_on && !is_interrupted_) {
            loop_.run_once();
            if (!is_interrupted_ && schedule_.is_due()) {
                goes_on = schedule_.run();
            }
        }
        for (Block* block : schedule_.blocks()) {
            block->stop();
        }
        return !goes_on;
    }

private:
    std::shared_ptr<Quorval::RuntimeTools> make_tools()
    {
        auto tools = std::make_shared<Quorval::RuntimeTools>();
        tools->report = [this](const std::string& block, const std::string& finding) {
            console_.say(block + ": " + finding);
        };
        tools->progress = [this](std::int64_t done, std::int64_t total) {
            console_.progress(done, total);
        };
        return tools;
    }

    void watch(Quorval::FdPort& port)
    {
        port.set_event(loop_.watch(
            port.get_fd(), port.get_eventmask(),
            [&port](bool readable, bool writable) { port.trigger(readable, writable); }));
    }

    void read_input()
    {
        bool goes_on = false;
        try {
            goes_on = lines_.read(STDIN_FILENO);
        } catch (const std::exception& error) {
            console_.complain(std::string("warning: ") + error.what());
        }
        for (std::string line; lines_.next(line);) {
            if (!line.empty()) {
                apply(line);
            }
        }
        if (!goes_on) {
            input_.reset();
        }
    }

    /// Changes a block as a line says, or tells what is wrong with it.
    void apply(const std::string& line)
    {
        try {
            const host::Change change = host::parse_change(line);
            find_block(change.block).override_config(change.override);
        } catch (const std::exception& error) {
            console_.complain("cannot apply '" + line + "': " + error.what());
        }
    }

    Block& find_block(const std::string& name)
    {
        std::string names;
        for (Block* block : schedule_.blocks()) {
            if (block->get_name() == name) {
                return *block;
            }
            names += " " + block->get_name();
        }
        throw std::invalid_argument("no such block, there are" + names);
    }

    host::Console& console_;
    host::EventLoop loop_;  // before all that it watches
    host::Schedule schedule_;
    std::shared_ptr<Quorval::RuntimeTools> tools_;
    host::LineReader lines_;
    std::unique_ptr<Quorval::FDEvent> input_;
    bool is_interrupted_ = false;
};

/// Prints what the library tells about the graph.
void describe(Container& graph, const BlockConfiguration& config, host::Console& console)
{
    std::ostringstream text;
    text << config << "Blocks:\n";
    for (Block* block : graph.get_blocks()) {
        text << block->get_name() << '\n';
    }
    text << "Connections:\n";
    for (const auto& [source, outport, destination, inport] : graph.get_connections()) {
        text << source.get_name() << '.' << outport << " -> " << destination.get_name() << '.'
             << inport << " (" << source.get_outports_info().at(outport).get_name() << ")\n";
    }
    text << "Descriptor ports:";
    for (const auto& [name, type] : graph.get_fdports_info()) {
        text << '\n' << name << " (" << type.get_name() << ')';
    }
    console.say(text.str());
}

int run(const host::Options& options, host::Console& console)
{
    check_files(options);
    set_plugin_directory();
    // It outlives the loader, as the loader wants.
    const Quorval::InitTools init_tools{options.frames_per_block};
    const Quorval::PluginLoader loader(kPlugin, init_tools);
    const BlockConfiguration config = make_configuration(options);
    const std::unique_ptr<Superblock> graph = make_graph(loader, config);
    if (options.verbose) {
        describe(*graph, config, console);
    }
    if (!options.store.empty()) {
        fs::create_directories(options.store);  // a store itself makes the last level alone
    }
    if (!Player(*graph, console).play()) {
        throw std::runtime_error("interrupted, " + options.out + " is not written");
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv)
{
    open_standard_streams();
    prepare_signals();
    int status = EXIT_SUCCESS;
    const std::optional<host::Options> options = host::parse_options(argc, argv, status);
    if (!options) {
        return status;
    }
    host::Console console(options->verbose);
    try {
        status = run(*options, console);
    } catch (const std::invalid_argument& error) {  // what was asked for is no good
        console.complain(error.what());
        status = kWrongUse;
    } catch (const std::exception& error) {
        console.complain(error.what());
        status = kFailedRun;
    }
    if (!console.flush() && status == EXIT_SUCCESS) {
        console.complain("cannot write to standard output");
        status = kFailedRun;
    }
    return status;
}
