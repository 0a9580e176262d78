// Tests of blocks: one block, driven by hand, with the code that runs it in a graph.
#pragma once

#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/export.h>
#include <quorval/port.h>
#include <quorval/settings.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Quorval {

/// Holds one block and does to it what a running graph would: nothing happens but what the test
/// asks for. Belongs to no test framework. What the block throws comes out of the operation that
/// was called. Stays where it is. One thread, but for what the block itself does.
///
///     Harness harness("sound.so", "Gain", {{"factor", 0.5}});
///     harness.start();
///     harness.feed("in", 2.0);
///     harness.step();
///     EXPECT_EQ(harness.output<double>("out"), 1.0);
///
/// The block keeps its state in a temporary directory, which goes away with the harness, unless
/// the configuration has the key `pstore_path`.
class QUORVAL_EXPORT Harness {
public:
    /// Loads a plug-in and makes a block of one of its types; both its name and its path are that
    /// of the type.
    /// @param plugin  a file; without a directory it is looked for in those of
    ///                QUORVAL_PLUGIN_PATH, that of QUORVAL_PLUGIN_DIR, and that of the installation
    /// @throws std::runtime_error  there is no such plug-in: "there is no plug-in '<plugin>' in
    ///     <directories>"; or it cannot be loaded, or has no such type
    /// @throws what the block throws
    Harness(const std::string& plugin, const std::string& type,
            const BlockConfiguration& config = {});

    /// Takes a block that the test has made. Its store gets the temporary directory where it has
    /// none.
    /// @throws std::invalid_argument  it is null: "there is no block"
    explicit Harness(std::unique_ptr<Block> block);

    Harness(const Harness&) = delete;
    Harness& operator=(const Harness&) = delete;
    /// Destroys the block as it is, without stop().
    ~Harness();

    /// Starts the block. Comes before the first step.
    /// @throws std::logic_error  it is started already: "the block is started already"
    void start();

    /// Stops the block.
    /// @throws std::logic_error  it is not started: "the block is not started"
    void stop();

    /// Destroys the block, stopped before where it is started, and makes a new one with the same
    /// configuration and store, as a second run of the graph would. It is not started yet. The
    /// clock goes on from where it stands.
    /// @throws std::logic_error  the block was made by the test: "a block that was handed over
    ///     cannot be made again"
    /// @throws what the block throws; when that is its constructor or setup(), there is no block
    ///     until another restart(): "there is no block: it could not be made again"
    void restart();

    /// Sets an input, and triggers it. The value stays until the next one is fed.
    /// @throws std::out_of_range      the block has no such input, with the text of get_inport()
    /// @throws std::invalid_argument  it takes another type: "<port> has the type <type>, not
    ///     <type>"
    template <class T>
    void feed(const std::string& port, T value)
    {
        auto output = std::make_unique<OutPort<T>>(port, Datatype(PortType<T>::name()));
        output->write(std::move(value));
        feed_port(port, std::move(output));
    }
    void feed(const std::string& port, const char* value) { feed(port, std::string(value)); }

    /// Runs one wave: takes up what became ready, runs the block when it is due, and resets its
    /// ports.
    /// @return whether the block ran
    /// @throws std::logic_error  it is not started: "the block is not started"
    bool step();

    /// The value of an output. The reference lives as long as the block.
    /// @throws std::out_of_range      the block has no such output, with the text of get_outport()
    /// @throws std::invalid_argument  it gives another type: "<port> has the type <type>, not
    ///     <type>"
    /// @throws std::runtime_error     nothing was written yet: "<port> has no value"
    template <class T>
    const T& output(const std::string& port) const
    {
        return *static_cast<const T*>(get_output(port, PortType<T>::name()));
    }

    /// Whether the last operation left an output triggered; of a step, what it left before its
    /// outputs were reset.
    /// @throws std::out_of_range  the block has no such output, with the text of get_outport()
    bool is_triggered(const std::string& port) const;

    /// Makes a descriptor port ready for the next step: an event port is fired, another one is
    /// taken to be ready for what it waits for.
    /// @throws std::out_of_range  the block has no such port: "the block has no descriptor port
    ///     '<port>'"
    void make_ready(const std::string& port);

    /// Moves the clock of the block, which stands still otherwise. Runs nothing.
    void advance(std::chrono::nanoseconds duration);

    /// Changes the configuration of the block, with all changes so far, as a running graph does. A
    /// change that the block refuses is forgotten.
    void reconfigure(const BlockConfiguration& override);

    /// Whether run() has returned false: the block is not run any more.
    bool is_done() const;

    /// The reasons that the block gave for stopping the graph, in their order.
    const std::vector<std::string>& stop_reasons() const;

    /// What the block reported last: how much is done, of how much.
    std::pair<std::uint64_t, std::uint64_t> progress() const;

    /// What was logged while the block worked, in its order, the texts alone.
    const std::vector<std::string>& messages() const;

    /// The block. Owned by the harness, and destroyed by restart().
    Block& block();

private:
    void feed_port(const std::string& port, std::unique_ptr<OutPortInternal> output);
    const void* get_output(const std::string& port, const char* type) const;

    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Quorval
