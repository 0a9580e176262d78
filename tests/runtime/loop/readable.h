// Whether a descriptor can be read.
#pragma once

#include <poll.h>

namespace quorval_test {

inline bool is_readable(int fd)
{
    pollfd one = {fd, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0;
}

}  // namespace quorval_test
