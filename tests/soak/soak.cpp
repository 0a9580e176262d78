// Repeats what an application does all its life, and looks whether anything grows: descriptors,
// mappings, memory.
//
//     soak [DIVISOR]
//
// runs 100,000 loads and unloads of a plug-in, a million stores and loads of a configuration and a
// million event cycles, or a DIVISOR-th of each.
#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/pluginloader.h>
#include <quorval/pstore.h>
#include "support/allocations.h"
#include "support/support.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <tuple>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUORVAL_SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QUORVAL_SOAK_SANITIZED 1
#endif
#endif

namespace Quorval {

// The application's to define: here it holds nothing.
struct InitTools {};

}  // namespace Quorval

namespace {

using Quorval::BlockConfiguration;

// The memory of the process moves a little with what the C library keeps for the next time. The
// bookkeeping of a sanitizer grows with every thing that it has seen.
#ifdef QUORVAL_SOAK_SANITIZED
constexpr long kResidentSlackKiB = 256 * 1024;
constexpr long kMappingSlack = 500;
#else
constexpr long kResidentSlackKiB = 2 * 1024;
constexpr long kMappingSlack = 2;
#endif

struct Holdings {
    std::size_t descriptors;
    long mappings;
    long resident_kib;
    long allocations;
};

long count_mappings()
{
    std::ifstream maps("/proc/self/maps");
    long count = 0;
    for (std::string line; std::getline(maps, line);) {
        ++count;
    }
    return count;
}

long read_resident_kib()
{
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return resident * ::sysconf(_SC_PAGESIZE) / 1024;
}

Holdings look()
{
    return {quorval_test::open_descriptors().size(), count_mappings(), read_resident_kib(),
            quorval_test::live_allocations()};
}

std::ostream& operator<<(std::ostream& os, const Holdings& holdings)
{
    return os << holdings.descriptors << " descriptors, " << holdings.mappings << " mappings, "
              << holdings.resident_kib << " KiB resident, " << holdings.allocations
              << " allocations";
}

/// Whether nothing has grown but what may.
bool is_flat(const Holdings& before, const Holdings& after)
{
    return after.descriptors == before.descriptors &&
           after.mappings <= before.mappings + kMappingSlack &&
           after.resident_kib <= before.resident_kib + kResidentSlackKiB &&
           after.allocations == before.allocations;
}

/// Runs `cycle` so many times, with ten lines on the way. What the first tenth has taken is what
/// the process needs; from there on nothing may grow. Returns whether nothing did.
bool run(const std::string& name, long times, const std::function<void(long)>& cycle)
{
    const long tenth = std::max(times / 10, 1L);
    Holdings first = {};
    bool flat = true;
    for (long done = 1; done <= times; ++done) {
        cycle(done);
        if (done % tenth == 0) {
            const Holdings now = look();
            if (done == tenth) {
                first = now;
            }
            flat = is_flat(first, now);
            std::cout << name << ": " << done << " of " << times << ", " << now
                      << (flat ? "" : "  GROWN") << std::endl;
            if (!flat) {
                return false;
            }
        }
    }
    return flat;
}

void require(bool condition, const char* text)
{
    if (!condition) {
        throw std::runtime_error(text);
    }
}

bool load_and_unload(long times)
{
    const quorval_test::ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", QUORVAL_SOAK_PLUGIN_DIR);
    const Quorval::InitTools tools;
    return run("loads", times, [&tools](long number) {
        const Quorval::PluginLoader loader("quorval_soak_plugin.so", tools);
        const BlockConfiguration config{{"from", static_cast<int>(number)}};
        const auto created = loader.create("counter", config, "");
        require(std::get<1>(created).getInt("counted") == number + 1, "another count");
    });
}

bool store_and_load(long times)
{
    // In memory where that is possible: it is the library that is under test, not a disk.
    const bool has_memory = ::access("/dev/shm", W_OK) == 0;
    const quorval_test::ScopedEnvironment place(
        "TMPDIR", has_memory ? "/dev/shm" : std::filesystem::temp_directory_path().string());
    const quorval_test::TemporaryDirectory directory;
    std::cout << "stores: into " << directory.path().string()
              << (has_memory ? ", which is in memory" : ", as there is no /dev/shm") << std::endl;
    Quorval::PStore store(directory.store_path());
    return run("stores", times, [&store](long number) {
        const BlockConfiguration config{
            {"number", static_cast<int>(number)},
            {"name", "of a length that changes" + std::string(number % 50, '.')},
            {"taps", {0.5, 1.5, 2.5}},
            {"flags", {true, false}}};
        store.store("state", config);
        require(store.load("state") == config, "another configuration");
    });
}

bool fire_and_reset(long times)
{
    Quorval::Block block("ticking");
    auto& port = dynamic_cast<Quorval::EventPort&>(*block.make_eventport("tick"));
    return run("events", times, [&](long /*number*/) {
        port.fire();
        port.trigger(true, false);
        require(port.is_triggered() && port.is_readable(), "not triggered");
        block.reset_fdports(false);
        require(!port.is_triggered(), "still triggered");
    });
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        const long divisor = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 1;
        if (argc > 2 || divisor < 1 || divisor > 100'000) {
            std::cerr << "usage: soak [DIVISOR], of 1 to 100000\n";
            return 2;
        }
        const bool flat = load_and_unload(100'000 / divisor) &&
                          store_and_load(1'000'000 / divisor) &&
                          fire_and_reset(1'000'000 / divisor);
        std::cout << (flat ? "Nothing has grown." : "Something has grown.") << std::endl;
        return flat ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "soak: " << error.what() << '\n';
        return 1;
    }
}
