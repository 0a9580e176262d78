#include "link/link.h"

#include <quorval/log.h>
#include "link/topics.h"

#include <mqtt_protocol.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>
#include <utility>

namespace Quorval::runtime {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint32_t kLinkTag = kFirstReservedTag + 8;
constexpr milliseconds kFirstPause(100);
constexpr seconds kLongestPause(30);
constexpr seconds kPatience(30);           // with a broker that does not answer
constexpr seconds kWorkPause(10);          // a third of the keep-alive
constexpr std::size_t kMostSent = 20;      // messages without a receipt
constexpr std::size_t kMostPending = 100;  // values that the graph has not taken
constexpr int kReadsAtOnce = 64;
constexpr std::size_t kMostBytes = std::size_t{64} * 1024 * 1024;  // of values, in a direction
constexpr int kFirstRefusal = 128;  // reasons of MQTT 5 from here on are refusals

constexpr const char* kTlsFailed = "TLS failed; a certificate or a key may be wrong";

MqttClient::Identity identity_of(const Link::Setting& setting, const Network& network,
                                 std::uint64_t start)
{
    const bool keeps_session = std::any_of(network.entries.begin(), network.entries.end(),
                                           [](const Entry& entry) { return entry.keeps_all; });
    return {client_name(setting.graph, setting.machine),
            machine_topic(setting.graph, setting.machine), Presence::kOffline, start,
            keeps_session};
}

std::vector<std::string> others_of(const Link::Setting& setting)
{
    std::vector<std::string> others = setting.machines;
    others.erase(std::remove(others.begin(), others.end(), setting.machine), others.end());
    return others;
}

std::vector<Datatype> input_types(const Network& network, std::uint32_t entry)
{
    std::vector<Datatype> types;
    for (const EntryWire& wire : network.entry_wires) {
        if (wire.entry == entry) {
            types.push_back(wire.input->get_datatype());
        }
    }
    return types;
}

std::uint64_t time_of_day()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

/// Whether the name service has to be asked for a host.
bool needs_lookup(const std::string& host)
{
    in6_addr address{};
    return host != "localhost" && ::inet_pton(AF_INET, host.c_str(), &address) != 1 &&
           ::inet_pton(AF_INET6, host.c_str(), &address) != 1;
}

/// Why a connection ended, in words.
std::string text_of_end(int reason, int error)
{
    if (reason >= kFirstRefusal) {
        return ::mosquitto_reason_string(reason);
    }
    if (error == EPROTO || reason == MOSQ_ERR_TLS) {
        return "TLS failed";
    }
    if (error != 0) {
        return std::generic_category().message(error);
    }
    return reason == MOSQ_ERR_SUCCESS ? "it ended the connection" : text_of_error(reason);
}

/// Whether a broker that refuses a connection so will do it again.
bool is_final(int reason)
{
    static const std::set<int> kPassing = {MQTT_RC_SERVER_UNAVAILABLE, MQTT_RC_SERVER_BUSY,
                                           MQTT_RC_QUOTA_EXCEEDED,
                                           MQTT_RC_CONNECTION_RATE_EXCEEDED};
    return kPassing.count(reason) == 0;
}

}  // namespace

Link::Link(const Setting& setting, Network& network, const PluginSet& plugins, Poller& poller,
           Time (*now)())
    : setting_(setting),
      network_(network),
      poller_(poller),
      now_(now),
      start_(time_of_day()),
      presence_(others_of(setting)),
      client_(setting.description, identity_of(setting, network, start_),
              [this](const char* topic, const Stamp& stamp, std::string_view bytes) {
                  receive(topic, stamp, bytes);
              }),
      most_bytes_(std::max(setting.description.limit, kMostBytes)),
      pause_(kFirstPause),
      needs_lookup_(needs_lookup(setting.description.host))
{
    inboxes_.reserve(network.entries.size());
    for (std::uint32_t i = 0; i < network.entries.size(); ++i) {
        Entry& entry = network.entries[i];
        by_topic_[value_topic(setting.graph, entry.path, entry.port)] = i;
        inboxes_.emplace_back(entry, input_types(network, i), plugins, setting.description.limit);
    }
    for (const Exit& exit : network.exits) {
        const std::string& path = network.nodes[exit.from].path;
        topics_.push_back(value_topic(setting.graph, path, exit.port));
        outboxes_.emplace_back(exit, path, plugins, setting.description.queue,
                               setting.description.limit);
    }
    lacks_reader_.resize(outboxes_.size());
}

Link::~Link() = default;

void Link::attach(Wave& wave)
{
    for (std::uint32_t exit = 0; exit < network_.exits.size(); ++exit) {
        wave.watch(network_.exits[exit].from, *network_.exits[exit].output, *this, exit);
    }
}

void Link::has_value(std::uint32_t exit)
{
    outboxes_[exit].take(now_());
}

// --- the loop ---

void Link::prepare()
{
    if (is_ending_) {
        drop_rest();
    }
    const Time now = now_();
    if (state_ == State::Away && is_ending_ && (needs_lookup_ || !has_to_send())) {
        state_ = State::Closed;
    } else if (state_ == State::Away && now >= next_attempt_) {
        connect();
    } else if (is_joining() && now >= deadline_) {
        wait_for_broker("it does not answer");
    } else if (now >= next_work_) {
        client_.work();
        presence_.tell(now);
        next_work_ = now + kWorkPause;
    }
    handle_news();
    if (state_ == State::Online) {
        send();
        close_when_sent();
        handle_news();
    }
    watch();
}

/// Has the poller watch the present socket.
void Link::watch()
{
    const int fd = client_.fd();
    if (fd < 0 || state_ == State::Away || state_ == State::Closed) {
        event_.reset();
        return;
    }
    const FDEvent::EventMask mask{may_read(), client_.wants_write()};
    if (event_ == nullptr) {
        event_ = poller_.add(fd, mask, kLinkTag);
    } else if (event_->get_mask() != mask) {
        event_->change_mask(mask);
    }
}

std::optional<Link::Time> Link::next_time() const
{
    const bool has_value = std::any_of(inboxes_.begin(), inboxes_.end(),
                                       [](const Inbox& inbox) { return inbox.size() > 0; });
    if (has_value || (may_have_more_ && may_read()) || !failure_.empty()) {
        return Time(0);
    }
    switch (state_) {
        case State::Away:
            return next_attempt_;
        case State::Connecting:
        case State::Joining:
            return std::min(deadline_, next_work_);
        case State::Online:
        case State::Closing:
            return next_work_;
        case State::Closed:
            break;
    }
    return std::nullopt;
}

void Link::take(const std::vector<Ready>& ready)
{
    bool is_writable = false;
    for (const Ready& one : ready) {
        if (one.tag == kLinkTag) {
            // Reading may have stopped where an answer could not be written.
            may_have_more_ = true;
            is_writable = one.writable;
        }
    }
    // Read first: what the broker says at the end of a connection is lost with the first write that
    // fails.
    for (int count = 0; count < kReadsAtOnce && may_have_more_ && may_read(); ++count) {
        may_have_more_ = client_.fd() >= 0 && client_.read();
    }
    if (is_writable && client_.fd() >= 0) {
        client_.write();
    }
    handle_news();
}

bool Link::may_read() const
{
    return !is_full_ && !has_rival_ && client_.may_read();
}

void Link::feed(Wave& wave)
{
    for (std::uint32_t entry = 0; entry < inboxes_.size(); ++entry) {
        if (inboxes_[entry].size() > 0 && inboxes_[entry].put_next(now_())) {
            wave.note_entry(entry);
        }
    }
    measure();
}

/// Looks whether the graph has to take values before more are read.
void Link::measure()
{
    waiting_bytes_ = 0;
    is_full_ = false;
    for (const Inbox& inbox : inboxes_) {
        waiting_bytes_ += inbox.bytes();
        is_full_ = is_full_ || inbox.size() >= kMostPending;
    }
    is_full_ = is_full_ || waiting_bytes_ >= most_bytes_;
}

void Link::drop_rest()
{
    for (Inbox& inbox : inboxes_) {
        inbox.drop_rest(now_());
    }
    measure();
}

// --- the connection ---

void Link::connect()
{
    event_.reset();
    may_have_more_ = false;
    state_ = State::Connecting;
    const Time now = now_();
    deadline_ = now + kPatience;
    next_work_ = now + kWorkPause;
    client_.connect();
}

void Link::handle_news()
{
    const MqttClient::News news = client_.take_news();
    if (std::exchange(has_new_start_, false)) {
        client_.set_start(start_);
    }
    handle_receipts(news);
    if (news.answer) {
        handle_answer(*news.answer);
    }
    if (has_rival_ && state_ != State::Closing && state_ != State::Closed) {
        yield();
    }
    if (news.end && state_ != State::Away && state_ != State::Closed) {
        handle_end(news);
    }
}

void Link::handle_answer(const MqttClient::Answer& answer)
{
    if (state_ != State::Connecting) {
        return;
    }
    if (answer.reason == 0) {
        welcome(answer.has_session);
    } else if (is_final(answer.reason)) {
        refuse(::mosquitto_reason_string(answer.reason));
    } else {
        wait_for_broker(::mosquitto_reason_string(answer.reason));
    }
}

void Link::handle_end(const MqttClient::News& news)
{
    event_.reset();
    if (state_ == State::Closing) {
        state_ = State::Closed;
    } else if (*news.end == MQTT_RC_SESSION_TAKEN_OVER) {
        come_back();
    } else if (news.is_refused) {
        refuse(kTlsFailed);
    } else {
        wait_for_broker(text_of_end(*news.end, news.error));
    }
}

/// The broker has agreed; now it is asked for what the others say.
void Link::welcome(bool has_session)
{
    if (was_online_ && !has_session && !network_.entries.empty()) {
        logger(LOGLEVEL_INFO, "the broker has begun a new session");
    }
    state_ = State::Joining;
    was_online_ = true;
    subscriptions_.clear();
    // Its own topic first: what stands there has come when the others are acknowledged, for nothing
    // of quality 0 waits behind values.
    for (const std::string& machine : {setting_.machine, std::string("+")}) {
        subscribe(machine_topic(setting_.graph, machine), false, true, "machines");
    }
    for (const Entry& entry : network_.entries) {
        subscribe(value_topic(setting_.graph, entry.path, entry.port), entry.keeps_all,
                  !entry.keeps_all, entry.path + "." + entry.port);
    }
}

void Link::subscribe(const std::string& topic, bool keeps_all, bool wants_retained,
                     const std::string& name)
{
    if (state_ != State::Joining) {
        return;
    }
    std::string why;
    const auto subscription = client_.subscribe(topic, keeps_all, wants_retained, why);
    if (subscription) {
        subscriptions_[*subscription] = name;
    } else {
        wait_for_broker("it cannot be asked for " + name + ": " + why);
    }
}

/// The broker has answered all questions.
void Link::stand()
{
    if (has_told_) {
        logger(LOGLEVEL_WARNING, "the broker %s is back", setting_.description.broker.c_str());
    }
    logger(LOGLEVEL_INFO, "the link over the broker %s stands",
           setting_.description.broker.c_str());
    state_ = State::Online;
    online_since_ = now_();
    has_told_ = false;
    has_stood_ = true;
    if (!is_ending_) {
        announce(Presence::kOnline);
    }
    for (Outbox& outbox : outboxes_) {
        outbox.repeat_latest();
    }
}

/// Leaves the connection, until the next attempt.
void Link::go_away()
{
    event_.reset();
    may_have_more_ = false;
    const Time now = now_();
    if (state_ == State::Online && now - online_since_ >= pause_) {
        pause_ = kFirstPause;
    }
    state_ = State::Away;
    next_attempt_ = now + pause_;
    pause_ = std::min<Time>(2 * pause_, kLongestPause);
}

void Link::wait_for_broker(const std::string& why)
{
    go_away();
    if (!has_told_) {
        logger(LOGLEVEL_WARNING, "the broker %s is away: %s; values wait for it",
               setting_.description.broker.c_str(), why.c_str());
        has_told_ = true;
    }
}

/// Another client of this name has taken the session over. Whether this one is the earlier shows
/// when it is back, by what the other one has said on their topic, or its will.
void Link::come_back()
{
    logger(LOGLEVEL_INFO, "%s", text_of_rival().c_str());
    go_away();
}

std::string Link::text_of_rival() const
{
    return "another '" + client_name(setting_.graph, setting_.machine) +
           "' has taken the place at the broker";
}

/// A later run of this name is there, or was while this one was away.
void Link::yield()
{
    event_.reset();
    failure_ = text_of_rival();
    state_ = State::Closed;
    // In order, so that no will follows what the other one said.
    client_.disconnect();
}

/// The broker is there and does not want this client. It ends the run, unless that went well
/// before.
void Link::refuse(const std::string& why)
{
    if (was_online_) {
        wait_for_broker(why);
        return;
    }
    event_.reset();
    failure_ = "the broker " + setting_.description.broker + " refuses the connection: " + why;
    state_ = State::Closed;
}

// --- what comes in ---

void Link::receive(const std::string& topic, const Stamp& stamp, std::string_view bytes)
{
    const auto entry = by_topic_.find(topic);
    if (entry != by_topic_.end()) {
        Inbox& inbox = inboxes_[entry->second];
        waiting_bytes_ -= inbox.bytes();
        inbox.receive(stamp, bytes, now_());
        waiting_bytes_ += inbox.bytes();
        is_full_ = is_full_ || inbox.size() >= kMostPending || waiting_bytes_ >= most_bytes_;
        return;
    }
    const std::string prefix = machine_topic(setting_.graph, "");
    if (topic.compare(0, prefix.size(), prefix) != 0) {
        return;
    }
    const std::string machine = topic.substr(prefix.size());
    if (machine == setting_.machine) {
        compare_start(stamp.start);
    } else {
        presence_.take(machine, bytes, now_());
    }
}

/// Looks at what runs of this name have said. The later one stays. A run that comes after another
/// one is later, also where the clock was set back between them.
void Link::compare_start(std::uint64_t start)
{
    if (start <= start_) {
        return;
    }
    if (has_stood_) {
        has_rival_ = true;
    } else if (start < UINT64_MAX) {
        start_ = start + 1;
        has_new_start_ = true;
    }
}

// --- what goes out ---

void Link::send()
{
    bool goes_on = true;
    while (goes_on) {
        goes_on = false;
        for (std::uint32_t exit = 0; exit < outboxes_.size(); ++exit) {
            const bool may_send = outboxes_[exit].size() > 0 && !client_.wants_write() &&
                                  (!outboxes_[exit].keeps_all() || may_send_more());
            if (may_send) {
                send_next(exit);
                goes_on = true;
            }
        }
    }
}

/// Whether the library may keep one more value until the broker has it.
bool Link::may_send_more() const
{
    return sent_.size() < kMostSent && sent_bytes_ < most_bytes_;
}

void Link::send_next(std::uint32_t exit)
{
    Outbox& outbox = outboxes_[exit];
    const std::size_t bytes = outbox.next().bytes.size();
    const Stamp stamp{outbox.type(), start_, outbox.next().number};
    std::string why;
    const auto message = client_.publish(topics_[exit], outbox.next().bytes, stamp,
                                         outbox.keeps_all(), !outbox.keeps_all(), why);
    if (!message) {
        outbox.lose_next(why, now_());
        return;
    }
    outbox.hand_on();
    if (outbox.keeps_all()) {
        sent_[*message] = {exit, bytes};
        sent_bytes_ += bytes;
    }
}

void Link::handle_receipts(const MqttClient::News& news)
{
    for (const MqttClient::Receipt& receipt : news.published) {
        if (receipt.message == goodbye_ && state_ == State::Online) {
            leave();
        }
        const auto sent = sent_.find(receipt.message);
        if (sent == sent_.end()) {
            continue;
        }
        const auto [exit, bytes] = sent->second;
        sent_.erase(sent);
        sent_bytes_ -= bytes;
        if (receipt.reason == MQTT_RC_NO_MATCHING_SUBSCRIBERS) {
            if (!lacks_reader_[exit]) {
                logger(LOGLEVEL_WARNING, "values of %s go nowhere: no reader was there yet",
                       outboxes_[exit].name().c_str());
            }
            lacks_reader_[exit] = true;
        } else if (receipt.reason >= kFirstRefusal) {
            outboxes_[exit].take_back(bytes,
                                      std::string("the broker refuses them: ") +
                                          ::mosquitto_reason_string(receipt.reason),
                                      now_());
        }
    }
    for (const MqttClient::Receipt& receipt : news.subscribed) {
        handle_subscription(receipt);
    }
}

void Link::handle_subscription(const MqttClient::Receipt& receipt)
{
    const auto subscription = subscriptions_.find(receipt.message);
    if (subscription == subscriptions_.end()) {
        return;
    }
    if (receipt.reason >= kFirstRefusal) {
        logger(LOGLEVEL_ERROR, "the broker refuses to tell of %s: %s", subscription->second.c_str(),
               ::mosquitto_reason_string(receipt.reason));
    }
    subscriptions_.erase(subscription);
    if (subscriptions_.empty() && state_ == State::Joining) {
        stand();
    }
}

std::optional<int> Link::announce(const char* presence)
{
    std::string why;
    return client_.publish(machine_topic(setting_.graph, setting_.machine), presence,
                           {"", start_, 0}, true, true, why);
}

std::vector<LinkStatistics> Link::statistics() const
{
    std::vector<LinkStatistics> all;
    for (const Outbox& outbox : outboxes_) {
        all.push_back(outbox.statistics());
    }
    for (const Inbox& inbox : inboxes_) {
        all.push_back(inbox.statistics());
    }
    return all;
}

// --- the end ---

void Link::begin_end()
{
    is_ending_ = true;
    if (state_ != State::Online && !has_to_send()) {
        state_ = State::Closed;
    }
}

bool Link::has_to_send() const
{
    return !sent_.empty() || std::any_of(outboxes_.begin(), outboxes_.end(),
                                         [](const Outbox& outbox) { return outbox.size() > 0; });
}

/// Says good-bye behind all values, and leaves the broker in order when it has acknowledged that:
/// it has all values then. A connection that is closed while packets are on the way to this client
/// may be reset, and the broker drops what it has not read yet.
void Link::close_when_sent()
{
    if (!is_ending_ || goodbye_ || has_to_send()) {
        return;
    }
    goodbye_ = announce(Presence::kOffline);
    if (!goodbye_) {
        leave();
    }
}

void Link::leave()
{
    client_.disconnect();
    state_ = State::Closing;
}

void Link::end()
{
    const Time now = now_();
    for (Outbox& outbox : outboxes_) {
        outbox.drop_rest(now);
    }
    drop_rest();
    for (Inbox& inbox : inboxes_) {
        inbox.tell_rest();
    }
    if (!sent_.empty()) {
        logger(LOGLEVEL_WARNING, "%zu values may not have reached the broker", sent_.size());
    }
}

}  // namespace Quorval::runtime
