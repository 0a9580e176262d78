// Graphs: making members, connecting them, listing them.

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#ifdef QUORVAL_BENCH_HAS_GSTREAMER
#include <gst/gst.h>
#endif
#ifdef QUORVAL_BENCH_HAS_CLASS_LOADER
#include "class_loader_member.h"

#include <class_loader/class_loader.hpp>

#include <map>
#endif

#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/superblock.h>
#include "harness.h"
#include "plugins.h"

namespace quorval_bench {

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Connection;
using Quorval::Container;
using Quorval::PluginLoader;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;

constexpr std::size_t kSmall = 1'000;
constexpr std::size_t kMiddle = 10'000;
constexpr std::size_t kLarge = 100'000;

std::vector<std::string> make_names(std::size_t count)
{
    std::vector<std::string> names;
    for (std::size_t index = 0; index < count; ++index) {
        names.push_back("member" + std::to_string(index));
    }
    return names;
}

/// A run of thousands of members takes long enough to be timed alone.
std::size_t runs(std::size_t count)
{
    return count >= kMiddle ? 1 : 0;
}

void create_members(Superblock& graph, const PluginLoader& loader,
                    const std::vector<std::string>& names)
{
    const BlockConfiguration config;
    for (const std::string& name : names) {
        graph.add_block(loader.create(kMemberType, config, name));
    }
}

void add_create_members(std::size_t count)
{
    struct State {
        std::unique_ptr<PluginLoader> loader = load_plugin();
        std::vector<std::string> names;
        std::unique_ptr<Superblock> graph;
    };
    const std::string name = "create_members/" + std::to_string(count);
    add_time(
        name + "/quorval", count,
        [count] {
            auto state = std::make_shared<State>();
            state->names = make_names(count);
            return Side{[state] { create_members(*state->graph, *state->loader, state->names); },
                        [state, count] {
                            return state->graph->get_blocks().size() == count &&
                                   state->graph->get_block(state->names.back()).get_name() ==
                                       state->names.back();
                        },
                        [state] { state->graph = std::make_unique<Superblock>("graph"); }};
        },
        runs(count));

#ifdef QUORVAL_BENCH_HAS_CLASS_LOADER
    struct Theirs {
        class_loader::ClassLoader loader{plugin_directory() + "/bench-class-loader-plugin.so"};
        std::vector<std::string> names;
        std::map<std::string, class_loader::ClassLoader::UniquePtr<ClassLoaderMember>> members;
    };
    add_time(
        name + "/class_loader", count,
        [count] {
            auto state = std::make_shared<Theirs>();
            state->names = make_names(count);
            return Side{[state] {
                            for (const std::string& member : state->names) {
                                auto made = state->loader.createUniqueInstance<ClassLoaderMember>(
                                    "quorval_bench::ClassLoaderRelay");
                                made->set_name(member);
                                state->members.emplace(member, std::move(made));
                            }
                        },
                        [state, count] { return state->members.size() == count; },
                        [state] { state->members.clear(); }};
        },
        runs(count));
#endif
}

void add_connections(Superblock& graph, const std::vector<Block*>& chain)
{
    for (std::size_t index = 1; index < chain.size(); ++index) {
        graph.add_connection(*chain[index - 1], "out", *chain[index], "in");
    }
}

/// The members in the order in which they were made, which is that in memory too.
std::vector<Block*> find_members(const Superblock& graph, const std::vector<std::string>& names)
{
    std::vector<Block*> members;
    for (const std::string& name : names) {
        members.push_back(graph.get_block(name).get_blocks().front());
    }
    return members;
}

void add_add_connection(std::size_t count)
{
    struct State {
        Superblock members{"members"};
        std::vector<Block*> chain;
        // Connections cannot be taken out again, so each run begins with a new superblock, and the
        // members are kept elsewhere: to connect them it makes no difference.
        std::unique_ptr<Superblock> graph;
    };
    add_time(
        "add_connection/" + std::to_string(count) + "/quorval", count,
        [count] {
            auto state = std::make_shared<State>();
            const std::vector<std::string> names = make_names(count + 1);
            create_members(state->members, *load_plugin(), names);
            state->chain = find_members(state->members, names);
            return Side{[state] { add_connections(*state->graph, state->chain); },
                        [state, count] {
                            const auto connections = state->graph->get_connections();
                            return connections.size() == count &&
                                   &std::get<0>(connections.back()) == state->chain[count - 1] &&
                                   &std::get<2>(connections.back()) == state->chain[count];
                        },
                        [state] { state->graph = std::make_unique<Superblock>("graph"); }};
        },
        runs(count));
}

/// `count` members in a chain, all in the innermost of `depth` superblocks.
std::unique_ptr<Superblock> make_nested(std::size_t depth, std::size_t count)
{
    auto graph = std::make_unique<Superblock>("inner");
    create_members(*graph, *load_plugin(), make_names(count));
    add_connections(*graph, graph->get_blocks());
    for (std::size_t level = 1; level < depth; ++level) {
        auto outer = std::make_unique<Superblock>("outer");
        outer->add_block(UniqueDlPtr<Container>(nullptr, std::move(graph)));
        graph = std::move(outer);
    }
    return graph;
}

/// A superblock at each of `depth` levels, each with `count` members in a chain of its own.
std::unique_ptr<Superblock> make_spread(std::size_t depth, std::size_t count)
{
    std::unique_ptr<Superblock> graph;
    for (std::size_t level = 0; level < depth; ++level) {
        auto outer = make_nested(1, count);
        if (graph != nullptr) {
            outer->add_block(UniqueDlPtr<Container>(nullptr, std::move(graph)));
        }
        graph = std::move(outer);
    }
    return graph;
}

void add_nested(std::size_t depth)
{
    constexpr std::size_t kMembers = 1'000;
    struct State {
        std::unique_ptr<Superblock> graph;
        std::vector<Block*> flat_blocks;
        std::vector<Connection> flat_connections;
        std::vector<Block*> blocks;
        std::vector<Connection> connections;
    };
    const auto make_state = [depth] {
        auto state = std::make_shared<State>();
        state->graph = make_nested(depth, kMembers);
        state->flat_blocks = state->graph->get_blocks();
        state->flat_connections = state->graph->get_connections();
        return state;
    };
    const auto forget = [](const std::shared_ptr<State>& state) {
        return [state] {
            std::vector<Block*>().swap(state->blocks);
            std::vector<Connection>().swap(state->connections);
        };
    };
    const auto has_blocks = [](const std::shared_ptr<State>& state) {
        return [state] {
            return state->blocks.size() == kMembers && state->blocks == state->flat_blocks;
        };
    };
    const auto has_connections = [](const std::shared_ptr<State>& state) {
        return [state] {
            return state->connections.size() == kMembers - 1 &&
                   &std::get<2>(state->connections.back()) ==
                       &std::get<2>(state->flat_connections.back());
        };
    };
    const std::string level = "/" + std::to_string(depth) + "/";
    add_time("nested_blocks" + level + "quorval", kMembers, [=] {
        auto state = make_state();
        return Side{[state] { state->blocks = state->graph->get_blocks(); }, has_blocks(state),
                    forget(state)};
    });
    add_time("nested_connections" + level + "quorval", kMembers - 1, [=] {
        auto state = make_state();
        return Side{[state] { state->connections = state->graph->get_connections(); },
                    has_connections(state), forget(state)};
    });
    // The floor: to copy the list once.
    add_time("nested_connections" + level + "copy", kMembers - 1, [=] {
        auto state = make_state();
        return Side{[state] {
                        std::vector<Connection> copied(state->flat_connections);
                        state->connections.swap(copied);
                    },
                    has_connections(state), forget(state)};
    });
}

void add_spread(std::size_t depth)
{
    constexpr std::size_t kMembers = 1'024;  // in all, so that only the depth makes a difference
    const std::size_t connections = kMembers - depth;
    struct State {
        std::unique_ptr<Superblock> graph;
        std::vector<Block*> blocks;
        std::vector<Connection> connections;
    };
    const auto make_state = [depth] {
        auto state = std::make_shared<State>();
        state->graph = make_spread(depth, kMembers / depth);
        return state;
    };
    const std::string level = "/" + std::to_string(depth) + "/quorval";
    add_time("spread_blocks" + level, kMembers, [=] {
        auto state = make_state();
        return Side{[state] { state->blocks = state->graph->get_blocks(); },
                    [=] { return state->blocks.size() == kMembers; },
                    [state] { std::vector<Block*>().swap(state->blocks); }};
    });
    add_time("spread_connections" + level, connections, [=] {
        auto state = make_state();
        return Side{[state] { state->connections = state->graph->get_connections(); },
                    [=] { return state->connections.size() == connections; },
                    [state] { std::vector<Connection>().swap(state->connections); }};
    });
}

// Adding to a bin looks at the names of all that is in it, so large ones would take hours.
constexpr std::size_t kWeighedMembers = 2'000;

void add_bytes_per_member()
{
    add_bytes("bytes_per_member/quorval", [] {
        const auto loader = load_plugin();
        const std::vector<std::string> names = make_names(kWeighedMembers);
        return heap_bytes_of([&] {
                   auto graph = std::make_unique<Superblock>("graph");
                   create_members(*graph, *loader, names);
                   add_connections(*graph, graph->get_blocks());
                   return graph;
               }) /
               kWeighedMembers;
    });
}

#ifdef QUORVAL_BENCH_HAS_GSTREAMER
struct Unref {
    void operator()(void* object) const { gst_object_unref(object); }
};

using Element = std::unique_ptr<GstElement, Unref>;

/// The factory of the element that just passes data on.
GstElementFactory* identity_factory()
{
    static GstElementFactory* const factory = [] {
        // Not the registry in the home of the user, and no process of its own to write it.
        ::setenv("GST_REGISTRY", (scratch_directory() + "registry").c_str(), 0);
        ::setenv("GST_REGISTRY_FORK", "no", 0);
        gst_init(nullptr, nullptr);
        GstElementFactory* found = gst_element_factory_find("identity");
        // Loads the plug-in.
        Element(gst_element_factory_create(found, nullptr));
        return found;
    }();
    return factory;
}

Element make_bin(const std::vector<std::string>& names)
{
    Element bin(gst_bin_new("graph"));
    for (const std::string& name : names) {
        gst_bin_add(GST_BIN(bin.get()),
                    gst_element_factory_create(identity_factory(), name.c_str()));
    }
    return bin;
}

std::size_t link(const std::vector<GstElement*>& chain)
{
    std::size_t links = 0;
    for (std::size_t index = 1; index < chain.size(); ++index) {
        links += gst_element_link_pads_full(chain[index - 1], "src", chain[index], "sink",
                                            GST_PAD_LINK_CHECK_NOTHING)
                     ? 1
                     : 0;
    }
    return links;
}

void unlink(const std::vector<GstElement*>& chain)
{
    for (std::size_t index = 1; index < chain.size(); ++index) {
        gst_element_unlink_pads(chain[index - 1], "src", chain[index], "sink");
    }
}

void add_gstreamer_create(std::size_t count)
{
    add_time(
        "create_members/" + std::to_string(count) + "/gstreamer", count,
        [count] {
            identity_factory();
            auto bin = std::make_shared<Element>();
            const std::vector<std::string> names = make_names(count);
            return Side{[bin, names] { *bin = make_bin(names); },
                        [bin, count] {
                            return static_cast<std::size_t>(GST_BIN_NUMCHILDREN(bin->get())) ==
                                   count;
                        },
                        [bin] { bin->reset(); }};
        },
        runs(count));
}

void add_gstreamer_link(std::size_t count)
{
    struct State {
        // In no bin, which would take hours to fill; to link them it makes no difference.
        std::vector<Element> elements;
        std::vector<GstElement*> chain;
        std::size_t links = 0;
    };
    add_time(
        "add_connection/" + std::to_string(count) + "/gstreamer", count,
        [count] {
            // Made once, as it takes long.
            static const auto state = [count] {
                auto made = std::make_shared<State>();
                for (const std::string& name : make_names(count + 1)) {
                    made->elements.emplace_back(
                        gst_element_factory_create(identity_factory(), name.c_str()));
                    gst_object_ref_sink(made->elements.back().get());
                    made->chain.push_back(made->elements.back().get());
                }
                return made;
            }();
            return Side{[] { state->links = link(state->chain); },
                        [count] { return state->links == count; }, [] { unlink(state->chain); }};
        },
        runs(count));
}

void add_gstreamer_bytes()
{
    add_bytes("bytes_per_member/gstreamer", [] {
        identity_factory();
        const std::vector<std::string> names = make_names(kWeighedMembers);
        bool is_linked = false;
        const double bytes = heap_bytes_of([&] {
            Element bin(gst_bin_new("graph"));
            std::vector<GstElement*> chain;
            for (const std::string& name : names) {
                chain.push_back(gst_element_factory_create(identity_factory(), name.c_str()));
                gst_bin_add(GST_BIN(bin.get()), chain.back());
            }
            is_linked = link(chain) == kWeighedMembers - 1;
            return bin;
        });
        return is_linked ? bytes / kWeighedMembers : -1;
    });
}
#endif

const bool kAreAdded = [] {
    for (const std::size_t count : {kSmall, kMiddle, kLarge}) {
        add_create_members(count);
        add_add_connection(count);
    }
    for (std::size_t depth = 1; depth <= 64; depth *= 2) {
        add_nested(depth);
        add_spread(depth);
    }
    add_bytes_per_member();
#ifdef QUORVAL_BENCH_HAS_GSTREAMER
    add_gstreamer_create(kSmall);
    add_gstreamer_create(kMiddle);
    for (const std::size_t count : {kSmall, kMiddle, kLarge}) {
        add_gstreamer_link(count);
    }
    add_gstreamer_bytes();
#endif
    return true;
}();

}  // namespace

}  // namespace quorval_bench
