#include "graph/unread.h"

#include "graph/values.h"

#include <string>
#include <variant>

namespace Quorval::runtime {

namespace {

using Range = std::vector<SettingRef>::const_iterator;

/// Marks an element as read.
void consume(const BlockConfiguration& config, const SettingRef& ref)
{
    const std::string key(ref.key());
    if (std::holds_alternative<double>(ref.setting->value)) {
        config.getDouble(key, 0.0);
    } else if (std::holds_alternative<std::vector<double>>(ref.setting->value)) {
        config.getDoubleVector(key, {});
    }
}

/// A configuration without some of its elements; the others keep their marks.
BlockConfiguration without(const BlockConfiguration& config, Range begin, Range end)
{
    BlockConfiguration removed;
    for (auto ref = begin; ref != end; ++ref) {
        if (!ref->setting->is_wrong) {  // its key may be one that no configuration holds
            set_value(removed, std::string(ref->key()), ref->setting->value);
        }
    }
    BlockConfiguration rest = config.diff(removed);
    // What holds a NaN equals nothing, so it is still there.
    for (auto ref = begin; ref != end; ++ref) {
        consume(rest, *ref);
    }
    return rest;
}

/// A configuration tells only whether all of it was read, so it is halved until one is left.
void collect(const BlockConfiguration& config, Range begin, Range end,
             std::vector<const SettingRef*>& found)
{
    if (config.is_consumed()) {
        return;
    }
    if (end - begin == 1) {
        found.push_back(&*begin);
        return;
    }
    const auto middle = begin + (end - begin) / 2;
    collect(without(config, middle, end), begin, middle, found);
    collect(without(config, begin, middle), middle, end, found);
}

}  // namespace

std::vector<const SettingRef*> find_unread(const BlockConfiguration& config,
                                           const std::vector<SettingRef>& settings)
{
    std::vector<const SettingRef*> found;
    collect(config, settings.begin(), settings.end(), found);
    return found;
}

}  // namespace Quorval::runtime
