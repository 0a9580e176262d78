#include "control/connection.h"

#include <quorval/log.h>

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace Quorval::runtime {

namespace {

constexpr std::chrono::milliseconds kFirstPause(100);
constexpr std::chrono::milliseconds kLongestPause(10'000);
constexpr std::uint32_t kIsOwner = 1;  // the answer to a request for a name

}  // namespace

Connection::Connection(Bus kind, std::string name, Publish publish)
    : kind_(kind), name_(std::move(name)), publish_(std::move(publish))
{
}

Connection::~Connection() = default;

std::string Connection::open()
{
    int result = connect();
    if (result < 0) {
        return std::string(to_text(kind_)) + " cannot be reached: " + text_of_errno(result);
    }
    objects_ = publish_(bus_.get());
    result = request_name();
    if (result == -EEXIST) {
        return "the name " + name_ + " is taken on " + to_text(kind_) + text_of_owner();
    }
    if (result < 0) {
        return "the name " + name_ + " cannot be had on " + to_text(kind_) + ": " +
               text_of_errno(result);
    }
    is_connected_ = true;
    return "";
}

/// Begins to connect, so that the end of the connection is noticed.
int Connection::connect()
{
    const int result = open_bus(kind_, bus_);
    if (result < 0) {
        return result;
    }
    // A bus that does not answer must not hold up the graph for long.
    constexpr std::uint64_t kTimeout = 5'000'000;  // microseconds
    sd_bus_set_method_call_timeout(bus_.get(), kTimeout);
    sd_bus_slot* slot = nullptr;
    const int matched = sd_bus_match_signal(
        bus_.get(), &slot, "org.freedesktop.DBus.Local", "/org/freedesktop/DBus/Local",
        "org.freedesktop.DBus.Local", "Disconnected", on_disconnect, this);
    disconnect_slot_.reset(slot);
    return matched;
}

/// A signal may come meanwhile, which says nothing of the bus.
int Connection::request_name()
{
    int result = -EINTR;
    while (result == -EINTR) {
        result = sd_bus_request_name(bus_.get(), name_.c_str(), 0);
    }
    return result == -EALREADY ? 0 : result;
}

/// " by process 17 (quorval)", as far as it is known.
std::string Connection::text_of_owner() const
{
    sd_bus_creds* found = nullptr;
    if (sd_bus_get_name_creds(bus_.get(), name_.c_str(),
                              SD_BUS_CREDS_PID | SD_BUS_CREDS_COMM | SD_BUS_CREDS_AUGMENT,
                              &found) < 0) {
        return "";
    }
    const CredsHandle creds(found);
    pid_t process = 0;
    if (sd_bus_creds_get_pid(found, &process) < 0) {
        return "";
    }
    const char* program = nullptr;
    const bool has_program = sd_bus_creds_get_comm(found, &program) >= 0;
    return " by process " + std::to_string(process) +
           (has_program ? " (" + std::string(program) + ")" : "");
}

void Connection::attach(sd_event* event)
{
    event_ = event;
    const int result = sd_bus_attach_event(bus_.get(), event, SD_EVENT_PRIORITY_NORMAL);
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(),
                                std::string(to_text(kind_)) + " cannot be served");
    }
}

int Connection::on_disconnect(sd_bus_message* /*message*/, void* self, sd_bus_error* /*error*/)
{
    // The connection is in use up here: the rest is done from the loop.
    auto& connection = *static_cast<Connection*>(self);
    if (std::exchange(connection.is_connected_, false)) {
        logger(LOGLEVEL_WARNING, "%s is lost; the graph runs on without it",
               to_text(connection.kind_));
        connection.forget_pause();
    }
    connection.retry_later();
    return 0;
}

/// A bus that stood for a while is looked for at once. One that never does is not asked, and told
/// of, all the time.
void Connection::forget_pause()
{
    if (Clock::now() - connected_since_ >= pause_) {
        pause_ = std::chrono::milliseconds::zero();
    }
}

void Connection::retry_later()
{
    if (event_ == nullptr) {
        return;
    }
    sd_event_source* source = nullptr;
    const std::uint64_t delay = std::chrono::microseconds(pause_).count();
    const int result =
        sd_event_add_time_relative(event_, &source, CLOCK_MONOTONIC, delay, 0, on_time, this);
    if (result < 0) {
        logger(LOGLEVEL_ERROR, "%s is not looked for any more: %s", to_text(kind_),
               text_of_errno(result).c_str());
        return;
    }
    timer_.reset(source);
    pause_ = std::clamp(pause_ * 2, kFirstPause, kLongestPause);
}

int Connection::on_time(sd_event_source* /*source*/, std::uint64_t /*now*/, void* self)
{
    static_cast<Connection*>(self)->connect_again();
    return 0;
}

void Connection::connect_again()
{
    sd_bus_slot* slot = nullptr;
    if (connect() < 0 || sd_bus_attach_event(bus_.get(), event_, SD_EVENT_PRIORITY_NORMAL) < 0 ||
        sd_bus_request_name_async(bus_.get(), &slot, name_.c_str(), 0, on_name, this) < 0) {
        retry_later();
        return;
    }
    name_slot_.reset(slot);
    try {
        objects_ = publish_(bus_.get());
    } catch (const std::exception& error) {
        logger(LOGLEVEL_ERROR, "%s", error.what());
    }
}

int Connection::on_name(sd_bus_message* message, void* self, sd_bus_error* /*error*/)
{
    auto& connection = *static_cast<Connection*>(self);
    std::uint32_t answer = 0;
    // What an error has is no number.
    if (sd_bus_message_read(message, "u", &answer) < 0 || answer != kIsOwner) {
        connection.retry_later();
        return 0;
    }
    connection.is_connected_ = true;
    connection.connected_since_ = Clock::now();
    logger(LOGLEVEL_INFO, "%s is back", to_text(connection.kind_));
    return 0;
}

}  // namespace Quorval::runtime
