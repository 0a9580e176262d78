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
           std::equal(mine.begin(), mine.end(), theirs.begin(), [](const Entry& a, const Entry& b) {
               return a.key == b.key && equal(a.element.value, b.element.value);
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
    for (const Entry& entry : Impl::of(other).elements) {
        mine.put(entry.key, Element(entry.element));
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
    for (const Entry& entry : Impl::of(*this).elements) {
        // Most often the keys are the same, and both walks go in step.
        const Entry* other_entry = nullptr;
        if (!at.is_end() && at->key == entry.key) {
            other_entry = &*at;
            ++at;
        } else {
            other_entry = theirs.find(entry.key);
        }
        if (other_entry == nullptr || !equal(entry.element.value, other_entry->element.value)) {
            differing.put(entry.key, Element(entry.element));
        }
    }
    return result;
}

void BlockConfiguration::rebase(const std::string& prefix)
{
    Impl::of(*this).elements.prepend(prefix + ".");
}

}  // namespace Quorval
