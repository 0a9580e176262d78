// Running graphs: chains of blocks that do next to nothing, against loops by hand over the same
// blocks, and against what others run chains with.

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#ifdef QUORVAL_BENCH_HAS_GSTREAMER
#include <gst/gst.h>
#endif
#ifdef QUORVAL_BENCH_HAS_ONETBB
#include <oneapi/tbb/flow_graph.h>
#include <oneapi/tbb/task_arena.h>

#include <deque>
#endif

#include <quorval/block.h>
#include "harness.h"
#include "observe/observer.h"
#include "running.h"

namespace quorval_bench {

namespace {

using Quorval::Block;
using Quorval::InPortInternal;
using Quorval::OutPort;
using Quorval::OutPortInternal;

constexpr std::size_t kSmall = 10;
constexpr std::size_t kMiddle = 1'000;
constexpr std::size_t kLarge = 100'000;

/// So many waves make a run of a case.
std::size_t waves_of(std::size_t length)
{
    constexpr std::size_t kRuns = 20'000;
    return std::max<std::size_t>(kRuns / length, 2);
}

/// "b7" in a random order, always the same one: names that say nothing of the order.
std::vector<std::string> shuffled_names(std::size_t count)
{
    std::vector<std::string> names;
    names.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        names.push_back("b" + std::to_string(index));
    }
    std::shuffle(names.begin(), names.end(), std::mt19937(1));
    return names;
}

/// The file of a graph of one chain, and of blocks between them that never run.
std::string write_chain(std::size_t length, std::size_t idle)
{
    std::vector<std::string> names = shuffled_names(length + idle);
    const std::string path = scratch_directory() + "chain.toml";
    std::ofstream file(path);
    file << "format = 1\nconnections = [\n";
    for (std::size_t at = 1; at < length; ++at) {
        file << '"' << names[at - 1] << ".out -> " << names[at] << ".in\",\n";
    }
    file << "]\n";
    for (std::size_t at = 0; at < names.size(); ++at) {
        file << "blocks." << names[at] << ".type = \"bench-chain:" << (at == 0 ? "Count" : "Add")
             << "\"\n";
    }
    return path;
}

/// A chain whose blocks were started. The first one is due in each wave.
class Chain {
public:
    explicit Chain(std::size_t length, std::size_t idle = 0)
        : running_(write_chain(length, idle)),
          observer_(running_.network().nodes.size(), Quorval::runtime::Loop::now)
    {
        const auto& nodes = running_.network().nodes;
        for (const auto& wire : running_.network().wires) {
            Block& block = *nodes[wire.to].block;
            steps_.push_back({&block, wire.input, wire.output, &block.get_outport("out").second});
        }
        source_ = nodes[running_.network().wires.front().from].block;
    }

    /// Has runs timed from now on.
    void time_runs() { running_.set_probe(observer_); }

    void run_waves(std::size_t count)
    {
        for (; count > 0; --count) {
            running_.turn();
        }
    }

    /// The same calls in a loop by hand.
    void run_by_hand(std::size_t count)
    {
        for (; count > 0; --count) {
            source_->run();
            for (const Step& step : steps_) {
                step.input->update(*step.from);
                if (step.input->is_triggered()) {
                    step.block->run();
                    triggered_ += step.output->is_triggered() ? 1 : 0;
                }
                step.block->reset_inports(false);
                step.from->reset(false);
            }
            steps_.back().output->reset(false);
        }
    }

    /// Whether the last of the blocks has what so many waves make of it.
    bool has_run(std::size_t waves) const
    {
        const auto& last = static_cast<const OutPort<double>&>(*steps_.back().output);
        return last.value() == static_cast<double>(waves + steps_.size()) && !last.is_triggered();
    }

private:
    struct Step {
        Block* block;
        InPortInternal* input;
        OutPortInternal* from;
        OutPortInternal* output;
    };

    Running running_;
    Quorval::runtime::Observer observer_;
    Block* source_ = nullptr;
    std::vector<Step> steps_;
    std::size_t triggered_ = 0;
};

/// A side that runs waves over a chain.
template <class MadeChain, class RunWaves>
void add_chain(const std::string& name, std::size_t length, std::size_t waves,
               const std::function<std::shared_ptr<MadeChain>()>& make, RunWaves run_waves)
{
    add_time(name, length * waves, [=] {
        auto chain = make();
        auto done = std::make_shared<std::size_t>(0);
        return Side{[=] {
                        run_waves(*chain, waves);
                        *done += waves;
                    },
                    [=] { return chain->has_run(*done); }};
    });
}

void add_chains(std::size_t length)
{
    const std::string name = "wave_chain/" + std::to_string(length);
    const std::function<std::shared_ptr<Chain>()> make = [length] {
        return std::make_shared<Chain>(length);
    };
    const auto waves = waves_of(length);
    add_chain(name + "/quorval", length, waves, make,
              [](Chain& chain, std::size_t count) { chain.run_waves(count); });
    add_chain(name + "/by_hand", length, waves, make,
              [](Chain& chain, std::size_t count) { chain.run_by_hand(count); });
}

/// Waves in which each run is timed.
void add_timed()
{
    const auto run_waves = [](Chain& chain, std::size_t count) { chain.run_waves(count); };
    const auto add = [&](const std::string& side, bool is_timed) {
        const std::function<std::shared_ptr<Chain>()> make = [is_timed] {
            auto chain = std::make_shared<Chain>(kMiddle);
            if (is_timed) {
                chain->time_runs();
            }
            return chain;
        };
        add_chain("wave_timed/1000/" + side, kMiddle, waves_of(kMiddle), make, run_waves);
    };
    add("quorval", true);
    add("untimed", false);
}

/// Ten blocks that run among many that do not, and ten alone.
void add_sparse()
{
    const auto run_waves = [](Chain& chain, std::size_t count) { chain.run_waves(count); };
    const auto add = [&](const std::string& side, std::size_t idle) {
        const std::function<std::shared_ptr<Chain>()> make = [idle] {
            return std::make_shared<Chain>(kSmall, idle);
        };
        add_chain("wave_sparse/100000/" + side, kSmall, waves_of(kSmall), make, run_waves);
    };
    add("quorval", kLarge - kSmall);
    add("alone", 0);
}

/// Chains behind one block, which is due in each wave.
class Chains {
public:
    Chains(const std::string& type, std::size_t chains, std::size_t length, unsigned threads)
        : running_(write(type, chains, length), threads), chains_(chains), length_(length)
    {
    }

    void run_waves(std::size_t count)
    {
        for (; count > 0; --count) {
            running_.turn();
        }
    }

    /// Whether the last block of each chain has what so many waves make of it.
    bool has_run(std::size_t waves) const
    {
        std::size_t right = 0;
        for (const auto& node : running_.network().nodes) {
            const auto& out =
                static_cast<const OutPort<double>&>(node.block->get_outport("out").second);
            right += out.value() == static_cast<double>(waves + length_) ? 1 : 0;
        }
        return right == chains_;
    }

private:
    static std::string write(const std::string& type, std::size_t chains, std::size_t length)
    {
        const std::string path = scratch_directory() + "chains.toml";
        std::ofstream file(path);
        file << "format = 1\nconnections = [\n";
        for (std::size_t chain = 0; chain < chains; ++chain) {
            for (std::size_t at = 0; at < length; ++at) {
                file << '"' << (at == 0 ? "source" : name(chain, at - 1)) << ".out -> "
                     << name(chain, at) << ".in\",\n";
            }
        }
        file << "]\nblocks.source.type = \"bench-chain:Count\"\n";
        for (std::size_t chain = 0; chain < chains; ++chain) {
            for (std::size_t at = 0; at < length; ++at) {
                file << "blocks." << name(chain, at) << ".type = \"bench-chain:" << type << "\"\n";
            }
        }
        return path;
    }

    static std::string name(std::size_t chain, std::size_t at)
    {
        return "c" + std::to_string(chain) + "_" + std::to_string(at);
    }

    Running running_;
    std::size_t chains_;
    std::size_t length_;
};

/// Eight chains on one thread, and where the graph may use two.
void add_threads(const std::string& name, const std::string& type, std::size_t length)
{
    constexpr std::size_t kChains = 8;
    constexpr std::size_t kWaves = 20;
    const auto add = [&](const std::string& side, unsigned threads) {
        add_time("wave_threads/" + name + "/" + side, kWaves * kChains * length, [=] {
            auto chains = std::make_shared<Chains>(type, kChains, length, threads);
            // The threads begin with the first wave, and the graph measures its blocks for some.
            constexpr std::size_t kWarm = 3 * kWaves;
            chains->run_waves(kWarm);
            auto done = std::make_shared<std::size_t>(kWarm);
            Side made;
            made.run = [=] {
                chains->run_waves(kWaves);
                *done += kWaves;
            };
            made.is_right = [=] { return chains->has_run(*done); };
            made.seconds = wall_seconds;
            return made;
        });
    };
    add("quorval", 2);
    add("one_thread", 1);
}

#ifdef QUORVAL_BENCH_HAS_ONETBB

/// A chain of nodes that run one after the other on the present thread.
class TbbChain {
public:
    explicit TbbChain(std::size_t length)
    {
        arena_.execute([this, length] {
            graph_ = std::make_unique<oneapi::tbb::flow::graph>();
            for (std::size_t at = 0; at < length; ++at) {
                nodes_.emplace_back(*graph_, oneapi::tbb::flow::serial,
                                    [this](double value) { return last_ = value + 1; });
                if (at > 0) {
                    oneapi::tbb::flow::make_edge(nodes_[at - 1], nodes_[at]);
                }
            }
        });
    }

    void run_waves(std::size_t count)
    {
        arena_.execute([this, count] {
            for (std::size_t wave = 0; wave < count; ++wave) {
                nodes_.front().try_put(sent_++);
                graph_->wait_for_all();
            }
        });
    }

    bool has_run(std::size_t waves) const
    {
        return last_ == static_cast<double>(waves - 1 + nodes_.size());
    }

private:
    oneapi::tbb::task_arena arena_{1};
    std::unique_ptr<oneapi::tbb::flow::graph> graph_;
    std::deque<oneapi::tbb::flow::function_node<double, double>> nodes_;
    double sent_ = 0;
    double last_ = 0;
};

void add_tbb(std::size_t length)
{
    const std::function<std::shared_ptr<TbbChain>()> make = [length] {
        return std::make_shared<TbbChain>(length);
    };
    add_chain("wave_chain/" + std::to_string(length) + "/onetbb", length, waves_of(length), make,
              [](TbbChain& chain, std::size_t count) { chain.run_waves(count); });
}

#endif

#ifdef QUORVAL_BENCH_HAS_GSTREAMER

/// A chain of elements that hand buffers on, in a bin that runs on the present thread.
class GstChain {
public:
    explicit GstChain(std::size_t length)
    {
        ::gst_init(nullptr, nullptr);
        buffer_ = ::gst_buffer_new_and_alloc(sizeof(double));
        bin_ = ::gst_object_ref_sink(::gst_bin_new("chain"));
        GstElement* before = nullptr;
        for (std::size_t at = 0; at < length; ++at) {
            GstElement* element = ::gst_element_factory_make("identity", nullptr);
            ::gst_bin_add(GST_BIN(bin_), element);
            if (before == nullptr) {
                source_ = make_pad("source", GST_PAD_SRC);
                link(source_, ::gst_element_get_static_pad(element, "sink"));
            } else {
                ::gst_element_link_pads_full(before, "src", element, "sink",
                                             GST_PAD_LINK_CHECK_NOTHING);
            }
            before = element;
        }
        sink_ = make_pad("sink", GST_PAD_SINK);
        ::gst_pad_set_chain_function(sink_, &take);
        ::gst_pad_set_element_private(sink_, &taken_);
        link(::gst_element_get_static_pad(before, "src"), sink_);
        ::gst_element_set_state(GST_ELEMENT(bin_), GST_STATE_PLAYING);
        begin();
    }
    GstChain(const GstChain&) = delete;
    GstChain& operator=(const GstChain&) = delete;
    ~GstChain()
    {
        ::gst_element_set_state(GST_ELEMENT(bin_), GST_STATE_NULL);
        ::gst_buffer_unref(buffer_);
        ::gst_object_unref(bin_);
        ::gst_object_unref(source_);
        ::gst_object_unref(sink_);
    }

    void run_waves(std::size_t count)
    {
        for (; count > 0; --count) {
            ::gst_pad_push(source_, ::gst_buffer_ref(buffer_));
        }
    }

    bool has_run(std::size_t waves) const { return taken_ == waves; }

private:
    static GstFlowReturn take(GstPad* pad, GstObject* /*parent*/, GstBuffer* buffer)
    {
        ++*static_cast<std::size_t*>(::gst_pad_get_element_private(pad));
        ::gst_buffer_unref(buffer);
        return GST_FLOW_OK;
    }

    static GstPad* make_pad(const char* name, GstPadDirection direction)
    {
        auto* pad = GST_PAD(::gst_object_ref_sink(::gst_pad_new(name, direction)));
        ::gst_pad_set_active(pad, TRUE);
        return pad;
    }

    /// Takes a reference to a pad of an element.
    static void link(GstPad* from, GstPad* to)
    {
        if (::gst_pad_link_full(from, to, GST_PAD_LINK_CHECK_NOTHING) != GST_PAD_LINK_OK) {
            throw std::runtime_error("the pads cannot be linked");
        }
    }

    void begin()
    {
        ::gst_pad_push_event(source_, ::gst_event_new_stream_start("chain"));
        GstSegment segment;
        ::gst_segment_init(&segment, GST_FORMAT_BYTES);
        ::gst_pad_push_event(source_, ::gst_event_new_segment(&segment));
    }

    gpointer bin_ = nullptr;
    GstPad* source_ = nullptr;
    GstPad* sink_ = nullptr;
    GstBuffer* buffer_ = nullptr;
    std::size_t taken_ = 0;
};

void add_gstreamer(std::size_t length)
{
    const std::function<std::shared_ptr<GstChain>()> make = [length] {
        return std::make_shared<GstChain>(length);
    };
    add_chain("wave_chain/" + std::to_string(length) + "/gstreamer", length, waves_of(length), make,
              [](GstChain& chain, std::size_t count) { chain.run_waves(count); });
}

#endif

const bool is_registered = [] {
    for (const std::size_t length : {kSmall, kMiddle, kLarge}) {
        add_chains(length);
    }
    add_timed();
    add_sparse();
    add_threads("busy", "Work", 4);
    add_threads("tiny", "Add", 12);
#ifdef QUORVAL_BENCH_HAS_ONETBB
    add_tbb(kMiddle);
    add_tbb(kLarge);
#endif
#ifdef QUORVAL_BENCH_HAS_GSTREAMER
    add_gstreamer(kMiddle);
#endif
    return true;
}();

}  // namespace

}  // namespace quorval_bench
