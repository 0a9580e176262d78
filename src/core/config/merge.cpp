#include <quorval/config.h>
#include "config/impl.h"

#include <algorithm>
#include <string>
#include <type_traits>
#include <utility>

namespace Quorval {

bool BlockConfiguration::operator==(const BlockConfiguration& other) const
{
    const Elements& mine = Impl::of(*this).elements;
    const Elements& theirs = Impl::of(other).elements;
    return mine.size() == theirs.size() &&
           std::equal(mine.begin(), mine.end(), theirs.begin(), [](const Entry& a, const Entry& b) {
               return a.key == b.key && equal(a.value, b.value);
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
    Impl::of(*this).elements.merge(Impl::of(other).elements);
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
    for (const Entry& entry : Impl::of(*this).elements) {
        // Most often the keys are the same, and both walks go in step.
        if (at.is_end() || at->key != entry.key) {
            at = theirs.lower_bound(entry.key);
        }
        const bool has_key = !at.is_end() && at->key == entry.key;
        if (!has_key || !equal(entry.value, at->value)) {
            differing.put(entry.key, copy_value(entry.value), entry.consumed);
        }
        if (has_key) {
            ++at;
        }
    }
    return result;
}

void BlockConfiguration::rebase(const std::string& prefix)
{
    Impl::of(*this).elements.prepend(prefix + ".");
}

}  // namespace Quorval
