#include "description/problem.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

namespace Quorval::runtime {

namespace {

/// The first of each; what is the same stands at the same place.
std::vector<Problem> without_repetitions(const std::vector<Problem>& sorted)
{
    std::vector<Problem> kept;
    std::set<std::tuple<Place, Severity, std::string>> seen;
    for (const Problem& problem : sorted) {
        if (seen.emplace(problem.place, problem.severity, problem.text).second) {
            kept.push_back(problem);
        }
    }
    return kept;
}

}  // namespace

void Problems::add_error(const Place& place, std::string text)
{
    problems_.push_back({place, Severity::Error, std::move(text)});
    ++error_count_;
}

void Problems::add_warning(const Place& place, std::string text)
{
    problems_.push_back({place, Severity::Warning, std::move(text)});
}

std::vector<Problem> Problems::sorted() const
{
    std::vector<Problem> sorted = problems_;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const Problem& a, const Problem& b) { return a.place < b.place; });
    return without_repetitions(sorted);
}

}  // namespace Quorval::runtime
