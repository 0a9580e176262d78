#include "link/mqtt_client.h"

#include "link/files.h"
#include "link/tls.h"

#include <mqtt_protocol.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace Quorval::runtime {

namespace {

constexpr int kKeepAlive = 30;                   // seconds
constexpr std::uint32_t kForEver = 0xFFFFFFFF;   // of a session
constexpr std::size_t kRoomForRest = 1'048'576;  // of a packet, beside the value
constexpr int kMostProperties = 16;              // of a message that are looked at
constexpr std::size_t kMostTypeBytes = 1024;
constexpr int kMostOwed = 1000;  // answers that the broker does not take
constexpr const char* kSystemCertificates = "/etc/ssl/certs";

/// Properties of a packet, which are a list in C.
class Properties {
public:
    Properties() = default;
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;
    ~Properties() { ::mosquitto_property_free_all(&list_); }

    void add(int identifier, std::uint32_t value)
    {
        check(::mosquitto_property_add_int32(&list_, identifier, value));
    }
    void add(const char* name, const std::string& value)
    {
        constexpr std::size_t kRest = 5;  // the kind and two lengths
        bytes_ += kRest + std::strlen(name) + value.size();
        check(::mosquitto_property_add_string_pair(&list_, MQTT_PROP_USER_PROPERTY, name,
                                                   value.c_str()));
    }
    mosquitto_property* get() const { return list_; }
    /// How many bytes the texts take in a packet.
    std::size_t bytes() const { return bytes_; }
    /// They belong to somebody else from here on.
    void release() { list_ = nullptr; }

private:
    static void check(int result)
    {
        if (result != MOSQ_ERR_SUCCESS) {
            throw std::bad_alloc();
        }
    }

    mosquitto_property* list_ = nullptr;
    std::size_t bytes_ = 0;
};

struct Free {
    void operator()(char* text) const { std::free(text); }  // NOLINT: it comes from malloc()
};
using Text = std::unique_ptr<char, Free>;

std::uint64_t to_number(std::string_view text)
{
    std::uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() ? number : 0;
}

/// The stamp of a message; without a number where it has none that is whole.
Stamp read_stamp(const mosquitto_property* properties)
{
    Stamp stamp;
    const mosquitto_property* at = properties;
    for (int count = 0; at != nullptr && count < kMostProperties; ++count) {
        char* name = nullptr;
        char* value = nullptr;
        at = ::mosquitto_property_read_string_pair(at, MQTT_PROP_USER_PROPERTY, &name, &value,
                                                   count > 0);
        const Text owned_name(name);
        const Text owned_value(value);
        const std::string_view key = name == nullptr ? "" : name;
        const std::string_view text = value == nullptr ? "" : value;
        if (key == "type") {
            stamp.type = text.substr(0, kMostTypeBytes);
        } else if (key == "start") {
            stamp.start = to_number(text);
        } else if (key == "number") {
            stamp.number = to_number(text);
        }
    }
    if (stamp.type.empty() || stamp.start == 0) {
        stamp.number = 0;
    }
    return stamp;
}

const char* or_null(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}

/// How many bytes the number takes that says how long something is.
std::size_t bytes_of_length(std::size_t length)
{
    constexpr std::size_t kStep = 128;
    std::size_t bytes = 1;
    for (; length >= kStep; length /= kStep) {
        ++bytes;
    }
    return bytes;
}

/// The bytes of a packet with a message.
std::size_t size_of_message(const std::string& topic, std::string_view bytes, bool keeps_all,
                            const Properties& properties)
{
    constexpr std::size_t kNumber = 2;  // bytes of a short number
    const std::size_t rest = kNumber + topic.size() + (keeps_all ? kNumber : 0) +
                             bytes_of_length(properties.bytes()) + properties.bytes() +
                             bytes.size();
    return 1 + bytes_of_length(rest) + rest;
}

/// The largest packet that a broker takes, by its answer to connecting.
std::uint32_t read_most_bytes(const mosquitto_property* properties)
{
    std::uint32_t most = UINT32_MAX;
    ::mosquitto_property_read_int32(properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, &most, false);
    return most;
}

/// A key in a file that asks for a password cannot be used: nobody is there to give it.
int give_no_password(char* /*buffer*/, int /*size*/, int /*is_new*/, void* /*data*/)
{
    return 0;
}

/// Whether a message was not sent because the connection has ended, which reading tells. The
/// library sends those that have receipts again.
bool is_end(int result)
{
    return result == MOSQ_ERR_ERRNO || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_NO_CONN ||
           result == MOSQ_ERR_TLS;
}

/// Whether a connection that leaves this errno is none. Over TLS the library takes one that could
/// not be made for one that is not made yet.
bool is_broken(int error)
{
    static constexpr std::array kErrors = {EPIPE,        ECONNREFUSED, ECONNRESET, ECONNABORTED,
                                           EHOSTUNREACH, ENETUNREACH,  ETIMEDOUT,  ENOTCONN};
    return std::find(kErrors.begin(), kErrors.end(), error) != kErrors.end();
}

bool start_library()
{
    static const int kResult = ::mosquitto_lib_init();
    return kResult == MOSQ_ERR_SUCCESS;
}

}  // namespace

MqttClient::MqttClient(const LinkDescription& link, Identity identity, Receive receive)
    : link_(link), identity_(std::move(identity)), receive_(std::move(receive))
{
    // No clean start: it would throw away what the broker keeps for this client.
    client_.reset(start_library() ? ::mosquitto_new(identity_.name.c_str(), false, this) : nullptr);
    if (client_ == nullptr) {
        throw std::runtime_error("there is no client for the broker");
    }
    ::mosquitto_int_option(client_.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    ::mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1);
    set_will();
    secure();
    identify();
    set_callbacks();
}

MqttClient::~MqttClient() = default;

void MqttClient::set_start(std::uint64_t start)
{
    identity_.start = start;
    set_will();
}

void MqttClient::set_will()
{
    Properties properties;
    properties.add("start", std::to_string(identity_.start));
    const int result = ::mosquitto_will_set_v5(client_.get(), identity_.will_topic.c_str(),
                                               static_cast<int>(identity_.will.size()),
                                               identity_.will.data(), 1, true, properties.get());
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("there is no last will for the broker: " + text_of_error(result));
    }
    properties.release();
}

void MqttClient::secure()
{
    if (!link_.is_encrypted) {
        return;
    }
    for (const std::string& file : {link_.ca, link_.cert, link_.key}) {
        if (!file.empty()) {
            expect_usable(file);
        }
    }
    const int result = ::mosquitto_tls_set(
        client_.get(), or_null(link_.ca), link_.ca.empty() ? kSystemCertificates : nullptr,
        or_null(link_.cert), or_null(link_.key), give_no_password);
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("the certificates cannot be used: " + text_of_error(result));
    }
}

void MqttClient::identify()
{
    if (link_.user.empty()) {
        return;
    }
    const std::string password =
        link_.password_file.empty() ? std::string() : read_password(link_.password_file);
    const int result =
        ::mosquitto_username_pw_set(client_.get(), link_.user.c_str(),
                                    link_.password_file.empty() ? nullptr : password.c_str());
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("the user cannot be used: " + text_of_error(result));
    }
}

/// Takes what a callback says. Nothing may be thrown through the library.
template <class Action>
void MqttClient::contain(void* self, Action action)
{
    auto& client = *static_cast<MqttClient*>(self);
    const int error = errno;
    client.has_news_ = true;
    try {
        action(client);
    } catch (...) {
        client.failure_ = std::current_exception();
    }
    errno = error;
}

void MqttClient::set_callbacks()
{
    mosquitto* const library = client_.get();
    ::mosquitto_connect_v5_callback_set(library,
                                        [](mosquitto* /*client*/, void* self, int reason, int flags,
                                           const mosquitto_property* properties) {
                                            contain(self, [&](MqttClient& client) {
                                                client.news_.answer = {reason, (flags & 1) != 0};
                                                client.most_bytes_ = read_most_bytes(properties);
                                            });
                                        });
    ::mosquitto_disconnect_v5_callback_set(
        library, [](mosquitto* /*client*/, void* self, int reason,
                    const mosquitto_property* /*properties*/) {
            contain(self, [&](MqttClient& client) { client.news_.end = reason; });
        });
    ::mosquitto_publish_v5_callback_set(
        library, [](mosquitto* /*client*/, void* self, int message, int reason,
                    const mosquitto_property* /*properties*/) {
            contain(self, [&](MqttClient& client) {
                client.news_.published.push_back({message, reason});
            });
        });
    ::mosquitto_subscribe_v5_callback_set(
        library, [](mosquitto* /*client*/, void* self, int message, int count, const int* reasons,
                    const mosquitto_property* /*properties*/) {
            // One topic was asked for; who answers more does not know either.
            const int reason = count == 1 ? reasons[0] : MQTT_RC_PROTOCOL_ERROR;
            contain(self, [&](MqttClient& client) {
                client.news_.subscribed.push_back({message, reason});
            });
        });
    ::mosquitto_message_v5_callback_set(
        library, [](mosquitto* /*client*/, void* self, const mosquitto_message* message,
                    const mosquitto_property* properties) {
            contain(self, [&](MqttClient& client) { client.receive(*message, properties); });
            // The library reads on as long as TLS holds more, unless the socket seems to be empty.
            errno = EAGAIN;
        });
}

void MqttClient::receive(const mosquitto_message& message, const mosquitto_property* properties)
{
    if (message.qos > 0) {
        ++owed_;
    }
    receive_(
        message.topic, read_stamp(properties),
        {static_cast<const char*>(message.payload), static_cast<std::size_t>(message.payloadlen)});
}

/// What the library logs says why TLS failed; its results do not: a proxy whose broker is away ends
/// the connection without an alert.
void MqttClient::look_at_log(std::string_view text)
{
    static constexpr std::array kRefusals = {
        "certificate verify failed", "host name verification failed", " alert ",
        // A file of this machine.
        "Error: Unable to ", "Error: Client certificate/key are inconsistent"};
    for (const char* refusal : kRefusals) {
        if (text.find(refusal) != std::string_view::npos) {
            news_.is_refused = true;
        }
    }
}

/// Messages of the library cost time, so they are wanted only until the broker answers. One comes
/// before the first packet is written.
void MqttClient::watch_log(bool wants)
{
    const auto look = [](mosquitto* library, void* self, int /*level*/, const char* text) {
        contain(self, [library, text](MqttClient& client) {
            read_last_words(library, true);
            client.look_at_log(text);
        });
    };
    ::mosquitto_log_callback_set(client_.get(), wants ? +look : nullptr);
}

void MqttClient::connect()
{
    // Only the call that waits takes properties. It keeps them before it refuses to connect to no
    // host, for the call that does not wait.
    Properties properties;
    properties.add(MQTT_PROP_MAXIMUM_PACKET_SIZE,
                   static_cast<std::uint32_t>(link_.limit + kRoomForRest));
    if (identity_.keeps_session) {
        properties.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, kForEver);
    }
    watch_log(link_.is_encrypted);
    int result = ::mosquitto_connect_bind_v5(client_.get(), nullptr, 1, kKeepAlive, nullptr,
                                             properties.get());
    news_ = {};
    owed_ = 0;
    errno = 0;
    if (result == MOSQ_ERR_INVAL) {
        result = ::mosquitto_connect_bind_async(client_.get(), link_.host.c_str(), link_.port,
                                                kKeepAlive, nullptr);
    }
    note_end(result);
}

void MqttClient::disconnect()
{
    ::mosquitto_disconnect_v5(client_.get(), 0, nullptr);
}

void MqttClient::note_end(int result)
{
    const int error = errno;
    if (result == MOSQ_ERR_SUCCESS && link_.is_encrypted && is_broken(error)) {
        result = MOSQ_ERR_ERRNO;
    }
    if (result != MOSQ_ERR_SUCCESS) {
        // A reason of the broker says more.
        news_.end = news_.end.value_or(result);
        news_.error = result == MOSQ_ERR_ERRNO ? error : 0;
    }
    if (news_.answer) {
        watch_log(false);
        read_last_words(client_.get(), false);
    }
    if (failure_ != nullptr) {
        std::rethrow_exception(std::exchange(failure_, nullptr));
    }
}

void MqttClient::write()
{
    errno = 0;
    note_end(::mosquitto_loop_write(client_.get(), 1));
}

bool MqttClient::may_read() const
{
    return owed_ < kMostOwed || !wants_write();
}

/// The errno that a call leaves says that the socket is empty, or that an answer could not be
/// written; so the socket is empty where a call brought nothing.
bool MqttClient::read()
{
    if (!wants_write()) {
        owed_ = 0;
    }
    errno = 0;
    has_news_ = false;
    const int result = ::mosquitto_loop_read(client_.get(), 1);
    const bool is_empty = (errno == EAGAIN || errno == EWOULDBLOCK) && !has_news_;
    note_end(result);
    return !is_empty && !news_.end && fd() >= 0;
}

void MqttClient::work()
{
    if (fd() >= 0) {
        errno = 0;
        note_end(::mosquitto_loop_misc(client_.get()));
    }
}

std::optional<int> MqttClient::publish(const std::string& topic, std::string_view bytes,
                                       const Stamp& stamp, bool keeps_all, bool is_retained,
                                       std::string& why)
{
    Properties properties;
    properties.add("start", std::to_string(stamp.start));
    if (!stamp.type.empty()) {
        properties.add("type", stamp.type);
        properties.add("number", std::to_string(stamp.number));
    }
    // The library looks too, but counts a byte less, and aborts the process for a packet that is
    // larger by that byte.
    const std::size_t size = size_of_message(topic, bytes, keeps_all, properties);
    if (size > most_bytes_) {
        why = "a packet of " + std::to_string(size) + " bytes is more than the " +
              std::to_string(most_bytes_) + " that the broker takes";
        return std::nullopt;
    }
    int message = 0;
    const int result = ::mosquitto_publish_v5(client_.get(), &message, topic.c_str(),
                                              static_cast<int>(bytes.size()), bytes.data(),
                                              keeps_all ? 1 : 0, is_retained, properties.get());
    if (result == MOSQ_ERR_SUCCESS || is_end(result)) {
        return message;
    }
    why = text_of_error(result);
    return std::nullopt;
}

std::optional<int> MqttClient::subscribe(const std::string& topic, bool keeps_all,
                                         bool wants_retained, std::string& why)
{
    int message = 0;
    const int result =
        ::mosquitto_subscribe_v5(client_.get(), &message, topic.c_str(), keeps_all ? 1 : 0,
                                 wants_retained ? 0 : MQTT_SUB_OPT_SEND_RETAIN_NEVER, nullptr);
    if (result == MOSQ_ERR_SUCCESS || is_end(result)) {
        return message;
    }
    why = text_of_error(result);
    return std::nullopt;
}

std::string text_of_error(int error)
{
    std::string text = ::mosquitto_strerror(error);
    if (!text.empty() && text.back() == '.') {
        text.pop_back();
    }
    return text;
}

}  // namespace Quorval::runtime
