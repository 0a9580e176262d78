#include "graph/standard_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace Quorval::runtime {

namespace {

void flush()
{
    std::cout.flush();
    static_cast<void>(std::fflush(stdout));
}

/// A copy of standard output, to which nothing is left to be written.
int copy_standard_output()
{
    flush();
    return ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
}

}  // namespace

StandardOutputScope::StandardOutputScope() : saved_(copy_standard_output())
{
    if (saved_ >= 0) {
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
    }
}

StandardOutputScope::~StandardOutputScope()
{
    flush();
    if (saved_ >= 0) {
        ::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
    }
}

}  // namespace Quorval::runtime
