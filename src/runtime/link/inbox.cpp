#include "link/inbox.h"

#include "plugins/codecs.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

Inbox::Inbox(Entry& entry, std::vector<Datatype> inputs, const PluginSet& plugins,
             std::size_t limit)
    : entry_(entry),
      inputs_(std::move(inputs)),
      plugins_(plugins),
      limit_(limit),
      losses_(entry.path + "." + entry.port)
{
    statistics_.output = entry.path + "." + entry.port;
    statistics_.comes_in = true;
}

void Inbox::receive(const Stamp& stamp, std::string_view bytes, Time now)
{
    const std::string fault = find_fault(stamp, bytes);
    // What is no value of this output says nothing about its numbers.
    if (stamp.number == 0 || !find_fault(stamp.type).empty()) {
        losses_.add(1, fault, now);
        return;
    }
    if (!follow(stamp, now)) {
        ++statistics_.duplicates;
        return;
    }
    if (!fault.empty()) {
        losses_.add(1, fault, now);
        return;
    }
    if (!entry_.keeps_all) {
        values_.clear();
    }
    values_.push_back({stamp.type, std::string(bytes)});
    statistics_.longest_queue = std::max<std::uint64_t>(statistics_.longest_queue, values_.size());
}

/// Looks at the number of a value, and tells of those that are missing before it.
/// @return false: it came before
bool Inbox::follow(const Stamp& stamp, Time now)
{
    const bool is_first = number_ == 0;
    if (stamp.start != start_) {
        start_ = stamp.start;
        number_ = is_first ? stamp.number - 1 : 0;
    } else if (stamp.number <= number_) {
        return false;
    }
    const std::uint64_t missing = stamp.number - number_ - 1;
    number_ = stamp.number;
    if (missing > 0 && entry_.keeps_all) {
        statistics_.gaps += missing;
        losses_.add(missing, "they did not arrive", now);
    }
    return true;
}

/// What is wrong with a message; empty for nothing.
std::string Inbox::find_fault(const Stamp& stamp, std::string_view bytes) const
{
    if (stamp.number == 0) {
        return "a message has no type, start and number";
    }
    std::string fault = find_fault(stamp.type);
    if (fault.empty() && bytes.size() > limit_) {
        fault = std::to_string(bytes.size()) + " bytes are more than the limit of " +
                std::to_string(limit_);
    }
    return fault;
}

std::string Inbox::find_fault(const std::string& type) const
{
    try {
        const Datatype given(type);
        for (const Datatype& input : inputs_) {
            if (!input.is_assignable_from(given)) {
                return "type " + type + " does not fit " + input.get_name();
            }
        }
    } catch (const std::runtime_error&) {
        return "a message has no valid type";
    }
    return plugins_.find_codec(type) == nullptr ? "there is no codec for " + type : std::string();
}

bool Inbox::put_next(Time now)
{
    const Value value = std::move(values_.front());
    values_.pop_front();
    const Codec& codec = *plugins_.find_codec(value.type);
    std::shared_ptr<void>& place = entry_.output->place(value.type);
    try {
        if (place == nullptr) {
            place = make_value(codec);
        }
        decode(codec, value.bytes, place.get());
    } catch (const std::runtime_error& error) {
        losses_.add(1, std::string("a value cannot be decoded: ") + error.what(), now);
        return false;
    }
    entry_.output->publish(place.get());
    ++statistics_.values;
    statistics_.bytes += value.bytes.size();
    return true;
}

LinkStatistics Inbox::statistics() const
{
    LinkStatistics statistics = statistics_;
    statistics.lost = losses_.count();
    return statistics;
}

void Inbox::drop_rest(Time now)
{
    if (entry_.keeps_all && !values_.empty()) {
        losses_.add(values_.size(), "the graph stopped before it took them", now);
    }
    values_.clear();
    losses_.add_rest();
}

}  // namespace Quorval::runtime
