// Prints the hash of a key in this process.

#include <cstdio>

#include "config/elements.h"

int main()
{
    return std::printf("%u\n", Quorval::hash_of("gain")) > 0 ? 0 : 1;
}
