#include "record/recorder.h"

#include <quorval/log.h>
#include "description/suggest.h"
#include "loop/loop.h"
#include "messages/context.h"
#include "messages/printable.h"
#include "plugins/codecs.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

namespace {

constexpr std::chrono::seconds kPause(1);  // between two transactions
constexpr std::size_t kQueueSize = std::size_t{64} << 20U;
constexpr std::size_t kMuch = kQueueSize / 4;  // is written at once

std::vector<std::string> output_names(const Block& block)
{
    std::vector<std::string> names;
    for (const auto& [name, type] : block.get_outports_info()) {
        names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string no_codec(const std::string& type)
{
    return "there is no codec for " + type;
}

/// The present thread blocks all signals for its lifetime.
class NoSignals {
public:
    NoSignals()
    {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;
    ~NoSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

/// A thread that no signal of the process is delivered to.
template <class Work>
std::thread start_thread(Work work)
{
    const NoSignals scope;  // which the thread inherits
    return std::thread(std::move(work));
}

}  // namespace

Recorder::Recorder(const LoadedGraph& graph, const std::vector<std::string>& outputs)
    : graph_(graph), has_names_(!outputs.empty())
{
    std::vector<Diagnostic> diagnostics;
    for (const std::string& name : outputs) {
        const std::string problem = add_named(name);
        if (!problem.empty()) {
            diagnostics.push_back({"--outputs " + name, 0, 0, true, printable(problem), ""});
        }
    }
    if (!diagnostics.empty()) {
        throw GraphError(std::move(diagnostics));
    }
}

Recorder::~Recorder()
{
    finish();
}

/// @return what is wrong with the name; empty: nothing
std::string Recorder::add_named(const std::string& name)
{
    const std::size_t dot = name.find('.');
    const std::string path = name.substr(0, dot);
    const std::string port = dot == std::string::npos ? std::string() : name.substr(dot + 1);
    const auto& nodes = graph_.network.nodes;
    const auto node =
        std::find_if(nodes.begin(), nodes.end(), [&](const Node& one) { return one.path == path; });
    if (node == nodes.end()) {
        return "there is no block '" + path + "'";
    }
    const auto types = node->block->get_outports_info();
    const auto type = types.find(port);
    if (type == types.end()) {
        const std::vector<std::string> names = output_names(*node->block);
        std::string text = "block '" + path + "' has no output '" + port + "'";
        const std::string near = suggestion(port, names);
        if (!near.empty()) {
            return text + near;
        }
        text += "; it has ";
        for (const std::string& one : names) {
            text += (&one == &names.front() ? "" : ", ") + one;
        }
        return text + (names.empty() ? "none" : "");
    }
    if (graph_.plugins->find_codec(type->second.get_name()) == nullptr) {
        return no_codec(type->second.get_name());
    }
    add(static_cast<std::uint32_t>(node - nodes.begin()), port);
    return {};
}

/// An output that has a codec; one that is named twice counts once.
void Recorder::add(std::uint32_t block, const std::string& port)
{
    const Node& node = graph_.network.nodes[block];
    const OutPortInternal& output = node.block->get_outport(port).second;
    const std::string& type = output.get_datatype().get_name();
    const auto number = static_cast<std::uint32_t>(header_.outputs.size());
    if (recorded_.try_emplace(&output, Recorded{number, graph_.plugins->find_codec(type), false})
            .second) {
        header_.outputs.push_back({node.path, port, type});
    }
}

void Recorder::open(const std::string& file)
{
    file_ = file;
    writer_.emplace(file);
}

void Recorder::begin(const std::vector<bool>& is_source)
{
    for (std::uint32_t block = 0; block < is_source.size() && !has_names_; ++block) {
        if (is_source[block]) {
            add_outputs_of(block);
        }
    }
    header_.graph = graph_.name;
    header_.begin =
        std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
    header_.time = Loop::now().count();
    try {
        writer_->begin(header_);
        thread_ = start_thread([this] { write_on(); });
    } catch (const std::exception& error) {
        fail(error.what());
    }
}

void Recorder::add_outputs_of(std::uint32_t block)
{
    const Node& node = graph_.network.nodes[block];
    for (const std::string& port : output_names(*node.block)) {
        const std::string& type = node.block->get_outport(port).second.get_datatype().get_name();
        if (graph_.plugins->find_codec(type) != nullptr) {
            add(block, port);
        } else {
            logger(LOGLEVEL_WARNING, "%s: what %s.%s gives is not recorded", no_codec(type).c_str(),
                   node.path.c_str(), port.c_str());
        }
    }
}

void Recorder::wave_begins(std::chrono::nanoseconds time)
{
    ++waves_;
    time_ = time.count();
    wave_.clear();
}

void Recorder::see(const OutPortInternal& output, bool is_early)
{
    const auto found = recorded_.find(&output);
    if (found == recorded_.end()) {
        return;
    }
    Recorded& recorded = found->second;
    const RecordedOutput& name = header_.outputs[recorded.number];
    try {
        const ContextScope scope(name.path.c_str(), "record");
        encode(*recorded.codec, output.get_data(), bytes_);
    } catch (const std::runtime_error& error) {
        has_lost_values_ = true;
        if (!std::exchange(recorded.has_failed, true)) {
            logger(LOGLEVEL_ERROR, "what %s.%s gives cannot be recorded: %s", name.path.c_str(),
                   name.port.c_str(), error.what());
        }
        return;
    }
    wave_.rows.push_back({waves_, time_, 0, recorded.number, is_early, bytes_.size()});
    wave_.bytes += bytes_;
}

void Recorder::wave_ends()
{
    if (wave_.rows.empty()) {
        wave_.rows.push_back({waves_, time_, 0, Batch::kNoOutput, false, 0});
    }
    std::uint64_t rest = wave_.rows.size();
    for (Batch::Row& row : wave_.rows) {
        row.rest = --rest;
    }
    queue_wave();
}

void Recorder::queue_wave()
{
    const std::lock_guard lock(mutex_);
    if (has_failed_) {
        return;
    }
    if (!queue_.rows.empty() && queue_.size() + wave_.size() > kQueueSize) {
        ++missing_waves_;
        return;
    }
    const bool was_empty = queue_.rows.empty();
    const bool was_much = queue_.size() >= kMuch;
    queue_.rows.insert(queue_.rows.end(), wave_.rows.begin(), wave_.rows.end());
    queue_.bytes += wave_.bytes;
    if (was_empty || (!was_much && queue_.size() >= kMuch)) {
        changed_.notify_one();
    }
}

bool Recorder::finish()
{
    if (thread_.joinable()) {
        {
            const std::lock_guard lock(mutex_);
            is_ending_ = true;
        }
        changed_.notify_one();
        thread_.join();
        if (missing_waves_ > 0) {
            logger(LOGLEVEL_WARNING, "%s",
                   (std::to_string(missing_waves_) + " waves are missing in '" + printable(file_) +
                    "': the disk was too slow")
                       .c_str());
        }
    }
    writer_.reset();
    return !has_failed_ && !has_lost_values_ && missing_waves_ == 0;
}

/// What the thread does.
void Recorder::write_on()
{
    Batch batch;
    std::unique_lock lock(mutex_);
    while (!has_failed_) {
        // Nothing wakes up while the graph rests.
        changed_.wait(lock, [this] { return is_ending_ || !queue_.rows.empty(); });
        changed_.wait_for(lock, kPause, [this] { return is_ending_ || queue_.size() >= kMuch; });
        if (queue_.rows.empty()) {
            break;
        }
        std::swap(batch, queue_);
        lock.unlock();
        write(batch);
        batch.clear();
        lock.lock();
    }
    lock.unlock();
    try {
        if (!has_failed_) {
            writer_->finish(waves_);
        }
    } catch (const std::exception& error) {
        fail(error.what());
    }
}

void Recorder::write(const Batch& batch)
{
    try {
        writer_->write(batch);
    } catch (const std::exception& error) {
        fail(error.what());
    }
}

void Recorder::fail(const std::string& text)
{
    logger(LOGLEVEL_ERROR, "'%s' cannot be written: %s", printable(file_).c_str(), text.c_str());
    const std::lock_guard lock(mutex_);
    has_failed_ = true;
}

}  // namespace Quorval::runtime
