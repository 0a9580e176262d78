// How a block loads and stores its state: `state DIRECTORY/` meets a damaged file and goes on.
#include <quorval/config.h>
#include <quorval/log.h>
#include <quorval/pstore.h>

#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

using namespace Quorval;

constexpr int kLast = 1;

BlockConfiguration load_state(PStore& store)
{
    const std::string file = store.get_path() + "state";
    if (!std::filesystem::exists(file)) {
        return BlockConfiguration();  // the first start
    }
    try {
        BlockConfiguration state = store.load("state");
        if (state.getInt("zz", 0) == kLast) {
            return state;
        }
        ilog(LOGLEVEL_WARNING) << file << " is cut";
    } catch (const std::ios_base::failure&) {
        throw;  // it cannot be opened, which says nothing about what is in it
    } catch (const std::runtime_error& error) {
        ilog(LOGLEVEL_WARNING) << file << " is damaged: " << error.what();
    }
    std::filesystem::rename(file, file + ".damaged");  // for whoever looks into it
    return BlockConfiguration();
}

void store_state(PStore& store, BlockConfiguration state)
{
    state.set("zz", kLast);  // the last in the order of the keys, so it is missing in a cut file
    store.store("state", state);
    if (store.load("state") != state) {
        throw std::runtime_error("No room for the state in " + store.get_path());
    }
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: state DIRECTORY/\n";
        return 2;
    }
    PStore store(argv[1]);
    std::cout << load_state(store).getDouble("gain", 1) << " at first\n";
    store_state(store, {{"gain", 0.5}});
    std::cout << load_state(store).getDouble("gain", 1) << " again\n";

    const std::string file = store.get_path() + "state";
    std::filesystem::resize_file(file, std::filesystem::file_size(file) - 1);
    std::cout << load_state(store).getDouble("gain", 1) << " after damage\n";
    return std::filesystem::exists(file + ".damaged") ? 0 : 1;
}
