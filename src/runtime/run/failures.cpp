#include "run/failures.h"

#include <quorval/log.h>

namespace Quorval::runtime {

namespace {

std::string left_out(std::uint64_t count)
{
    return count == 0 ? std::string() : " (" + std::to_string(count) + " more since the last one)";
}

}  // namespace

void Failures::report(std::uint32_t block, const char* operation, const std::string& text)
{
    logger(LOGLEVEL_ERROR, "block '%s' failed in %s: %s", network_.nodes[block].path.c_str(),
           operation, text.c_str());
    if (listener_) {
        listener_(network_.nodes[block].path, text);
    }
}

void Failures::report_run(std::uint32_t block, const std::string& text,
                          std::chrono::nanoseconds now)
{
    State& state = states_[block];
    if (state.is_reported && now - state.last < std::chrono::seconds(1)) {
        ++state.left_out;
        return;
    }
    report(block, "run", text + left_out(state.left_out));
    state = {now, 0, true};
}

void Failures::report_rest()
{
    for (std::size_t block = 0; block < states_.size(); ++block) {
        if (states_[block].left_out > 0) {
            logger(LOGLEVEL_ERROR, "block '%s' failed in run %llu more times",
                   network_.nodes[block].path.c_str(),
                   static_cast<unsigned long long>(states_[block].left_out));
            states_[block].left_out = 0;
        }
    }
}

}  // namespace Quorval::runtime
