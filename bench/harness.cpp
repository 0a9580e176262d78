#include "harness.h"

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace quorval_bench {

namespace {

struct TimedCase {
    std::size_t operations;
    std::function<Side()> make;
};

std::map<std::string, TimedCase>& timed_cases()
{
    static std::map<std::string, TimedCase> cases;
    return cases;
}

double seconds_of(clockid_t clock)
{
    constexpr double kNano = 1e-9;
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + kNano * static_cast<double>(now.tv_nsec);
}

void time_case(benchmark::State& state, const TimedCase& timed)
{
    const Side side = timed.make();
    for (auto _ : state) {
        side.prepare();
        const double start = side.seconds();
        side.run();
        state.SetIterationTime(side.seconds() - start);
    }
    if (!side.is_right()) {
        state.SkipWithError("wrong result");
    }
    state.counters["operations"] = static_cast<double>(timed.operations);
}

double measure_in_child(const std::function<double()>& measure)
{
    // Made here, so that it is this process that removes it.
    scratch_directory();
    int ends[2];
    if (::pipe(ends) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t child = ::fork();
    if (child == 0) {
        const double bytes = measure();
        const bool written = ::write(ends[1], &bytes, sizeof bytes) == sizeof bytes;
        ::_exit(written ? 0 : 1);
    }
    double bytes = -1;
    const bool is_read = child > 0 && (::close(ends[1]), ends[1] = -1,
                                       ::read(ends[0], &bytes, sizeof bytes) == sizeof bytes);
    int status = -1;
    if (child > 0) {
        ::waitpid(child, &status, 0);
    }
    ::close(ends[0]);
    if (ends[1] >= 0) {
        ::close(ends[1]);
    }
    return is_read && status == 0 ? bytes : -1;
}

void measure_case(benchmark::State& state, const std::function<double()>& measure)
{
    double bytes = 0;
    for (auto _ : state) {
        bytes = measure();
        state.SetIterationTime(1e-9);
    }
    if (bytes < 0) {
        state.SkipWithError("wrong result");
    }
    state.counters["bytes"] = bytes;
}

/// The sum of the fields of /proc/self/status that hold kilobytes under `name`.
std::size_t status_bytes(std::string_view name)
{
    constexpr std::size_t kKilobyte = 1024;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size(), name) == 0) {
            return kKilobyte * std::stoul(line.substr(name.size() + 1));
        }
    }
    throw std::runtime_error("/proc/self/status has no " + std::string(name));
}

class ScratchDirectory {
public:
    ScratchDirectory()
    {
        const bool has_tmpfs = ::access("/dev/shm", W_OK) == 0;
        path_ = std::string(has_tmpfs ? "/dev/shm" : "/tmp") + "/quorval-bench-XXXXXX";
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("cannot make " + path_);
        }
        path_ += '/';
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

/// Stands alone so that a profiler can be told to count inside of it only.
__attribute__((noinline)) void counted_run(const Side& side)
{
    side.run();
    // Keeps the call from being the last thing done here, and so from becoming a jump.
    benchmark::ClobberMemory();
}

/// Runs one side twice, the first time to fill caches, and prints its operations. Of a fresh
/// process it is the first run that counts.
int count_case(const std::string& name)
{
    const auto found = timed_cases().find(name);
    if (found == timed_cases().end()) {
        std::cerr << "There is no timed case " << name << '\n';
        return EXIT_FAILURE;
    }
    const Side side = found->second.make();
    if (name.rfind("fresh", 0) != 0) {
        side.prepare();
        side.run();
    }
    side.prepare();
    counted_run(side);
    std::cout << found->second.operations << '\n';
    return side.is_right() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

double thread_seconds()
{
    return seconds_of(CLOCK_THREAD_CPUTIME_ID);
}

double wall_seconds()
{
    return seconds_of(CLOCK_MONOTONIC);
}

void add_time(const std::string& name, std::size_t operations, std::function<Side()> make,
              std::size_t iterations)
{
    const auto at = timed_cases().emplace(name, TimedCase{operations, std::move(make)}).first;
    auto* registered = benchmark::RegisterBenchmark(
        name.c_str(), [at](benchmark::State& state) { time_case(state, at->second); });
    registered->UseManualTime()->Unit(benchmark::kNanosecond);
    if (iterations > 0) {
        registered->Iterations(static_cast<benchmark::IterationCount>(iterations));
    }
}

void add_bytes(const std::string& name, std::function<double()> measure)
{
    benchmark::RegisterBenchmark(name.c_str(),
                                 [measure](benchmark::State& state) {
                                     measure_case(state,
                                                  [&measure] { return measure_in_child(measure); });
                                 })
        ->UseManualTime()
        ->Iterations(1);
}

void add_known_bytes(const std::string& name, double bytes)
{
    benchmark::RegisterBenchmark(
        name.c_str(),
        [bytes](benchmark::State& state) { measure_case(state, [bytes] { return bytes; }); })
        ->UseManualTime()
        ->Iterations(1);
}

void add_known_seconds(const std::string& name, double seconds)
{
    benchmark::RegisterBenchmark(name.c_str(),
                                 [seconds](benchmark::State& state) {
                                     for (auto _ : state) {
                                         state.SetIterationTime(seconds);
                                     }
                                     state.counters["operations"] = 1;
                                 })
        ->UseManualTime()
        ->Unit(benchmark::kNanosecond)
        ->Iterations(1);
}

std::size_t heap_in_use()
{
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

std::size_t resident()
{
    return status_bytes("VmRSS:");
}

std::size_t peak_resident()
{
    return status_bytes("VmHWM:");
}

void reset_peak()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

const std::string& scratch_directory()
{
    static const ScratchDirectory directory;
    return directory.path();
}

}  // namespace quorval_bench

int main(int argc, char** argv)
{
    const std::string_view kCount = "--count=";
    if (argc == 2 && std::string_view(argv[1]).compare(0, kCount.size(), kCount) == 0) {
        return quorval_bench::count_case(argv[1] + kCount.size());
    }
    benchmark::AddCustomContext("missing_peers", QUORVAL_BENCH_MISSING_PEERS);
    benchmark::AddCustomContext("compiler", QUORVAL_BENCH_COMPILER);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
