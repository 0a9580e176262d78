// The program of the page on store files: `store DIRECTORY/` writes a file and reads it back.
#include <quorval/config.h>
#include <quorval/pstore.h>

#include <iostream>
#include <string>

using namespace Quorval;

void keep_state(const std::string& directory)
{
    PStore store(directory);  // absolute, with a "/" at its end
    store.store("state", {{"gain", 0.5}, {"ports", {{{"name", "left"}}}}, {"taps", {1, -2}}});

    const BlockConfiguration state = store.load("state");
    std::cout << state;
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: store DIRECTORY/\n";
        return 2;
    }
    keep_state(argv[1]);
}
