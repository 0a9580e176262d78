#include "soak/holdings.h"

#include "support/allocations.h"
#include "support/support.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

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

/// The directory of a process, or of this one.
std::string directory_of(pid_t process)
{
    return process == 0 ? "/proc/self" : "/proc/" + std::to_string(process);
}

std::size_t count_descriptors(pid_t process)
{
    if (process == 0) {
        return quorval_test::open_descriptors().size();
    }
    const std::filesystem::directory_iterator all(directory_of(process) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

long count_mappings(pid_t process)
{
    std::ifstream maps(directory_of(process) + "/maps");
    long count = 0;
    for (std::string line; std::getline(maps, line);) {
        ++count;
    }
    return count;
}

long read_resident_kib(pid_t process)
{
    std::ifstream statm(directory_of(process) + "/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return resident * ::sysconf(_SC_PAGESIZE) / 1024;
}

/// The allocations are those of this process alone.
Holdings look(pid_t process)
{
    return {count_descriptors(process), count_mappings(process), read_resident_kib(process),
            process == 0 ? quorval_test::live_allocations() : 0};
}

std::ostream& operator<<(std::ostream& os, const Holdings& holdings)
{
    os << holdings.descriptors << " descriptors, " << holdings.mappings << " mappings, "
       << holdings.resident_kib << " KiB resident";
    return holdings.allocations == 0 ? os : os << ", " << holdings.allocations << " allocations";
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

bool run_flat(const std::string& name, long times, const std::function<void(long)>& cycle,
              const std::vector<pid_t>& others)
{
    const std::vector<pid_t> processes = others.empty() ? std::vector<pid_t>{0} : others;
    const long tenth = std::max(times / 10, 1L);
    // There from the beginning, as they count too.
    std::vector<Holdings> first(processes.size());
    std::vector<Holdings> now(processes.size());
    bool flat = true;
    for (long done = 1; flat && done <= times; ++done) {
        cycle(done);
        if (done % tenth == 0) {
            std::transform(processes.begin(), processes.end(), now.begin(), look);
            if (done == tenth) {
                first = now;
            }
            flat = std::equal(first.begin(), first.end(), now.begin(), is_flat);
            std::cout << name << ": " << done << " of " << times;
            for (const Holdings& one : now) {
                std::cout << (others.empty() ? ", " : "; ") << one;
            }
            std::cout << (flat ? "" : "  GROWN") << std::endl;
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
