// Configurations in memory.

#include <algorithm>
#include <cstddef>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#ifdef QUORVAL_BENCH_HAS_NLOHMANN
#include <nlohmann/json.hpp>
#endif
#ifdef QUORVAL_BENCH_HAS_PROPERTY_TREE
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#endif
#ifdef QUORVAL_BENCH_HAS_TOMLPLUSPLUS
#include <toml++/toml.h>
#endif
#ifdef QUORVAL_BENCH_HAS_PROTOBUF
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/message_differencer.h>
#endif
#ifdef QUORVAL_BENCH_HAS_GLIB
#include <glib.h>
#endif

#include <quorval/config.h>
#include "harness.h"
#include "workload.h"

namespace quorval_bench {

namespace {

using Quorval::BlockConfiguration;

constexpr std::size_t kLarge = 10'000;
constexpr std::size_t kHuge = 100'000;
constexpr std::size_t kChildren = 1'000;
constexpr std::size_t kFields = 10;
constexpr std::size_t kChanged = 100;

// A run looks every entry up, in a random order, and again until it did at least so many.
constexpr std::size_t kLookups = 10'000;

/// What one side of the cases needs to know about a library: how a tree of ints is made and used.
/// Every operation is what the documentation of that library shows for it.
struct QuorvalTree {
    using Tree = BlockConfiguration;

    static Tree make() { return BlockConfiguration(); }
    static void put(Tree& tree, const Entry& entry) { tree.set(entry.key, entry.value); }
    static int get(const Tree& tree, const Entry& entry) { return tree.getInt(entry.key); }
    static Tree copy(const Tree& tree) { return tree; }
    static bool equal(const Tree& a, const Tree& b) { return a == b; }
    static void merge(Tree& tree, const Tree& other) { tree += other; }
    static long walk(const Tree& tree)
    {
        long sum = 0;
        for (const auto at = tree.iterate(""); !at->is_end(); at->advance()) {
            sum += at->getInt();
        }
        return sum;
    }
    static std::size_t differences(const Tree& a, const Tree& b)
    {
        const Tree difference = a.diff(b);
        std::size_t count = 0;
        for (const auto at = difference.iterate(""); !at->is_end(); at->advance()) {
            ++count;
        }
        return count;
    }
};

#ifdef QUORVAL_BENCH_HAS_NLOHMANN
struct NlohmannTree {
    using Tree = nlohmann::json;

    static Tree make() { return nlohmann::json::object(); }
    static void put(Tree& tree, const Entry& entry)
    {
        tree[entry.group][entry.part][entry.leaf] = entry.value;
    }
    static int get(const Tree& tree, const Entry& entry)
    {
        return tree.at(entry.group).at(entry.part).at(entry.leaf).get<int>();
    }
    static Tree copy(const Tree& tree) { return tree; }
    static bool equal(const Tree& a, const Tree& b) { return a == b; }
    static void merge(Tree& tree, const Tree& other) { tree.update(other, true); }
    static long walk(const Tree& tree)
    {
        long sum = 0;
        for (const auto& group : tree) {
            for (const auto& part : group) {
                for (const auto& leaf : part) {
                    sum += leaf.get<int>();
                }
            }
        }
        return sum;
    }
    static std::size_t differences(const Tree& a, const Tree& b)
    {
        return nlohmann::json::diff(b, a).size();
    }
};
#endif

#ifdef QUORVAL_BENCH_HAS_PROPERTY_TREE
struct PropertyTree {
    using Tree = boost::property_tree::ptree;

    static Tree make() { return Tree(); }
    static void put(Tree& tree, const Entry& entry) { tree.put(entry.key, entry.value); }
    static int get(const Tree& tree, const Entry& entry) { return tree.get<int>(entry.key); }
    static Tree copy(const Tree& tree) { return tree; }
    static bool equal(const Tree& a, const Tree& b) { return a == b; }
};
#endif

#ifdef QUORVAL_BENCH_HAS_TOMLPLUSPLUS
struct TomlTree {
    using Tree = toml::table;

    static Tree make() { return Tree(); }
    static void put(Tree& tree, const Entry& entry)
    {
        toml::table& group = *tree.emplace<toml::table>(entry.group).first->second.as_table();
        toml::table& part = *group.emplace<toml::table>(entry.part).first->second.as_table();
        part.insert_or_assign(entry.leaf, entry.value);
    }
    static int get(const Tree& tree, const Entry& entry)
    {
        return tree[entry.group][entry.part][entry.leaf].value<int>().value();
    }
    static Tree copy(const Tree& tree) { return tree; }
    static bool equal(const Tree& a, const Tree& b) { return a == b; }
};
#endif

#ifdef QUORVAL_BENCH_HAS_PROTOBUF
struct ProtobufTree {
    using Tree = google::protobuf::Struct;

    static Tree make() { return Tree(); }
    static void put(Tree& tree, const Entry& entry)
    {
        auto& group = *(*tree.mutable_fields())[entry.group].mutable_struct_value();
        auto& part = *(*group.mutable_fields())[entry.part].mutable_struct_value();
        (*part.mutable_fields())[entry.leaf].set_number_value(entry.value);
    }
    static int get(const Tree& tree, const Entry& entry)
    {
        const auto& group = tree.fields().at(entry.group).struct_value();
        const auto& part = group.fields().at(entry.part).struct_value();
        return static_cast<int>(part.fields().at(entry.leaf).number_value());
    }
    static Tree copy(const Tree& tree) { return tree; }
    static bool equal(const Tree& a, const Tree& b)
    {
        return google::protobuf::util::MessageDifferencer::Equals(a, b);
    }
};
#endif

#ifdef QUORVAL_BENCH_HAS_GLIB
struct KeyFileTree {
    struct Free {
        void operator()(GKeyFile* file) const { g_key_file_unref(file); }
    };
    using Tree = std::unique_ptr<GKeyFile, Free>;

    static Tree make() { return Tree(g_key_file_new()); }
    static std::string group_of(const Entry& entry) { return entry.group + "." + entry.part; }
    static void put(Tree& tree, const Entry& entry)
    {
        g_key_file_set_integer(tree.get(), group_of(entry).c_str(), entry.leaf.c_str(),
                               entry.value);
    }
    static int get(const Tree& tree, const Entry& entry)
    {
        return g_key_file_get_integer(tree.get(), group_of(entry).c_str(), entry.leaf.c_str(),
                                      nullptr);
    }
};
#endif

template <class Library>
typename Library::Tree make_tree(const std::vector<Entry>& entries)
{
    auto tree = Library::make();
    for (const Entry& entry : entries) {
        Library::put(tree, entry);
    }
    return tree;
}

template <class Library>
void add_get(const std::string& side)
{
    struct State {
        std::vector<Entry> wanted;
        typename Library::Tree tree;
        long sum = 0;
    };
    const auto add = [&side](const std::string& name, std::size_t count, Keys keys) {
        const std::size_t rounds = std::max<std::size_t>(kLookups / count, 1);
        add_time(name + "/" + std::to_string(count) + "/" + side, rounds * count, [=] {
            auto state = std::make_shared<State>();
            const std::vector<Entry> entries = make_entries(count, keys);
            state->tree = make_tree<Library>(entries);
            state->wanted = shuffled(entries);
            return Side{[state, rounds] {
                            state->sum = 0;
                            for (std::size_t round = 0; round < rounds; ++round) {
                                for (const Entry& entry : state->wanted) {
                                    state->sum += Library::get(state->tree, entry);
                                }
                            }
                        },
                        [state, rounds] {
                            return state->sum == static_cast<long>(rounds) * sum_of(state->wanted);
                        }};
        });
    };
    for (const std::size_t count : {std::size_t{100}, std::size_t{1'000}, kLarge, kHuge}) {
        add("get_int", count, Keys::Short);
        add("get_int_long_keys", count, Keys::Long);
    }
}

template <class Library>
void add_build(const std::string& side)
{
    struct State {
        std::vector<Entry> entries;
        typename Library::Tree tree = Library::make();
    };
    const auto add = [&side](const std::string& name, bool is_sorted, Keys keys) {
        add_time(name + "/" + side, kLarge, [is_sorted, keys] {
            auto state = std::make_shared<State>();
            state->entries = make_entries(kLarge, keys);
            if (!is_sorted) {
                state->entries = shuffled(state->entries);
            }
            return Side{[state] { state->tree = make_tree<Library>(state->entries); },
                        [state] {
                            for (const Entry& entry : state->entries) {
                                if (Library::get(state->tree, entry) != entry.value) {
                                    return false;
                                }
                            }
                            return true;
                        },
                        [state] { state->tree = Library::make(); }};
        });
    };
    add("build_shuffled", false, Keys::Short);
    add("build_sorted", true, Keys::Short);
    add("build_shuffled_long_keys", false, Keys::Long);
    add("build_sorted_long_keys", true, Keys::Long);
}

/// Building, and the first walk over what came in any order.
template <class Library>
void add_build_and_walk(const std::string& side)
{
    struct State {
        std::vector<Entry> entries = shuffled(make_entries(kLarge));
        typename Library::Tree tree = Library::make();
        long sum = 0;
    };
    add_time("build_shuffled_and_walk/" + side, kLarge, [] {
        auto state = std::make_shared<State>();
        return Side{[state] {
                        state->tree = make_tree<Library>(state->entries);
                        state->sum = Library::walk(state->tree);
                    },
                    [state] { return state->sum == sum_of(state->entries); },
                    [state] { state->tree = Library::make(); }};
    });
}

template <class Library>
void add_copy(const std::string& side)
{
    struct State {
        std::vector<Entry> entries;
        typename Library::Tree tree = Library::make();
        typename Library::Tree result = Library::make();
    };
    const auto add = [&side](const std::string& name, Keys keys) {
        add_time(name + "/" + side, kLarge, [keys] {
            auto state = std::make_shared<State>();
            state->entries = make_entries(kLarge, keys);
            state->tree = make_tree<Library>(state->entries);
            return Side{[state] { state->result = Library::copy(state->tree); },
                        [state] {
                            // Not by the comparison of the library, which is a case of its own.
                            for (const Entry& entry : state->entries) {
                                if (Library::get(state->result, entry) != entry.value) {
                                    return false;
                                }
                            }
                            return true;
                        },
                        [state] { state->result = Library::make(); }};
        });
    };
    add("copy", Keys::Short);
    add("copy_long_keys", Keys::Long);
}

template <class Library>
void add_equal(const std::string& side)
{
    struct State {
        typename Library::Tree a = make_tree<Library>(make_entries(kLarge));
        typename Library::Tree b = make_tree<Library>(make_entries(kLarge));
        typename Library::Tree other = make_tree<Library>(make_entries(kLarge));
        bool is_equal = false;
    };
    add_time("equal/" + side, kLarge, [] {
        auto state = std::make_shared<State>();
        Entry last = make_entries(kLarge).back();
        last.value = -1;
        Library::put(state->other, last);
        return Side{[state] { state->is_equal = Library::equal(state->a, state->b); },
                    [state] { return state->is_equal && !Library::equal(state->a, state->other); }};
    });
}

/// Merging 10,000 elements into 10,000, of which half have the same keys.
template <class Library>
void add_merge(const std::string& side)
{
    struct State {
        std::vector<Entry> base;
        std::vector<Entry> more;
        typename Library::Tree tree = Library::make();
        typename Library::Tree added = Library::make();
        typename Library::Tree result = Library::make();
    };
    const auto add = [&side](const std::string& name, Keys keys) {
        add_time(name + "/" + side, kLarge, [keys] {
            auto state = std::make_shared<State>();
            state->base = make_entries(kLarge, keys);
            state->more = state->base;
            for (std::size_t index = 0; index < kLarge; ++index) {
                state->more[index].value = -1 - state->more[index].value;
                if (index % 2 == 1) {
                    state->more[index].leaf += "x";
                    state->more[index].key += "x";
                }
            }
            state->tree = make_tree<Library>(state->base);
            state->added = make_tree<Library>(state->more);
            return Side{[state] { Library::merge(state->result, state->added); },
                        [state] {
                            for (std::size_t index = 0; index < kLarge; ++index) {
                                const bool is_kept = index % 2 == 1;
                                const int expected =
                                    (is_kept ? state->base : state->more)[index].value;
                                if (Library::get(state->result, state->base[index]) != expected ||
                                    Library::get(state->result, state->more[index]) !=
                                        state->more[index].value) {
                                    return false;
                                }
                            }
                            return true;
                        },
                        [state] { state->result = Library::copy(state->tree); }};
        });
    };
    add("merge", Keys::Short);
    add("merge_long_keys", Keys::Long);
}

/// 10,000 elements, of which 100 differ.
template <class Library>
void add_diff(const std::string& side)
{
    struct State {
        typename Library::Tree a = Library::make();
        typename Library::Tree b = Library::make();
        std::size_t differences = 0;
    };
    add_time("diff/" + side, kLarge, [] {
        auto state = std::make_shared<State>();
        std::vector<Entry> entries = make_entries(kLarge);
        state->a = make_tree<Library>(entries);
        for (std::size_t index = 0; index < kLarge; index += kLarge / kChanged) {
            entries[index].value = -1;
        }
        state->b = make_tree<Library>(entries);
        return Side{[state] { state->differences = Library::differences(state->a, state->b); },
                    [state] { return state->differences == kChanged; }};
    });
}

template <class Library>
void add_walk(const std::string& side)
{
    struct State {
        typename Library::Tree tree = make_tree<Library>(make_entries(kLarge));
        long sum = 0;
    };
    add_time("walk/" + side, kLarge, [] {
        auto state = std::make_shared<State>();
        return Side{[state] { state->sum = Library::walk(state->tree); },
                    [state] { return state->sum == sum_of(make_entries(kLarge)); }};
    });
}

/// What the interface of the walk takes by itself: three calls for an element.
void add_walk_calls()
{
    struct State {
        std::unique_ptr<Calls> calls = make_calls();
        long sum = 0;
    };
    add_time("walk/calls", kLarge, [] {
        auto state = std::make_shared<State>();
        return Side{[state] {
                        state->sum = 0;
                        for (; !state->calls->is_over(); state->calls->step()) {
                            state->sum += state->calls->get();
                        }
                    },
                    [state] { return state->sum == static_cast<long>(kLarge * (kLarge + 1) / 2); },
                    [state] {
                        for (std::size_t left = 0; left < kLarge; ++left) {
                            state->calls->count();
                        }
                    }};
    });
}

template <class Library>
void add_heap(const std::string& side)
{
    const auto add = [&side](const std::string& name, Keys keys) {
        add_bytes(name + "/" + side, [keys] {
            const std::vector<Entry> entries = make_entries(kLarge, keys);
            return heap_bytes_of([&entries] { return make_tree<Library>(entries); }) / kLarge;
        });
    };
    add("heap_per_element", Keys::Short);
    add("heap_per_element_long_keys", Keys::Long);
}

/// 1,000 children of ten fields each, of which one is read: `list.17.f0`.
std::string field_name(std::size_t field)
{
    return "f" + std::to_string(field);
}

long children_sum()
{
    return static_cast<long>(kChildren * (kChildren - 1) / 2);
}

void add_children()
{
    struct State {
        BlockConfiguration tree;
        long sum = 0;
        std::size_t characters = 0;
    };
    const auto make_state = [] {
        auto state = std::make_shared<State>();
        for (std::size_t child = 0; child < kChildren; ++child) {
            for (std::size_t field = 0; field < kFields; ++field) {
                state->tree.set("list.c" + std::to_string(child) + "." + field_name(field),
                                static_cast<int>(child + field));
            }
        }
        return state;
    };
    add_time("children_read/quorval", kChildren, [make_state] {
        auto state = make_state();
        return Side{[state] {
                        const std::string field = field_name(0);
                        state->sum = 0;
                        for (const auto& child : state->tree.iterate_subtree("list")) {
                            state->sum += child.getInt(field);
                        }
                    },
                    [state] { return state->sum == children_sum(); }};
    });
    add_time("children_names/quorval", kChildren, [make_state] {
        auto state = make_state();
        return Side{[state] {
                        state->characters = 0;
                        for (const auto& child : state->tree.iterate_subtree("list")) {
                            state->characters += child.key().size();
                        }
                    },
                    [state] { return state->characters == 3'890; }};
    });
}

#ifdef QUORVAL_BENCH_HAS_NLOHMANN
void add_nlohmann_children()
{
    struct State {
        nlohmann::json tree;
        long sum = 0;
        std::size_t characters = 0;
    };
    const auto make_state = [] {
        auto state = std::make_shared<State>();
        for (std::size_t child = 0; child < kChildren; ++child) {
            for (std::size_t field = 0; field < kFields; ++field) {
                state->tree["list"]["c" + std::to_string(child)][field_name(field)] =
                    static_cast<int>(child + field);
            }
        }
        return state;
    };
    add_time("children_read/nlohmann", kChildren, [make_state] {
        auto state = make_state();
        return Side{[state] {
                        const std::string field = field_name(0);
                        state->sum = 0;
                        for (const auto& child : state->tree.at("list").items()) {
                            state->sum += child.value().at(field).get<int>();
                        }
                    },
                    [state] { return state->sum == children_sum(); }};
    });
    add_time("children_names/nlohmann", kChildren, [make_state] {
        auto state = make_state();
        return Side{[state] {
                        state->characters = 0;
                        for (const auto& child : state->tree.at("list").items()) {
                            state->characters += child.key().size();
                        }
                    },
                    [state] { return state->characters == 3'890; }};
    });
}
#endif

/// The text of 10,000 elements: ints, bools, doubles and strings.
template <class Tree, class Print>
void add_text(const std::string& side, const Tree& (*get_tree)(), Print print)
{
    add_time("text/" + side, kLarge, [get_tree, print] {
        auto text = std::make_shared<std::string>();
        const Tree& tree = get_tree();
        return Side{[text, &tree, print] { *text = print(tree); },
                    [text] {
                        // Every element has its own number in it, or true or false.
                        return text->find("text 9999") != std::string::npos &&
                               text->size() > 10 * kLarge;
                    },
                    [text] { std::string().swap(*text); }};
    });
}

const BlockConfiguration& mixed_config()
{
    static const BlockConfiguration config = make_config(make_mixed_scalars(kLarge));
    return config;
}

#ifdef QUORVAL_BENCH_HAS_NLOHMANN
const nlohmann::json& mixed_json()
{
    static const nlohmann::json tree = [] {
        nlohmann::json made;
        const PlainMap elements = make_mixed_scalars(kLarge);
        for (const Entry& entry : make_entries(kLarge)) {
            std::visit(
                [&made, &entry](const auto& content) {
                    made[entry.group][entry.part][entry.leaf] = content;
                },
                elements.at(entry.key));
        }
        return made;
    }();
    return tree;
}
#endif

const bool kAreAdded = [] {
    add_get<QuorvalTree>("quorval");
    add_build<QuorvalTree>("quorval");
    add_build_and_walk<QuorvalTree>("quorval");
    add_copy<QuorvalTree>("quorval");
    add_equal<QuorvalTree>("quorval");
    add_merge<QuorvalTree>("quorval");
    add_diff<QuorvalTree>("quorval");
    add_walk<QuorvalTree>("quorval");
    add_walk_calls();
    add_heap<QuorvalTree>("quorval");
    add_children();
    add_text("quorval", mixed_config, [](const BlockConfiguration& config) {
        std::ostringstream os;
        os << config;
        return os.str();
    });
#ifdef QUORVAL_BENCH_HAS_NLOHMANN
    add_get<NlohmannTree>("nlohmann");
    add_build<NlohmannTree>("nlohmann");
    add_build_and_walk<NlohmannTree>("nlohmann");
    add_copy<NlohmannTree>("nlohmann");
    add_equal<NlohmannTree>("nlohmann");
    add_merge<NlohmannTree>("nlohmann");
    add_diff<NlohmannTree>("nlohmann");
    add_walk<NlohmannTree>("nlohmann");
    add_heap<NlohmannTree>("nlohmann");
    add_nlohmann_children();
    add_text("nlohmann", mixed_json, [](const nlohmann::json& tree) { return tree.dump(); });
#endif
#ifdef QUORVAL_BENCH_HAS_PROPERTY_TREE
    add_get<PropertyTree>("property_tree");
    add_build<PropertyTree>("property_tree");
    add_copy<PropertyTree>("property_tree");
    add_equal<PropertyTree>("property_tree");
    add_heap<PropertyTree>("property_tree");
#endif
#ifdef QUORVAL_BENCH_HAS_TOMLPLUSPLUS
    add_get<TomlTree>("tomlplusplus");
    add_build<TomlTree>("tomlplusplus");
    add_copy<TomlTree>("tomlplusplus");
    add_equal<TomlTree>("tomlplusplus");
    add_heap<TomlTree>("tomlplusplus");
#endif
#ifdef QUORVAL_BENCH_HAS_PROTOBUF
    add_get<ProtobufTree>("protobuf");
    add_build<ProtobufTree>("protobuf");
    add_copy<ProtobufTree>("protobuf");
    add_equal<ProtobufTree>("protobuf");
    add_heap<ProtobufTree>("protobuf");
#endif
#ifdef QUORVAL_BENCH_HAS_GLIB
    add_get<KeyFileTree>("glib");
    add_build<KeyFileTree>("glib");
    add_heap<KeyFileTree>("glib");
#endif
    return true;
}();

}  // namespace

}  // namespace quorval_bench
