// What all benchmarks share: the register of cases, and how a case is timed, counted and checked.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace quorval_bench {

/// Seconds that this thread had a processor. Unlike the time of the day it does not count what
/// other programs took; nearly no case waits for anything.
double thread_seconds();
/// Of the day, for what other processes do.
double wall_seconds();

/// One side of a case, ready to run: what is measured, what comes before each run unmeasured, and
/// whether the last run had the right outcome.
struct Side {
    std::function<void()> run;
    std::function<bool()> is_right;
    std::function<void()> prepare = [] {};
    double (*seconds)() = thread_seconds;
};

/// Adds a side whose time counts.
/// @param name        "<case>/<side>"; the sides of a case are compared with each other
/// @param operations  what one run does; times and instructions are given per operation. Runs are
///                    to take microseconds, so that reading the clock does not show.
/// @param make        makes the side, unmeasured
/// @param iterations  runs per repetition, 0 for as many as the least time takes
void add_time(const std::string& name, std::size_t operations, std::function<Side()> make,
              std::size_t iterations = 0);

/// Adds a side whose memory counts.
/// @param measure  gives the bytes, or a negative number when the outcome was wrong. Runs in a
///                 process of its own, whose heap is fresh.
void add_bytes(const std::string& name, std::function<double()> measure);

/// Adds a side that is known to take so many bytes.
void add_known_bytes(const std::string& name, double bytes);

/// Adds a side that is known to take so long for each operation.
void add_known_seconds(const std::string& name, double seconds);

/// Bytes of the heap that are in use.
std::size_t heap_in_use();

/// Bytes of memory that the process holds, and the most that it held since reset_peak().
std::size_t resident();
std::size_t peak_resident();
void reset_peak();

/// Bytes that `make` leaves in use, what it returns being alive.
template <class Make>
double heap_bytes_of(Make make)
{
    const std::size_t before = heap_in_use();
    const auto made = make();
    return static_cast<double>(heap_in_use()) - static_cast<double>(before);
}

/// Removed with all that is in it at the end of the program. Lies in memory where the machine has
/// a tmpfs.
const std::string& scratch_directory();

}  // namespace quorval_bench
