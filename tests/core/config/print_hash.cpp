// Prints the hash of a key in this process.

#include "config/elements.h"

#include <cstdio>

int main()
{
    return std::printf("%u\n", Quorval::hash_of("gain")) > 0 ? 0 : 1;
}
