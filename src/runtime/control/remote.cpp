#include <quorval/runtime/remote.h>
#include "control/handles.h"
#include "control/write.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

// What sd-bus gives is freed as in C.
// NOLINTBEGIN(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)

namespace Quorval {

namespace {

using runtime::bus_name_of;
using runtime::BusHandle;
using runtime::kInterface;
using runtime::kLinkInterface;
using runtime::kNamePrefix;
using runtime::kPath;
using runtime::MessageHandle;
using runtime::text_of_errno;

[[noreturn]] void throw_no_graph(const std::string& name)
{
    throw RemoteError("there is no running graph '" + name + "'");
}

[[noreturn]] void throw_no_bus(Bus kind, int result)
{
    throw RemoteError(std::string(runtime::to_text(kind)) +
                      " cannot be reached: " + text_of_errno(result));
}

void check(int result)
{
    if (result < 0) {
        throw RemoteError(text_of_errno(result));
    }
}

/// A bus takes UTF-8 alone.
void check_text(const std::string& text)
{
    const std::string valid = runtime::to_utf8(text);
    if (valid != text) {
        throw RemoteError("'" + valid + "' is not UTF-8");
    }
}

/// An error that a call was answered with.
class BusError {
public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&error_); }

    sd_bus_error* get() { return &error_; }

    /// Whether what was called is not there, and its object is.
    bool is_unknown() const
    {
        return sd_bus_error_has_name(&error_, SD_BUS_ERROR_UNKNOWN_METHOD) > 0 ||
               sd_bus_error_has_name(&error_, SD_BUS_ERROR_UNKNOWN_INTERFACE) > 0;
    }

    /// @throws RemoteError  the call failed
    void check(int result) const
    {
        if (result < 0) {
            throw RemoteError(error_.message != nullptr ? error_.message : text_of_errno(result));
        }
    }

private:
    sd_bus_error error_{};
};

/// A list of texts that sd-bus allocated.
class Texts {
public:
    Texts() = default;
    Texts(const Texts&) = delete;
    Texts& operator=(const Texts&) = delete;
    ~Texts()
    {
        for (char** text = texts_; text != nullptr && *text != nullptr; ++text) {
            std::free(*text);
        }
        std::free(texts_);
    }

    char*** get() { return &texts_; }

    std::vector<std::string> copy() const
    {
        std::vector<std::string> copy;
        for (char** text = texts_; text != nullptr && *text != nullptr; ++text) {
            copy.emplace_back(*text);
        }
        return copy;
    }

private:
    char** texts_ = nullptr;
};

/// The names of graphs on a bus.
/// @return 0, or a negative errno when the bus cannot be reached
int list_names(sd_bus* bus, std::vector<std::string>& names)
{
    Texts texts;
    const int result = sd_bus_list_names(bus, texts.get(), nullptr);
    if (result < 0) {
        return result;
    }
    names = texts.copy();
    names.erase(
        std::remove_if(names.begin(), names.end(),
                       [](const std::string& name) { return name.rfind(kNamePrefix, 0) != 0; }),
        names.end());
    std::sort(names.begin(), names.end());
    return 0;
}

std::string read_text(sd_bus* bus, const std::string& destination, const char* property)
{
    BusError error;
    char* text = nullptr;
    error.check(sd_bus_get_property_string(bus, destination.c_str(), kPath, kInterface, property,
                                           error.get(), &text));
    std::string copy = text;
    std::free(text);
    return copy;
}

std::vector<RunningGraph> list_graphs(Bus kind, bool has_to_be_there)
{
    BusHandle bus;
    std::vector<std::string> names;
    int result = runtime::open_bus(kind, bus);
    if (result >= 0) {
        constexpr std::uint64_t kTimeout = 2'000'000;  // microseconds; a graph may be busy
        sd_bus_set_method_call_timeout(bus.get(), kTimeout);
        result = list_names(bus.get(), names);
    }
    if (result < 0 && has_to_be_there) {
        throw_no_bus(kind, result);
    }
    std::vector<RunningGraph> graphs;
    for (const std::string& name : names) {
        try {
            graphs.push_back({read_text(bus.get(), name, "Name"), kind});
        } catch (const RemoteError&) {
            // It has gone meanwhile, or does not answer.
            graphs.push_back({name.substr(std::strlen(kNamePrefix)), kind});
        }
    }
    return graphs;
}

}  // namespace

std::vector<RunningGraph> list_graphs(const std::vector<Bus>& buses)
{
    std::vector<RunningGraph> graphs;
    for (const Bus bus : buses) {
        for (RunningGraph& graph : list_graphs(bus, buses.size() == 1)) {
            graphs.push_back(std::move(graph));
        }
    }
    return graphs;
}

struct RemoteGraph::Impl {
    std::string name;
    BusHandle bus;

    MessageHandle new_call(const char* method, const char* interface = kInterface) const
    {
        sd_bus_message* made = nullptr;
        check(sd_bus_message_new_method_call(bus.get(), &made, name.c_str(), kPath, interface,
                                             method));
        return MessageHandle(made);
    }

    MessageHandle call(const MessageHandle& message) const
    {
        BusError error;
        MessageHandle reply;
        error.check(try_call(message, error, reply));
        return reply;
    }

    int try_call(const MessageHandle& message, BusError& error, MessageHandle& reply) const
    {
        sd_bus_message* made = nullptr;
        const int result = sd_bus_call(bus.get(), message.get(), 0, error.get(), &made);
        reply.reset(made);
        return result;
    }
};

RemoteGraph::RemoteGraph(const std::string& name, const std::vector<Bus>& buses)
    : impl_(std::make_unique<Impl>())
{
    impl_->name = bus_name_of(name);
    for (const Bus kind : buses) {
        std::vector<std::string> names;
        int result = runtime::open_bus(kind, impl_->bus);
        if (result >= 0) {
            result = list_names(impl_->bus.get(), names);
        }
        if (result < 0 && buses.size() == 1) {
            throw_no_bus(kind, result);
        }
        if (std::binary_search(names.begin(), names.end(), impl_->name)) {
            return;
        }
    }
    throw_no_graph(name);
}

RemoteGraph::~RemoteGraph() = default;

std::string RemoteGraph::state()
{
    return read_text(impl_->bus.get(), impl_->name, "State");
}

std::uint64_t RemoteGraph::waves()
{
    BusError error;
    std::uint64_t waves = 0;
    error.check(sd_bus_get_property_trivial(impl_->bus.get(), impl_->name.c_str(), kPath,
                                            kInterface, "Waves", error.get(), 't', &waves));
    return waves;
}

std::string RemoteGraph::describe()
{
    const MessageHandle reply = impl_->call(impl_->new_call("Describe"));
    const char* text = nullptr;
    check(sd_bus_message_read(reply.get(), "s", &text));
    return text;
}

std::string RemoteGraph::get(const std::string& path)
{
    check_text(path);
    const MessageHandle call = impl_->new_call("Get");
    check(sd_bus_message_append(call.get(), "s", path.c_str()));
    const MessageHandle reply = impl_->call(call);
    const char* text = nullptr;
    check(sd_bus_message_read(reply.get(), "s", &text));
    return text;
}

void RemoteGraph::configure(const std::map<std::string, std::string>& values)
{
    const MessageHandle call = impl_->new_call("Configure");
    check(sd_bus_message_open_container(call.get(), 'a', "{ss}"));
    for (const auto& [target, value] : values) {
        check_text(target);
        check_text(value);
        check(sd_bus_message_append(call.get(), "{ss}", target.c_str(), value.c_str()));
    }
    check(sd_bus_message_close_container(call.get()));
    impl_->call(call);
}

void RemoteGraph::save()
{
    impl_->call(impl_->new_call("Save"));
}

std::vector<BlockStatistics> RemoteGraph::statistics()
{
    const MessageHandle reply = impl_->call(impl_->new_call("Statistics"));
    std::vector<BlockStatistics> statistics;
    check(sd_bus_message_enter_container(reply.get(), 'a', "(sttttt)"));
    const char* path = nullptr;
    BlockStatistics one;
    std::uint64_t total = 0;
    std::uint64_t longest = 0;
    std::uint64_t percentile_99 = 0;
    int result = 0;
    while ((result = sd_bus_message_read(reply.get(), "(sttttt)", &path, &one.runs, &one.failures,
                                         &total, &longest, &percentile_99)) > 0) {
        using Time = std::chrono::nanoseconds;
        one.path = path;
        one.total = Time(total);
        one.longest = Time(longest);
        one.percentile_99 = Time(percentile_99);
        statistics.push_back(one);
    }
    check(result);
    return statistics;
}

std::vector<LinkStatistics> RemoteGraph::link_statistics()
{
    const MessageHandle call = impl_->new_call("Statistics", kLinkInterface);
    BusError error;
    MessageHandle reply;
    const int called = impl_->try_call(call, error, reply);
    if (called < 0 && error.is_unknown()) {
        return {};
    }
    error.check(called);
    std::vector<LinkStatistics> statistics;
    check(sd_bus_message_enter_container(reply.get(), 'a', "(sbtttttt)"));
    const char* output = nullptr;
    int comes_in = 0;
    LinkStatistics one;
    int result = 0;
    while ((result = sd_bus_message_read(reply.get(), "(sbtttttt)", &output, &comes_in, &one.values,
                                         &one.bytes, &one.lost, &one.gaps, &one.duplicates,
                                         &one.longest_queue)) > 0) {
        one.output = output;
        one.comes_in = comes_in != 0;
        statistics.push_back(one);
    }
    check(result);
    return statistics;
}

void RemoteGraph::stop()
{
    impl_->call(impl_->new_call("Stop"));
}

}  // namespace Quorval

// NOLINTEND(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
