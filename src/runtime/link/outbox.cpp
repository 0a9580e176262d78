#include "link/outbox.h"

#include "messages/context.h"
#include "plugins/codecs.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

Outbox::Outbox(const Exit& exit, const std::string& path, const PluginSet& plugins,
               std::size_t queue, std::size_t limit)
    : path_(path),
      name_(path + "." + exit.port),
      type_(exit.output->get_datatype().get_name()),
      output_(exit.output),
      codec_(*plugins.find_codec(type_)),
      keeps_all_(exit.keeps_all),
      queue_(keeps_all_ ? queue : 1),
      limit_(limit),
      losses_(name_)
{
}

void Outbox::take(Time now)
{
    if (output_->get_data() == nullptr) {
        return;
    }
    ++number_;
    try {
        const ContextScope scope(path_.c_str(), "send");
        encode(codec_, output_->get_data(), bytes_);
    } catch (const std::runtime_error& error) {
        losses_.add(1, std::string("a value cannot be encoded: ") + error.what(), now);
        return;
    }
    if (bytes_.size() > limit_) {
        losses_.add(1,
                    std::to_string(bytes_.size()) + " bytes are more than the limit of " +
                        std::to_string(limit_),
                    now);
        return;
    }
    if (messages_.size() >= queue_) {
        messages_.pop_front();
        if (keeps_all_) {
            losses_.add(1, "the queue of " + std::to_string(queue_) + " values is full", now);
        }
    }
    messages_.push_back({number_, bytes_});
    is_repeated_ = false;
    longest_ = std::max(longest_, messages_.size());
}

LinkStatistics Outbox::statistics() const
{
    LinkStatistics statistics;
    statistics.output = name_;
    statistics.values = values_;
    statistics.bytes = sent_bytes_;
    statistics.lost = losses_.count();
    statistics.longest_queue = longest_;
    return statistics;
}

void Outbox::hand_on()
{
    if (!is_repeated_) {
        ++values_;
        sent_bytes_ += messages_.front().bytes.size();
    }
    if (!keeps_all_) {
        latest_ = std::move(messages_.front());
    }
    messages_.pop_front();
}

void Outbox::repeat_latest()
{
    if (!keeps_all_ && messages_.empty() && latest_.number > 0) {
        messages_.push_back(std::move(latest_));
        latest_ = {};
        is_repeated_ = true;
    }
}

void Outbox::lose_next(const std::string& why, Time now)
{
    messages_.pop_front();
    losses_.add(1, why, now);
}

void Outbox::take_back(std::size_t bytes, const std::string& why, Time now)
{
    --values_;
    sent_bytes_ -= bytes;
    losses_.add(1, why, now);
}

void Outbox::drop_rest(Time now)
{
    if (keeps_all_ && !messages_.empty()) {
        losses_.add(messages_.size(), "the graph stopped before they were sent", now);
    }
    messages_.clear();
    losses_.add_rest();
}

}  // namespace Quorval::runtime
