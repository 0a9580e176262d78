// The run-time services of the application that these tests stand for.
#pragma once

#include <quorval/block.h>

struct Quorval::RuntimeTools {
    int number = 0;
};
