#include <algorithm>
#include <string>
#include <type_traits>
#include <utility>

#include <quorval/config.h>

#include "config/elements.h"

namespace Quorval {

bool equal(const Value& a, const Value& b)
{
    return visit_content(a, [&b](const auto& content) {
        const auto* other = content_if<std::decay_t<decltype(content)>>(b);
        return other != nullptr && content == *other;
    });
}

bool BlockConfiguration::operator==(const BlockConfiguration& other) const
{
    const Elements& mine = Impl::of(*this).elements;
    const Elements& theirs = Impl::of(other).elements;
    return mine.size() == theirs.size() &&
           std::equal(mine.begin(), mine.end(), theirs.begin(), [](const auto& a, const auto& b) {
               return a.first == b.first && equal(a.second.value, b.second.value);
           });
}

bool BlockConfiguration::operator!=(const BlockConfiguration& other) const
{
    return !(*this == other);
}

BlockConfiguration& BlockConfiguration::operator+=(const BlockConfiguration& other)
{
    if (this == &other) {
        return *this;
    }
    Elements& mine = Impl::of(*this).elements;
    auto at = mine.begin();
    for (const auto& [key, element] : Impl::of(other).elements) {
        if (seek(mine, at, key)) {
            at->second = element;
        } else {
            at = mine.emplace_hint(at, key, element);
        }
    }
    return *this;
}

BlockConfiguration BlockConfiguration::operator+(const BlockConfiguration& other) const
{
    BlockConfiguration merged(*this);
    merged += other;
    return merged;
}

BlockConfiguration BlockConfiguration::diff(const BlockConfiguration& other) const
{
    const Elements& theirs = Impl::of(other).elements;
    auto at = theirs.begin();
    BlockConfiguration result;
    Elements& differing = Impl::of(result).elements;
    for (const auto& [key, element] : Impl::of(*this).elements) {
        if (!seek(theirs, at, key) || !equal(element.value, at->second.value)) {
            differing.emplace_hint(differing.end(), key, element);
        }
    }
    return result;
}

void BlockConfiguration::rebase(const std::string& prefix)
{
    // All that can fail comes first: the elements move over when their new keys are there.
    Elements& elements = Impl::of(*this).elements;
    Elements rebased;
    for (const auto& entry : elements) {
        rebased.emplace_hint(rebased.end(), prefix + "." + entry.first, Element());
    }
    auto from = elements.begin();
    for (auto& entry : rebased) {
        entry.second = std::move((from++)->second);
    }
    elements.swap(rebased);
}

}  // namespace Quorval
