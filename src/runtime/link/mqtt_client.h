// A client of an MQTT broker, without a loop of its own.
#pragma once

#include "description/description.h"
#include "link/stamp.h"

#include <mosquitto.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorval::runtime {

/// Wraps one client of libmosquitto. Nothing waits, but for names of hosts that have to be looked
/// up. What the library calls back is kept as records, to be looked at when it has returned: it
/// must not be called from there.
class MqttClient {
public:
    /// What the client is at its broker.
    struct Identity {
        std::string name;
        std::string will_topic;
        std::string will;            ///< retained
        std::uint64_t start = 0;     ///< in the stamp of the will
        bool keeps_session = false;  ///< the broker keeps subscriptions and what comes for them
    };

    using Receive =
        std::function<void(const char* topic, const Stamp& stamp, std::string_view bytes)>;

    /// The answer of a broker to connecting.
    struct Answer {
        int reason = 0;  ///< of MQTT 5; 0: it agrees
        bool has_session = false;
    };

    /// What became of a message, or a subscription.
    struct Receipt {
        int message = 0;
        int reason = 0;  ///< of MQTT 5
    };

    /// What happened since the last look.
    struct News {
        std::optional<Answer> answer;
        /// The connection has ended, or could not be made: an error of libmosquitto, below 100, or
        /// a reason of MQTT 5.
        std::optional<int> end;
        int error = 0;  ///< errno, with the end
        /// A side of TLS does not accept the certificate of the other one, or this one has none
        /// that can be used.
        bool is_refused = false;
        std::vector<Receipt> published;
        std::vector<Receipt> subscribed;
    };

    /// @param receive  gets the messages while read() runs
    /// @throws std::runtime_error  a file of the link cannot be used: "cannot read '<file>': ...",
    ///                             or the library does not take the rest
    MqttClient(const LinkDescription& link, Identity identity, Receive receive);
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;
    ~MqttClient();

    /// Changes the start in the stamp of the will, from the next connection on.
    /// @throws std::runtime_error  the library does not take it
    void set_start(std::uint64_t start);

    /// Begins to connect, after the end of a former connection too.
    void connect();

    /// Leaves the broker in order; the will is not published.
    void disconnect();

    /// The socket, anew after each connect(); -1 without a connection.
    int fd() const { return ::mosquitto_socket(client_.get()); }
    bool wants_write() const { return ::mosquitto_want_write(client_.get()); }

    void write();
    /// Whether the broker takes the answers to what is read. If not, they would fill the memory;
    /// what stands unread then ends the connection, by its keep-alive.
    bool may_read() const;
    /// Reads a packet, or a part of it.
    /// @return whether there may be more, which the descriptor may not show
    bool read();
    /// What has to be done now and then: keep-alive.
    void work();

    News take_news() { return std::exchange(news_, {}); }

    /// @param stamp  without a type it has its start alone
    /// @return the number of the message; nothing where it cannot be sent, with the reason in words
    std::optional<int> publish(const std::string& topic, std::string_view bytes, const Stamp& stamp,
                               bool keeps_all, bool is_retained, std::string& why);

    /// @param wants_retained  what the broker keeps for the topic is to be sent at once
    /// @return the number of the subscription; nothing where it cannot be sent, with the reason in
    ///         words
    std::optional<int> subscribe(const std::string& topic, bool keeps_all, bool wants_retained,
                                 std::string& why);

private:
    struct Destroy {
        void operator()(mosquitto* client) const { ::mosquitto_destroy(client); }
    };

    void set_will();
    void secure();
    void identify();
    void set_callbacks();
    template <class Action>
    static void contain(void* self, Action action);
    void watch_log(bool wants);
    void look_at_log(std::string_view text);
    void note_end(int result);
    void receive(const mosquitto_message& message, const mosquitto_property* properties);

    LinkDescription link_;
    Identity identity_;
    Receive receive_;
    std::unique_ptr<mosquitto, Destroy> client_;
    News news_;
    bool has_news_ = false;                  // since the call began
    int owed_ = 0;                           // answers to messages, since all was written
    std::uint32_t most_bytes_ = UINT32_MAX;  // of a packet that the broker takes
    std::exception_ptr failure_;             // in a callback
};

/// What an error of libmosquitto means, without a full stop.
std::string text_of_error(int error);

}  // namespace Quorval::runtime
