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
    std::fflush(stdout);
}

}  // namespace

StandardOutputScope::StandardOutputScope()
{
    flush();
    saved_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
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
