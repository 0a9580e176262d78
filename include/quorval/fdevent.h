// Registrations of file descriptors in the event loop of the application.
#pragma once

#include <quorval/export.h>

#include <functional>

namespace Quorval {

/// The registration of one descriptor: the events of interest and what to call when they happen.
/// It tells an IFDEventUpdater of each change, and of its end. Move-only. It does not own the
/// descriptor. One thread at a time.
class QUORVAL_EXPORT FDEvent {
public:
    /// Interest in a descriptor becoming readable or writable.
    struct EventMask {
        bool readable;
        bool writable;

        bool operator==(const EventMask& other) const
        {
            return readable == other.readable && writable == other.writable;
        }
        bool operator!=(const EventMask& other) const { return !(*this == other); }
    };

    /// The event loop as a registration sees it; the application implements it. Adding is not part
    /// of it: the loop makes the registrations itself.
    class QUORVAL_EXPORT IFDEventUpdater {
    public:
        /// The registration moves to `new_fd`; `event` still holds the old descriptor. When this
        /// throws, nothing changes.
        virtual void update_fd(FDEvent& event, int new_fd) = 0;

        /// The interest changes to `new_mask`; `event` still holds the old mask. When this throws,
        /// nothing changes.
        virtual void update_mask(FDEvent& event, EventMask new_mask) = 0;

        /// The registration ends. Also called for a moved-from one, whose descriptor is -1, and in
        /// an EventPort after the descriptor was closed. Must not throw.
        virtual void remove(FDEvent& event) = 0;

    protected:
        ~IFDEventUpdater() = default;
    };

    /// Stores the four values and calls nothing.
    /// @param callback  called by the event loop with the readiness that it saw
    /// @param updater   not owned; must outlive the registration
    FDEvent(int fd, EventMask mask, std::function<void(bool readable, bool writable)> callback,
            IFDEventUpdater& updater);

    /// Takes over the four values and tells nobody; the descriptor of `other` becomes -1.
    FDEvent(FDEvent&& other) noexcept;
    /// As the move constructor. The updater is not told that the replaced registration is gone.
    FDEvent& operator=(FDEvent&& other) noexcept;
    FDEvent(const FDEvent&) = delete;
    FDEvent& operator=(const FDEvent&) = delete;

    /// Calls IFDEventUpdater::remove(), always.
    ~FDEvent();

    /// Passes the new interest to the updater, then stores it.
    void change_mask(EventMask mask);

    /// Passes the new descriptor to the updater, then stores it.
    /// @throws std::runtime_error  `fd` is negative: "FDEvent: invalid fd <fd>"
    void change_fd(int fd);

    /// The descriptor; -1 in a moved-from object.
    int get_fd() const { return fd_; }
    EventMask get_mask() const { return mask_; }
    /// What the event loop has to call; empty in a moved-from object.
    const std::function<void(bool readable, bool writable)>& get_callback() const
    {
        return callback_;
    }

private:
    int fd_;
    EventMask mask_;
    std::function<void(bool readable, bool writable)> callback_;
    IFDEventUpdater* updater_;  // never null; a pointer so that a registration can be assigned
};

}  // namespace Quorval
