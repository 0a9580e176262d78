#include "record/playback.h"

#include <quorval/log.h>
#include "loop/loop.h"
#include "messages/printable.h"
#include "plugins/codecs.h"

#include <algorithm>
#include <limits>
#include <map>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Quorval::runtime {

/// Gives what was recorded of the outputs of one block.
class Player final : public Block {
public:
    explicit Player(const std::string& name) : Block(name) {}

    /// @return its number
    std::size_t add(const OutPortInternal& output, const Codec& codec)
    {
        auto port =
            std::make_unique<DecodedOutPort>(output.get_name(), output.get_datatype(), codec);
        ports_.push_back(port.get());
        add_outport(std::move(port));
        return ports_.size() - 1;
    }

    DecodedOutPort& port(std::size_t number) const { return *ports_[number]; }

    /// @param bytes  have to stay until after the next run
    void play(std::size_t number, const std::string& bytes)
    {
        pending_.emplace_back(number, &bytes);
    }

    void write(std::size_t number, const std::string& bytes) const
    {
        try {
            port(number).write(bytes);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("what was recorded of " + port(number).get_name() +
                                     " cannot be read: " + error.what());
        }
    }

    bool run() override
    {
        const auto pending = std::exchange(pending_, {});
        for (const auto& [number, bytes] : pending) {
            write(number, *bytes);
        }
        return true;
    }

private:
    std::vector<DecodedOutPort*> ports_;
    std::vector<std::pair<std::size_t, const std::string*>> pending_;
};

namespace {

using OutputName = std::pair<std::string, std::string>;  // path, port

void warn(const std::string& text)
{
    logger(LOGLEVEL_WARNING, "%s", printable(text).c_str());
}

}  // namespace

Playback::Playback(const std::string& file, LoadedGraph& graph, bool is_fast)
    : file_(file), reader_(file), is_fast_(is_fast), now_(reader_.header().time)
{
    const std::vector<RecordedOutput>& outputs = reader_.header().outputs;
    channels_.resize(outputs.size());
    why_not_.resize(outputs.size());
    std::unordered_map<std::string, const Node*> nodes;
    for (const Node& node : graph.network.nodes) {
        nodes[node.path] = &node;
    }
    std::map<OutputName, std::uint32_t> replayable;
    for (std::uint32_t i = 0; i < outputs.size(); ++i) {
        const auto node = nodes.find(outputs[i].path);
        if (can_replay(i, node != nodes.end() ? node->second : nullptr, graph)) {
            replayable.emplace(OutputName(outputs[i].path, outputs[i].port), i);
        }
    }
    std::vector<std::vector<std::uint32_t>> found(graph.network.nodes.size());
    std::vector<bool> stays(graph.network.nodes.size());
    for (const Wire& wire : graph.network.wires) {
        const auto output =
            replayable.find({graph.network.nodes[wire.from].path, wire.output->get_name()});
        if (output == replayable.end()) {
            stays[wire.from] = true;
        } else {
            found[wire.from].push_back(output->second);
        }
    }
    for (std::uint32_t block = 0; block < found.size(); ++block) {
        if (!found[block].empty() && !stays[block]) {
            replace(block, found[block], graph);
        }
    }
    report_left_out(graph);
}

Playback::~Playback() = default;

/// Whether the graph has the output, of the same type, and a codec for it.
bool Playback::can_replay(std::uint32_t output, const Node* node, const LoadedGraph& graph)
{
    const auto& [path, port, type] = reader_.header().outputs[output];
    if (node == nullptr) {
        why_not_[output] = "there is no block '" + path + "'";
        return false;
    }
    const auto types = node->block->get_outports_info();
    const auto found = types.find(port);
    if (found == types.end()) {
        why_not_[output] = "block '" + path + "' has no output '" + port + "'";
    } else if (found->second.get_name() != type) {
        why_not_[output] = "it is of the type " + type + " there, and of the type " +
                           found->second.get_name() + " in the graph";
    } else if (graph.plugins->find_codec(type) == nullptr) {
        why_not_[output] = "there is no codec for " + type;
    }
    return why_not_[output].empty();
}

/// Feeds those who read from the block with recorded values, and the block with nothing.
void Playback::replace(std::uint32_t block, const std::vector<std::uint32_t>& outputs,
                       LoadedGraph& graph)
{
    Node& node = graph.network.nodes[block];
    auto player = std::make_unique<Player>(node.block->get_name());
    for (const std::uint32_t output : outputs) {
        if (channels_[output].player == nullptr) {
            const RecordedOutput& name = reader_.header().outputs[output];
            const OutPortInternal& port = node.block->get_outport(name.port).second;
            channels_[output] = {block, player.get(),
                                 player->add(port, *graph.plugins->find_codec(name.type))};
        }
    }
    std::vector<Wire>& wires = graph.network.wires;
    wires.erase(std::remove_if(wires.begin(), wires.end(),
                               [&](const Wire& wire) { return wire.to == block; }),
                wires.end());
    for (Wire& wire : wires) {
        if (wire.from == block) {
            wire.output = &player->get_outport(wire.output->get_name()).second;
        }
    }
    node.block = player.get();
    players_.push_back(std::move(player));
}

void Playback::report_left_out(const LoadedGraph& graph) const
{
    std::unordered_set<std::string> played;
    for (const Channel& channel : channels_) {
        if (channel.player != nullptr) {
            played.insert(graph.network.nodes[channel.block].path);
        }
    }
    for (std::size_t i = 0; i < channels_.size(); ++i) {
        const RecordedOutput& name = reader_.header().outputs[i];
        if (!why_not_[i].empty()) {
            warn("what was recorded of " + name.path + "." + name.port +
                 " is left out: " + why_not_[i]);
        } else if (channels_[i].player == nullptr && played.count(name.path) == 0) {
            warn("what was recorded of " + name.path + "." + name.port + " is left out: block '" +
                 name.path + "' stays, since not all of its connected outputs are recorded");
        }
    }
}

std::chrono::nanoseconds Playback::now()
{
    return now_;
}

std::optional<std::chrono::nanoseconds> Playback::next_time()
{
    if (!origin_) {
        origin_ = Loop::now();
    }
    if (!has_wave_) {
        has_wave_ = !is_over_ && reader_.read(wave_);
        if (!has_wave_) {
            if (!std::exchange(is_over_, true)) {
                report_end();
            }
            return std::nullopt;
        }
        ++waves_;
    }
    const std::int64_t since_start = wave_.time - reader_.header().time;
    const std::int64_t most = std::numeric_limits<std::int64_t>::max() - origin_->count();
    return is_fast_ ? std::chrono::nanoseconds(0)
                    : *origin_ + std::chrono::nanoseconds(std::min(since_start, most));
}

void Playback::report_end() const
{
    if (!reader_.is_whole()) {
        warn("'" + file_ + "' was cut off: the last wave in it is " +
             std::to_string(reader_.last_wave()));
    }
    if (waves_ < reader_.last_wave()) {
        warn(std::to_string(reader_.last_wave() - waves_) + " waves are missing in '" + file_ +
             "'");
    }
}

void Playback::begin_wave(Life& life)
{
    has_wave_ = false;
    now_ = std::chrono::nanoseconds(wave_.time);
    for (const RecordedValue& value : wave_.values) {
        const Channel& channel = channels_[value.output];
        if (channel.player == nullptr) {
            continue;
        }
        if (value.is_early) {
            channel.player->write(channel.port, value.bytes);
            life.look_at(channel.block);
        } else {
            channel.player->play(channel.port, value.bytes);
            life.wave().ask(channel.block);
        }
    }
}

}  // namespace Quorval::runtime
