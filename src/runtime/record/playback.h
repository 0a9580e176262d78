// Replays a recording.
#pragma once

#include "graph/loaded_graph.h"
#include "record/reader.h"
#include "run/runner.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Quorval::runtime {

class Player;

/// Puts players in the place of the blocks of a graph whose connected outputs are all recorded, and
/// gives the waves that were recorded. Tells of what is left out.
class Playback final : public IPlayback {
public:
    /// Changes the network of the graph; the blocks that are replaced stay as they were made.
    /// @param graph    must outlive the object, which must outlive each use of the network
    /// @param is_fast  each wave comes as soon as it can
    /// @throws RecordingError  the file is no recording
    Playback(const std::string& file, LoadedGraph& graph, bool is_fast);
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;
    ~Playback() override;

    std::chrono::nanoseconds now() override;
    std::optional<std::chrono::nanoseconds> next_time() override;
    void begin_wave(Life& life) override;

private:
    /// Where the values of a recorded output go.
    struct Channel {
        std::uint32_t block = 0;
        Player* player = nullptr;  // null: they are left out
        std::size_t port = 0;      // of the player
    };

    bool can_replay(std::uint32_t output, const Node* node, const LoadedGraph& graph);
    void replace(std::uint32_t block, const std::vector<std::uint32_t>& outputs,
                 LoadedGraph& graph);
    void report_left_out(const LoadedGraph& graph) const;
    void report_end() const;

    std::string file_;
    RecordingReader reader_;
    bool is_fast_;
    std::vector<std::unique_ptr<Player>> players_;
    std::vector<Channel> channels_;     // by recorded output
    std::vector<std::string> why_not_;  // likewise; why an output cannot be replayed
    RecordedWave wave_;
    bool has_wave_ = false;  // one that is still to come
    bool is_over_ = false;
    std::uint64_t waves_ = 0;
    std::chrono::nanoseconds now_;
    std::optional<std::chrono::nanoseconds> origin_;  // the time of the loop at the start
};

}  // namespace Quorval::runtime
