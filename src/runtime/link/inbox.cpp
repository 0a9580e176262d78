#include "link/inbox.h"

#include "messages/context.h"
#include "plugins/codecs.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

namespace {

// A broker that comes back may give as many values once more.
constexpr std::uint64_t kMostBehind = 1'000'000;
// More are no count that could be believed.
constexpr std::uint64_t kMostMissing = std::uint64_t{1} << 32U;
// A sender whose clock was set back is followed after as many of its values.
constexpr int kMostLate = 100;

}  // namespace

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
    const std::string fault = find_fault(stamp);
    // What is no value of this output says nothing about its numbers.
    if (!fault.empty()) {
        losses_.add(1, fault, now);
        return;
    }
    if (!follow(stamp, now)) {
        return;
    }
    if (bytes.size() > limit_) {
        losses_.add(1,
                    std::to_string(bytes.size()) + " bytes are more than the limit of " +
                        std::to_string(limit_),
                    now);
        return;
    }
    if (!entry_.keeps_all) {
        clear();
    }
    values_.push_back({stamp.type, std::string(bytes)});
    bytes_ += bytes.size();
    statistics_.longest_queue = std::max<std::uint64_t>(statistics_.longest_queue, values_.size());
}

/// Looks at the start and the number of a value, and tells of those that are missing before it.
/// Numbers may be hostile: none of them keeps those that follow from being taken for ever.
/// @return false: it came before, or belongs to an earlier run of the sender
bool Inbox::follow(const Stamp& stamp, Time now)
{
    if (stamp.start < start_ && ++late_ < kMostLate) {
        losses_.add(1, "they are of an earlier run", now);
        return false;
    }
    late_ = 0;
    const std::uint64_t before = std::exchange(start_, stamp.start);
    if (before != start_) {
        const bool is_followed_from_here = number_ == 0 || start_ < before;
        number_ = is_followed_from_here ? stamp.number - 1 : 0;
    }
    if (stamp.number <= number_ && number_ - stamp.number < kMostBehind) {
        ++statistics_.duplicates;
        return false;
    }
    const std::uint64_t missing = stamp.number > number_ ? stamp.number - number_ - 1 : 0;
    number_ = stamp.number;
    if (missing > 0 && missing < kMostMissing && entry_.keeps_all) {
        statistics_.gaps += missing;
        losses_.add(missing, "they did not arrive", now);
    }
    return true;
}

/// What is wrong with what a message says of itself; empty for nothing.
std::string Inbox::find_fault(const Stamp& stamp)
{
    if (stamp.number == 0) {
        return "a message has no type, start and number";
    }
    if (stamp.type == accepted_type_) {
        return {};
    }
    std::string fault = find_fault(stamp.type);
    if (fault.empty()) {
        accepted_type_ = stamp.type;
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
    bytes_ -= value.bytes.size();
    const Codec& codec = *plugins_.find_codec(value.type);
    std::shared_ptr<void>& place = entry_.output->place(value.type);
    try {
        const ContextScope scope(entry_.path.c_str(), "receive");
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

void Inbox::clear()
{
    values_.clear();
    bytes_ = 0;
}

void Inbox::drop_rest(Time now)
{
    if (entry_.keeps_all && !values_.empty()) {
        losses_.add(values_.size(), "the graph stopped before it took them", now);
    }
    clear();
}

}  // namespace Quorval::runtime
