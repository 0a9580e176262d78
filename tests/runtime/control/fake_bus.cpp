#include "runtime/control/fake_bus.h"

#include "control/handles.h"

#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace quorval_test {

namespace {

using Quorval::runtime::BusHandle;
using Quorval::runtime::MessageHandle;

constexpr const char* kClient = ":1.99";
constexpr const char* kBus = "org.freedesktop.DBus";

int check(int result)
{
    if (result < 0) {
        throw std::runtime_error("the bus of the test fails: " + std::string(strerror(-result)));
    }
    return result;
}

sockaddr_un address_of(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/// Answers who is behind a name: its number is that of the user.
int tell_user(sd_bus_message* call)
{
    const char* name = nullptr;
    check(sd_bus_message_read(call, "s", &name));
    const auto user = static_cast<std::uint32_t>(std::stoul(std::strchr(name, '.') + 1));
    return sd_bus_reply_method_return(call, "u", user);
}

}  // namespace

std::string read_values(sd_bus_message* message)
{
    std::string text;
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(message, &type, &contents) > 0) {
        text += text.empty() ? "" : " ";
        if (contents != nullptr) {
            check(sd_bus_message_enter_container(message, type, contents));
            text += "(" + read_values(message) + ")";
            check(sd_bus_message_exit_container(message));
        } else if (std::strchr("sog", type) != nullptr) {
            const char* value = nullptr;
            check(sd_bus_message_read_basic(message, type, &value));
            text += value;
        } else {
            std::uint64_t value = 0;  // the types are little endian, and not negative
            check(sd_bus_message_read_basic(message, type, &value));
            text += std::to_string(value);
        }
    }
    return text;
}

FakeBus::FakeBus()
    : address_("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (directory_.path() / "bus").string()),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"),
      end_(::eventfd(0, EFD_CLOEXEC), "eventfd")
{
    const sockaddr_un address = address_of(directory_.path() / "bus");
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 1) != 0) {
        check(-errno);
    }
    on("Hello", [](auto* call) { return sd_bus_reply_method_return(call, "s", kClient); });
    on("RequestName", give(1));
    on("GetConnectionUnixUser", tell_user);
    on("GetNameOwner", [](auto* call) {
        const char* name = nullptr;
        check(sd_bus_message_read(call, "s", &name));
        return sd_bus_reply_method_return(call, "s", name);
    });
    thread_ = std::thread([this] { run(); });
}

FakeBus::~FakeBus()
{
    stop();
}

void FakeBus::on(const std::string& name, Answer answer)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    answers_[name] = std::move(answer);
}

/// Empty where there is none.
FakeBus::Answer FakeBus::find_answer(sd_bus_message* message)
{
    const char* name = sd_bus_message_get_member(message);
    if (name == nullptr) {
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = answers_.find(name);
    return found == answers_.end() ? nullptr : found->second;
}

void FakeBus::will_call(std::vector<Call> calls, std::function<void()> end)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_ = std::move(calls);
    at_end_ = std::move(end);
}

std::vector<std::string> FakeBus::stop()
{
    if (thread_.joinable()) {
        check(::eventfd_write(end_.get(), 1));
        thread_.join();
    }
    return results_;
}

void FakeBus::run()
{
    while (wait_for(listener_.get())) {
        serve(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    }
}

/// Waits for a descriptor.
/// @return false: the bus has to end
bool FakeBus::wait_for(int fd) const
{
    std::array<pollfd, 2> both = {pollfd{fd, POLLIN, 0}, pollfd{end_.get(), POLLIN, 0}};
    ::poll(both.data(), both.size(), -1);
    return (both[1].revents & POLLIN) == 0;
}

void FakeBus::serve(int client)
{
    sd_bus* made = nullptr;
    check(sd_bus_new(&made));
    const BusHandle bus(made);
    check(sd_bus_set_fd(made, client, client));
    check(sd_bus_set_server(made, 1, SD_ID128_NULL));
    check(sd_bus_add_filter(made, nullptr, on_message, this));
    if (sd_bus_start(made) < 0) {
        return;  // the client has gone
    }
    int result = 0;
    do {
        result = sd_bus_process(made, nullptr);
    } while (result > 0 || (result == 0 && sd_bus_flush(made) >= 0 && wait_for(client)));
    while (sd_bus_process(made, nullptr) > 0) {
        // The client may have gone right after it answered.
    }
}

int FakeBus::on_message(sd_bus_message* message, void* self, sd_bus_error* /*error*/)
{
    auto& bus = *static_cast<FakeBus*>(self);
    const Answer answer = bus.find_answer(message);
    if (answer == nullptr) {
        return 0;
    }
    const int result = answer(message);
    if (result < 0) {
        sd_bus_close(sd_bus_message_get_bus(message));
        return result;
    }
    if (sd_bus_message_get_member(message) == std::string("RequestName")) {
        bus.call_next(sd_bus_message_get_bus(message));
    }
    return 1;
}

void FakeBus::call_next(sd_bus* bus)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (called_ == calls_.size()) {
        if (at_end_) {
            at_end_();
        }
        return;
    }
    const Call& call = calls_[called_++];
    sd_bus_message* made = nullptr;
    check(sd_bus_message_new_method_call(bus, &made, kClient, call.path.c_str(),
                                         call.interface.c_str(), call.name.c_str()));
    const MessageHandle message(made);
    check(sd_bus_message_set_sender(made, call.sender.c_str()));
    check(call.append(made));
    if (sd_bus_call_async(bus, nullptr, made, on_answer, this, UINT64_MAX) < 0) {
        sd_bus_close(bus);  // the client has gone
    }
}

int FakeBus::on_answer(sd_bus_message* message, void* self, sd_bus_error* /*error*/)
{
    auto& bus = *static_cast<FakeBus*>(self);
    const sd_bus_error* error = sd_bus_message_get_error(message);
    bus.results_.push_back(error == nullptr ? read_values(message)
                                            : std::string(error->name) + ": " + error->message);
    bus.call_next(sd_bus_message_get_bus(message));
    return 1;
}

FakeBus::Answer refuse(const std::string& name, const std::string& text)
{
    return [name, text](auto* call) {
        return sd_bus_reply_method_errorf(call, (std::string(kBus) + ".Error." + name).c_str(),
                                          "%s", text.c_str());
    };
}

void append_broken_text(sd_bus_message* message)
{
    char* text = nullptr;
    check(sd_bus_message_append_string_space(message, 1, &text));
    *text = '\xFF';
}

std::size_t used_memory()
{
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

FakeBus::Answer give(unsigned number)
{
    return [number](auto* call) { return sd_bus_reply_method_return(call, "u", number); };
}

}  // namespace quorval_test
