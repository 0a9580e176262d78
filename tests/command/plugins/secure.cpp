// Preloaded, it makes a program believe that it has the rights of another user.
#include <sys/auxv.h>

extern "C" unsigned long getauxval(unsigned long type) noexcept
{
    return type == AT_SECURE ? 1 : 0;
}
