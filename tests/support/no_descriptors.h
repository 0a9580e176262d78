// A process that cannot open anything.
#pragma once

#include <sys/resource.h>

namespace quorval_test {

/// Leaves no descriptor to be had, until it goes.
class NoDescriptors {
public:
    NoDescriptors()
    {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        rlimit none = before_;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_{};
};

}  // namespace quorval_test
