// Preloaded, it makes a program believe that it has the rights of another. QUORVAL_TEST_RIGHTS says
// what shows it: "secure", "user" or "group".
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

bool is_wanted(const char* way)
{
    const char* wanted = std::getenv("QUORVAL_TEST_RIGHTS");
    return wanted != nullptr && std::strcmp(wanted, way) == 0;
}

}  // namespace

extern "C" {

unsigned long getauxval(unsigned long type) noexcept
{
    return type == AT_SECURE && is_wanted("secure") ? 1 : 0;
}

uid_t getuid() noexcept
{
    return geteuid() + (is_wanted("user") ? 1 : 0);
}

gid_t getgid() noexcept
{
    return getegid() + (is_wanted("group") ? 1 : 0);
}
}
