// The event loop of the host, on sd-event.
#pragma once

#include <quorval/fdevent.h>

#include <systemd/sd-event.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>

namespace host {

/// Watches descriptors and signals and calls back when something happens to them. It must outlive
/// the registrations that it made. One thread at a time.
class EventLoop final : public Quorval::FDEvent::IFDEventUpdater {
public:
    using Callback = std::function<void(bool readable, bool writable)>;

    /// Which of several events goes first.
    enum class Priority { Urgent = -1, Normal = 0 };

    /// @throws std::system_error  there is no loop to be had
    EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    ~EventLoop();

    /// Watches a descriptor until the returned registration ends. What cannot be waited for, a
    /// regular file or /dev/null, counts as ready all the time.
    /// @throws std::system_error  the descriptor cannot be watched, or is watched already
    std::unique_ptr<Quorval::FDEvent> watch(int fd, Quorval::FDEvent::EventMask mask,
                                            Callback callback,
                                            Priority priority = Priority::Normal);

    /// Calls `callback`, at once when its turn comes, each time the process gets `signal`, which
    /// has to be blocked.
    /// @throws std::system_error  the signal cannot be watched
    void watch_signal(int signal, std::function<void()> callback);

    /// Waits for one event and calls what is registered for it.
    /// @throws std::system_error  the loop failed
    /// @throws what the callback throws
    void run_once();

    void update_fd(Quorval::FDEvent& event, int new_fd) override;
    void update_mask(Quorval::FDEvent& event, Quorval::FDEvent::EventMask new_mask) override;
    void remove(Quorval::FDEvent& event) override;

private:
    struct Unref {
        void operator()(sd_event* loop) const { sd_event_unref(loop); }
        void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
    };
    using Source = std::unique_ptr<sd_event_source, Unref>;

    struct Watch {
        EventLoop& loop;
        Quorval::FDEvent::EventMask mask;
        Callback callback;
        Priority priority;
        Source source;
    };
    struct SignalWatch {
        EventLoop& loop;
        std::function<void()> callback;
        Source source;
    };

    Source make_source(int fd, Watch& watch);
    void guard(const std::function<void()>& callback) noexcept;

    static int on_io(sd_event_source* source, int fd, std::uint32_t events, void* userdata);
    static int on_ready(sd_event_source* source, void* userdata);
    static int on_signal(sd_event_source* source, const signalfd_siginfo* info, void* userdata);

    std::unique_ptr<sd_event, Unref> loop_;
    std::map<int, std::unique_ptr<Watch>> watches_;  // by descriptor
    std::map<int, std::unique_ptr<SignalWatch>> signals_;
    std::exception_ptr failure_;  // of a callback, on its way through the C code of the loop
};

}  // namespace host
