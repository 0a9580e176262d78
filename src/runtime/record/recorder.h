// Records what outputs give while a graph runs.
#pragma once

#include <quorval/codec.h>
#include <quorval/runtime/diagnostic.h>
#include "graph/loaded_graph.h"
#include "record/writer.h"
#include "run/life.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Quorval::runtime {

/// Encodes values at the end of each wave, on the thread that runs the graph, and hands them to a
/// thread of its own, which writes them once a second. A wave never waits for that: where the queue
/// is full, it is left out and counted. Logs what goes wrong.
class Recorder final : public IOutputWatcher {
public:
    /// @param graph    must outlive the object
    /// @param outputs  PATH.PORT; empty: those of the sources that have a codec
    /// @throws GraphError  an output does not exist, or has no codec
    Recorder(const LoadedGraph& graph, const std::vector<std::string>& outputs);
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder() override;

    /// Makes the file.
    /// @throws std::system_error  it cannot be made, or is there already
    void open(const std::string& file);

    /// Writes what is left, and closes the file.
    /// @return whether all that was to be recorded is recorded
    bool finish();

    void begin(const std::vector<bool>& is_source) override;
    void wave_begins(std::chrono::nanoseconds time) override;
    void see(const OutPortInternal& output, bool is_early) override;
    void wave_ends() override;

private:
    struct Recorded {
        std::uint32_t number = 0;
        const Codec* codec = nullptr;
        bool has_failed = false;
    };

    std::string add_named(const std::string& name);
    void add(std::uint32_t block, const std::string& port);
    void add_outputs_of(std::uint32_t block);
    void queue_wave();
    void write_on();
    void write(const Batch& batch);
    void fail(const std::string& text);

    const LoadedGraph& graph_;
    bool has_names_;
    std::string file_;
    std::optional<RecordingWriter> writer_;  // of the thread, while it runs
    RecordingHeader header_;
    std::unordered_map<const OutPortInternal*, Recorded> recorded_;

    // Of the thread that runs the graph.
    Batch wave_;
    std::string bytes_;
    std::uint64_t waves_ = 0;
    std::uint64_t missing_waves_ = 0;
    std::int64_t time_ = 0;
    bool has_lost_values_ = false;

    std::mutex mutex_;
    std::condition_variable changed_;
    Batch queue_;
    bool is_ending_ = false;
    bool has_failed_ = false;  // the file takes no more
    std::thread thread_;
};

}  // namespace Quorval::runtime
