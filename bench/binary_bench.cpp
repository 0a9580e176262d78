// The binary form of configurations, and the memory that storing and loading it takes.

#include <cereal/archives/binary.hpp>
#include <cereal/types/map.hpp>
#include <cereal/types/string.hpp>
#include <cereal/types/variant.hpp>
#include <cereal/types/vector.hpp>

#include <cstddef>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#ifdef QUORVAL_BENCH_HAS_PROTOBUF
#include <google/protobuf/struct.pb.h>
#endif

#include <quorval/config.h>
#include <quorval/pstore.h>
#include "harness.h"
#include "workload.h"

namespace quorval_bench {

namespace {

using Quorval::BlockConfiguration;
using Quorval::POFStream;

constexpr std::size_t kMixed = 10'000;
constexpr std::size_t kBytes = 100'000'000;

std::string content_of(POFStream& stream)
{
    return static_cast<std::stringbuf&>(*stream.rdbuf()).str();
}

std::string written(const BlockConfiguration& config)
{
    POFStream stream(scratch_directory(), "never-closed");
    stream << config;
    return content_of(stream);
}

std::string written(const PlainMap& elements)
{
    std::ostringstream stream;
    cereal::BinaryOutputArchive archive(stream);
    archive(elements);
    return stream.str();
}

/// A case: what is written, and of how many operations its writing and reading consist.
struct Content {
    std::string name;
    std::size_t operations;
    PlainMap (*make)();
    std::size_t iterations;
    bool is_block;  // a single vector, whose items lie alike in the forms of both sides
};

template <class T>
PlainMap single(std::vector<T> items)
{
    PlainMap elements;
    elements.emplace("data", std::move(items));
    return elements;
}

template <class T>
PlainMap make_numbers()
{
    std::vector<T> items(kBytes / sizeof(T));
    for (std::size_t index = 0; index < items.size(); ++index) {
        items[index] = static_cast<T>(index);
    }
    return single(std::move(items));
}

PlainMap make_bools()
{
    std::vector<bool> items(kBytes);
    for (std::size_t index = 0; index < items.size(); ++index) {
        items[index] = (index * 7 / 3) % 2 == 0;
    }
    return single(std::move(items));
}

// One run of the large ones takes a tenth of a second or more.
const std::vector<Content> kContents = {
    {"binary_mixed", kMixed, [] { return make_mixed(kMixed); }, 0, false},
    {"binary_doubles", 1, make_numbers<double>, 1, true},
    {"binary_ints", 1, make_numbers<int>, 1, true},
    {"binary_bools", 1, make_bools, 1, true},
};

/// Compares the last items; the heads of the two forms differ.
bool ends_alike(const std::string& a, const std::string& b)
{
    constexpr std::size_t kTail = 1'000;
    return a.size() > kTail && b.size() > kTail &&
           a.compare(a.size() - kTail, kTail, b, b.size() - kTail, kTail) == 0;
}

void add_write(const Content& content)
{
    struct Ours {
        BlockConfiguration config;
        std::string expected;  // empty where the forms of both sides differ
        std::optional<POFStream> stream;
    };
    add_time(
        content.name + "_write/quorval", content.operations,
        [content] {
            auto state = std::make_shared<Ours>();
            {
                const PlainMap elements = content.make();
                state->config = make_config(elements);
                state->expected = content.is_block ? written(elements) : "";
            }
            return Side{[state] { *state->stream << state->config; },
                        [state] {
                            const std::string bytes = content_of(*state->stream);
                            std::istringstream in(bytes);
                            BlockConfiguration read;
                            in >> read;
                            return read == state->config &&
                                   (state->expected.empty() || ends_alike(bytes, state->expected));
                        },
                        [state] { state->stream.emplace(scratch_directory(), "never-closed"); }};
        },
        content.iterations);

    struct Theirs {
        PlainMap elements;
        std::optional<std::ostringstream> stream;
    };
    add_time(
        content.name + "_write/cereal", content.operations,
        [content] {
            auto state = std::make_shared<Theirs>();
            state->elements = content.make();
            return Side{[state] {
                            cereal::BinaryOutputArchive archive(*state->stream);
                            archive(state->elements);
                        },
                        [state] {
                            std::istringstream in(state->stream->str());
                            cereal::BinaryInputArchive archive(in);
                            PlainMap read;
                            archive(read);
                            return read == state->elements;
                        },
                        [state] { state->stream.emplace(); }};
        },
        content.iterations);
}

void add_read(const Content& content)
{
    struct Ours {
        BlockConfiguration expected;
        std::istringstream stream;
        BlockConfiguration config;
    };
    add_time(
        content.name + "_read/quorval", content.operations,
        [content] {
            auto state = std::make_shared<Ours>();
            state->expected = make_config(content.make());
            state->stream.str(written(state->expected));
            return Side{[state] { state->stream >> state->config; },
                        [state] { return state->config == state->expected; },
                        [state] {
                            state->config = BlockConfiguration();
                            state->stream.clear();
                            state->stream.seekg(0);
                        }};
        },
        content.iterations);

    struct Theirs {
        PlainMap expected;
        std::istringstream stream;
        PlainMap elements;
    };
    add_time(
        content.name + "_read/cereal", content.operations,
        [content] {
            auto state = std::make_shared<Theirs>();
            state->expected = content.make();
            state->stream.str(written(state->expected));
            return Side{[state] {
                            cereal::BinaryInputArchive archive(state->stream);
                            archive(state->elements);
                        },
                        [state] { return state->elements == state->expected; },
                        [state] {
                            state->elements.clear();
                            state->stream.clear();
                            state->stream.seekg(0);
                        }};
        },
        content.iterations);
}

#ifdef QUORVAL_BENCH_HAS_PROTOBUF
template <class T>
void fill(google::protobuf::Value& to, const T& content)
{
    to.set_number_value(content);
}

void fill(google::protobuf::Value& to, bool content)
{
    to.set_bool_value(content);
}

void fill(google::protobuf::Value& to, const std::string& content)
{
    to.set_string_value(content);
}

template <class T>
void fill(google::protobuf::Value& to, const std::vector<T>& items)
{
    for (const T& item : items) {
        fill(*to.mutable_list_value()->add_values(), item);
    }
}

/// The general message of the library: the same elements, but ints as doubles.
google::protobuf::Struct make_struct(const PlainMap& elements)
{
    google::protobuf::Struct message;
    for (const auto& [key, value] : elements) {
        auto& to = (*message.mutable_fields())[key];
        std::visit([&to](const auto& content) { fill(to, content); }, value);
    }
    return message;
}

void add_protobuf()
{
    struct State {
        google::protobuf::Struct message = make_struct(make_mixed(kMixed));
        google::protobuf::Struct read;
        std::string bytes = message.SerializeAsString();
        std::string result;
    };
    add_time("binary_mixed_write/protobuf", kMixed, [] {
        auto state = std::make_shared<State>();
        return Side{[state] { state->message.SerializeToString(&state->result); },
                    [state] { return state->result == state->bytes; },
                    [state] { std::string().swap(state->result); }};
    });
    add_time("binary_mixed_read/protobuf", kMixed, [] {
        auto state = std::make_shared<State>();
        return Side{[state] { state->read.ParseFromString(state->bytes); },
                    [state] { return state->read.fields().size() == kMixed; },
                    [state] { google::protobuf::Struct().Swap(&state->read); }};
    });
}
#endif

/// The most memory that `act` holds beyond what the process held before and what it leaves behind.
template <class Act>
double peak_beyond_result(Act act)
{
    reset_peak();
    const std::size_t before = resident();
    const std::size_t heap_before = heap_in_use();
    act();
    const double peak = static_cast<double>(peak_resident());
    const auto kept = static_cast<double>(heap_in_use() - heap_before);
    return peak - static_cast<double>(before) - kept;
}

void add_peaks()
{
    constexpr const char* kName = "large";
    add_bytes("peak_load/quorval", [] {
        Quorval::PStore store(scratch_directory());
        const std::size_t expected = kBytes / sizeof(double);
        {
            // Written without the library, so that nothing of the writing is left in the heap.
            std::ofstream file(scratch_directory() + kName, std::ios::binary);
            cereal::BinaryOutputArchive archive(file);
            archive(std::string("data"), std::string("DoubleVector"));
            archive(std::vector<double>(expected, 0.5));
        }
        std::optional<BlockConfiguration> loaded;
        const double peak = peak_beyond_result([&] { loaded = store.load(kName); });
        return loaded->getDoubleVector("data") == std::vector<double>(expected, 0.5) ? peak : -1;
    });
    add_bytes("peak_load/cereal", [] {
        const PlainMap expected = make_numbers<double>();
        {
            std::ofstream file(scratch_directory() + kName, std::ios::binary);
            cereal::BinaryOutputArchive archive(file);
            archive(expected);
        }
        PlainMap loaded;
        const double peak = peak_beyond_result([&] {
            std::ifstream file(scratch_directory() + kName, std::ios::binary);
            cereal::BinaryInputArchive archive(file);
            archive(loaded);
        });
        return loaded == expected ? peak : -1;
    });
    add_bytes("peak_store/quorval", [] {
        Quorval::PStore store(scratch_directory());
        const BlockConfiguration config = make_config(make_numbers<double>());
        const double peak = peak_beyond_result([&] { store.store(kName, config); });
        return store.load(kName) == config ? peak : -1;
    });
    for (const char* name : {"peak_load/file", "peak_store/file"}) {
        add_known_bytes(name, kBytes);
    }
}

const bool kAreAdded = [] {
    for (const Content& content : kContents) {
        add_write(content);
        add_read(content);
    }
#ifdef QUORVAL_BENCH_HAS_PROTOBUF
    add_protobuf();
#endif
    add_peaks();
    return true;
}();

}  // namespace

}  // namespace quorval_bench
