#include "faults/faults.h"

#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <limits>
#include <sstream>

namespace quorval_test {

using Quorval::BlockConfiguration;

namespace {

// None of them is the status that a sanitizer ends a process with.
constexpr int kSucceeded = 10;
constexpr int kRanOutOfMemory = 11;
constexpr int kTerminated = 12;
constexpr int kLost = 13;
constexpr int kOther = 14;

int run_and_count(std::size_t nth, Mode mode, const std::function<void()>& act)
{
    const std::vector<int> descriptors = open_descriptors();
    const long live = live_allocations();
    int status = kSucceeded;
    {
        const FailingAllocation failing(nth, mode);
        try {
            act();
            // A message may be cut, so a failure need not come out.
        } catch (const std::bad_alloc&) {
            status = FailingAllocation::has_failed() ? kRanOutOfMemory : kOther;
        } catch (...) {
            status = kOther;
        }
        if (status == kSucceeded && FailingAllocation::has_failed()) {
            status = kRanOutOfMemory;
        }
    }
    if (live_allocations() != live || open_descriptors() != descriptors) {
        return kLost;
    }
    return status;
}

}  // namespace

Ending run_in_child(std::size_t nth, Mode mode, const std::function<void()>& act)
{
    const ::pid_t child = ::fork();
    if (child == 0) {
        std::set_terminate([] { ::_exit(kTerminated); });
        ::_exit(run_and_count(nth, mode, act));
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return Ending::Failed;
    }
    switch (WEXITSTATUS(status)) {
        case kSucceeded:
            return Ending::Succeeded;
        case kRanOutOfMemory:
            return Ending::RanOutOfMemory;
        case kTerminated:
            return Ending::Terminated;
        default:
            ADD_FAILURE() << "the process ended with status " << WEXITSTATUS(status);
            return Ending::Failed;
    }
}

Endings fail_each_allocation_in_child(Mode mode, const std::function<void()>& act, std::size_t step)
{
    act();  // makes what is made once in a process
    Endings endings;
    for (std::size_t nth = 1; nth < kMostAllocations; nth += step) {
        SCOPED_TRACE("allocation " + std::to_string(nth) + " fails, " + name_of(mode));
        switch (run_in_child(nth, mode, act)) {
            case Ending::Succeeded:
                return endings;
            case Ending::RanOutOfMemory:
                ++endings.ran_out;
                break;
            case Ending::Terminated:
                ++endings.terminated;
                break;
            case Ending::Failed:
                ADD_FAILURE() << "the process died, or lost memory or a descriptor";
                return endings;
        }
    }
    ADD_FAILURE() << "never succeeded";
    return endings;
}

std::vector<std::string> consumed_keys(const BlockConfiguration& config)
{
    std::vector<std::string> consumed;
    BlockConfiguration copy = config;
    for (auto it = copy.iterate(""); !it->is_end(); it->advance()) {
        const std::string& key = it->key();
        BlockConfiguration differing = config;
        if (config.getType(key) == BlockConfiguration::Type::Int) {
            differing.set(key, true);
        } else {
            differing.set(key, 0);
        }
        // The one element in which they differ, with its mark.
        if (config.diff(differing).is_consumed()) {
            consumed.push_back(key);
        }
    }
    return consumed;
}

std::string describe(const BlockConfiguration& config)
{
    std::ostringstream text;
    text.precision(std::numeric_limits<double>::max_digits10);
    text << config << "consumed:";
    for (const std::string& key : consumed_keys(config)) {
        text << ' ' << key;
    }
    return text.str();
}

BlockConfiguration make_sample()
{
    BlockConfiguration config;
    config.set("inputs.0.sampling-frequency", 48000);
    config.set("inputs.0.is-enabled-at-start", true);
    config.set("inputs.0.amplification-factor", 0.5);
    config.set("inputs.0.human-readable-name", "a name of more than a few characters");
    config.set("inputs.1.channel-numbers", std::vector<int>{3, 1, 2});
    config.set("inputs.1.filter-coefficients", std::vector<double>{0.25, -1.5});
    config.set("inputs.1.channel-names",
               std::vector<std::string>{"the channel on the left side", "right", ""});
    config.set("inputs.1.channel-is-muted", std::vector<bool>{true, false, true});
    config.getInt("inputs.0.sampling-frequency");
    config.getStringVector("inputs.1.channel-names");
    return config;
}

}  // namespace quorval_test
