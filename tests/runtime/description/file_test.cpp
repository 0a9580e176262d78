#include "description/file.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <ios>
#include <vector>

using Quorval::runtime::is_refused_for_root;

namespace {

TEST(RefusedForRoot, IsWhatOthersMayWriteTo)
{
    struct Case {
        mode_t mode;
        gid_t group;
        bool is_open;  // to others
    };
    const std::vector<Case> cases = {
        {0644, 0, false}, {0600, 7, false}, {0755, 7, false}, {0664, 0, false}, {0664, 7, true},
        {0620, 7, true},  {0646, 0, true},  {0602, 0, true},  {01777, 0, true}, {0, 7, false},
    };
    for (const Case& one : cases) {
        struct stat status {};
        status.st_mode = S_IFREG | one.mode;
        status.st_gid = one.group;
        EXPECT_EQ(is_refused_for_root(status), one.is_open && ::geteuid() == 0)
            << std::oct << one.mode << ", group " << one.group;
    }
}

}  // namespace
