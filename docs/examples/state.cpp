// How a block loads and stores its state: `state DIRECTORY/` meets a damaged file and goes on.
#include <quorval/config.h>
#include <quorval/log.h>
#include <quorval/pstore.h>
#include <quorval/state.h>

#include <cmath>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

using namespace Quorval;

// The version of what the elements mean. In the first one "level" was a gain in decibels.
constexpr int kVersion = 2;

BlockConfiguration migrate(const BlockConfiguration& state, int version)
{
    if (version == 1) {
        return {{"gain", std::pow(10, state.getDouble("level", 0) / 20)}};
    }
    return state;  // 0: a file without a seal
}

BlockConfiguration load_or_begin(PStore& store)
{
    try {
        return load_state(store, "state", kVersion, migrate).value_or(BlockConfiguration());
    } catch (const std::ios_base::failure&) {
        throw;  // it cannot be opened, which says nothing about what is in it
    } catch (const std::runtime_error& error) {
        ilog(LOGLEVEL_WARNING) << error.what();
    }
    const std::string file = store.get_path() + "state";
    std::filesystem::rename(file, file + ".damaged");  // for whoever looks into it
    return BlockConfiguration();
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: state DIRECTORY/\n";
        return 2;
    }
    PStore store(argv[1]);
    std::cout << load_or_begin(store).getDouble("gain", 1) << " at first\n";
    save_state(store, "state", {{"level", 20.0}}, 1);
    std::cout << load_or_begin(store).getDouble("gain", 1) << " of the first version\n";
    save_state(store, "state", {{"gain", 0.5}}, kVersion);
    std::cout << load_or_begin(store).getDouble("gain", 1) << " again\n";

    const std::string file = store.get_path() + "state";
    std::filesystem::resize_file(file, std::filesystem::file_size(file) - 1);
    std::cout << load_or_begin(store).getDouble("gain", 1) << " after damage\n";
    return std::filesystem::exists(file + ".damaged") ? 0 : 1;
}
