// What a test asks of descriptors.
#pragma once

#include "support/support.h"

#include <poll.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace quorval_test {

inline bool is_readable(int fd)
{
    pollfd one = {fd, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0;
}

/// The one open descriptor of a kind.
/// @param kind  as the system names it, "[timerfd]"
inline int find_descriptor(const std::string& kind)
{
    const std::vector<int> open = open_descriptors();
    const auto is_wanted = [&kind](int fd) {
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        return std::filesystem::read_symlink(link) == "anon_inode:" + kind;
    };
    return *std::find_if(open.begin(), open.end(), is_wanted);
}

}  // namespace quorval_test
