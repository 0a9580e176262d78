#include "soak/holdings.h"

#include "support/allocations.h"
#include "support/support.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iostream>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUORVAL_SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QUORVAL_SOAK_SANITIZED 1
#endif
#endif

namespace {

// The memory of the process moves a little with what the C library keeps for the next time. The
// bookkeeping of a sanitizer grows with every thing that it has seen.
#ifdef QUORVAL_SOAK_SANITIZED
constexpr long kResidentSlackKiB = 256 * 1024;
constexpr long kMappingSlack = 500;
#else
constexpr long kResidentSlackKiB = 2 * 1024;
constexpr long kMappingSlack = 2;
#endif

struct Holdings {
    std::size_t descriptors;
    long mappings;
    long resident_kib;
    long allocations;
};

long count_mappings()
{
    std::ifstream maps("/proc/self/maps");
    long count = 0;
    for (std::string line; std::getline(maps, line);) {
        ++count;
    }
    return count;
}

long read_resident_kib()
{
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return resident * ::sysconf(_SC_PAGESIZE) / 1024;
}

Holdings look()
{
    return {quorval_test::open_descriptors().size(), count_mappings(), read_resident_kib(),
            quorval_test::live_allocations()};
}

std::ostream& operator<<(std::ostream& os, const Holdings& holdings)
{
    return os << holdings.descriptors << " descriptors, " << holdings.mappings << " mappings, "
              << holdings.resident_kib << " KiB resident, " << holdings.allocations
              << " allocations";
}

/// Whether nothing has grown but what may.
bool is_flat(const Holdings& before, const Holdings& after)
{
    return after.descriptors == before.descriptors &&
           after.mappings <= before.mappings + kMappingSlack &&
           after.resident_kib <= before.resident_kib + kResidentSlackKiB &&
           after.allocations == before.allocations;
}

}  // namespace

bool run_flat(const std::string& name, long times, const std::function<void(long)>& cycle)
{
    const long tenth = std::max(times / 10, 1L);
    Holdings first = {};
    bool flat = true;
    for (long done = 1; done <= times; ++done) {
        cycle(done);
        if (done % tenth == 0) {
            const Holdings now = look();
            if (done == tenth) {
                first = now;
            }
            flat = is_flat(first, now);
            std::cout << name << ": " << done << " of " << times << ", " << now
                      << (flat ? "" : "  GROWN") << std::endl;
            if (!flat) {
                return false;
            }
        }
    }
    return flat;
}

long read_divisor(int argc, char** argv)
{
    const long divisor = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 1;
    if (argc > 2 || divisor < 1 || divisor > 100'000) {
        std::cerr << "usage: soak [DIVISOR], of 1 to 100000\n";
        return 0;
    }
    return divisor;
}

int tell_result(bool is_flat)
{
    std::cout << (is_flat ? "Nothing has grown." : "Something has grown.") << std::endl;
    return is_flat ? 0 : 1;
}
