// The part of a graph on this machine and the others: what goes out and what comes in.
#pragma once

#include <quorval/fdevent.h>
#include "link/inbox.h"
#include "link/mqtt_client.h"
#include "link/outbox.h"
#include "link/presence.h"
#include "loop/poller.h"
#include "plugins/plugin_set.h"
#include "schedule/network.h"
#include "schedule/wave.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Quorval::runtime {

/// Carries values between a graph and its other parts over a broker. Waits for nothing: whoever
/// owns it waits for its descriptor and its time, as the poller and next_time() say.
class Link final : public ITriggerWatcher {
public:
    using Time = std::chrono::nanoseconds;

    /// What the graph is on its machines.
    struct Setting {
        const LinkDescription& description;
        std::string graph;
        std::string machine;
        std::vector<std::string> machines;  ///< all of them
    };

    /// All that is handed in must outlive the object, and it the wave.
    /// @param now  of a monotonic clock
    /// @throws std::runtime_error  a file of the link cannot be used
    Link(const Setting& setting, Network& network, const PluginSet& plugins, Poller& poller,
         Time (*now)());
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    ~Link();

    /// Has the wave tell of values that leave.
    void attach(Wave& wave);

    /// Sends what waits, as far as that can be done at once. Before each wait.
    void prepare();

    /// When there is something to do without a descriptor that is ready.
    std::optional<Time> next_time() const;

    /// After each wait.
    void take(const std::vector<Ready>& ready);

    /// Gives each output elsewhere its next value. Before each wave.
    void feed(Wave& wave);

    /// Of what goes out, then of what comes in.
    std::vector<LinkStatistics> statistics() const;

    /// Why the run has to end; empty: it has not.
    const std::string& failure() const { return failure_; }

    /// From here on what comes in is dropped, and what waits is to be sent.
    void begin_end();
    /// Whether all is sent, or cannot be.
    bool is_finished() const { return state_ == State::Closed; }
    /// Tells of what was not sent.
    void end();

private:
    /// Joining: the broker has agreed, and has not answered all questions.
    enum class State { Away, Connecting, Joining, Online, Closing, Closed };
    /// A value that the broker has not acknowledged.
    struct Sent {
        std::uint32_t exit = 0;
        std::size_t bytes = 0;
    };

    void has_value(std::uint32_t exit) override;

    void connect();
    void handle_news();
    void handle_answer(const MqttClient::Answer& answer);
    void handle_end(const MqttClient::News& news);
    void handle_receipts(const MqttClient::News& news);
    void handle_subscription(const MqttClient::Receipt& receipt);
    void welcome(bool has_session);
    void subscribe(const std::string& topic, bool keeps_all, bool wants_retained,
                   const std::string& name);
    void stand();
    bool is_joining() const { return state_ == State::Connecting || state_ == State::Joining; }
    void go_away();
    void wait_for_broker(const std::string& why);
    void refuse(const std::string& why);
    void come_back();
    std::string text_of_rival() const;
    void yield();

    void receive(const std::string& topic, const Stamp& stamp, std::string_view bytes);
    void compare_start(std::uint64_t start);

    void send();
    void send_next(std::uint32_t exit);
    std::optional<int> announce(const char* presence);
    bool has_to_send() const;
    void close_when_sent();
    void leave();
    bool may_send_more() const;
    bool may_read() const;
    void measure();
    void drop_rest();
    void watch();

    const Setting setting_;
    Network& network_;
    Poller& poller_;
    Time (*now_)();
    std::uint64_t start_;         // of this run, in stamps; settled when the link stands first
    bool has_new_start_ = false;  // for the will
    Presence presence_;
    std::vector<Inbox> inboxes_;  // of the entries
    std::unordered_map<std::string, std::size_t> by_topic_;
    std::vector<Outbox> outboxes_;        // of the exits
    std::vector<std::string> topics_;     // likewise
    std::vector<bool> lacks_reader_;      // likewise, and it was told
    std::unordered_map<int, Sent> sent_;  // messages without a receipt
    std::size_t sent_bytes_ = 0;          // of them
    std::unordered_map<int, std::string> subscriptions_;
    MqttClient client_;
    std::unique_ptr<FDEvent> event_;
    const std::size_t most_bytes_;   // of values that wait, in a direction
    std::size_t waiting_bytes_ = 0;  // of the inboxes
    bool is_full_ = false;           // the graph has to take values before more are read
    State state_ = State::Away;
    Time next_attempt_{};
    Time pause_;
    Time deadline_{};  // of an attempt
    Time next_work_{};
    bool may_have_more_ = false;  // to read
    Time online_since_{};
    bool needs_lookup_;  // of the name of the host, which would block
    bool was_online_ = false;
    bool has_stood_ = false;
    bool has_rival_ = false;  // a later client of this name
    bool has_told_ = false;   // that the broker is away
    bool is_ending_ = false;
    std::optional<int> goodbye_;  // the message that says so
    std::string failure_;
};

}  // namespace Quorval::runtime
