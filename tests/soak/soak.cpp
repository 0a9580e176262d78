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
#include "soak/holdings.h"
#include "support/support.h"

#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <tuple>

namespace Quorval {

// The application's to define: here it holds nothing.
struct InitTools {};

}  // namespace Quorval

namespace {

using Quorval::BlockConfiguration;

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
    return run_flat("loads", times, [&tools](long number) {
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
    return run_flat("stores", times, [&store](long number) {
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
    return run_flat("events", times, [&](long /*number*/) {
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
        const long divisor = read_divisor(argc, argv);
        return divisor == 0 ? 2
                            : tell_result(load_and_unload(100'000 / divisor) &&
                                          store_and_load(1'000'000 / divisor) &&
                                          fire_and_reset(1'000'000 / divisor));
    } catch (const std::exception& error) {
        std::cerr << "soak: " << error.what() << '\n';
        return 1;
    }
}
