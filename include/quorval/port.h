// The connection points of a block: typed inputs and outputs, and ports on file descriptors.
#pragma once

#include <quorval/datatype.h>
#include <quorval/export.h>
#include <quorval/fdevent.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace Quorval {

class InPortInternal;

/// What all ports have: a name, a data type, and a triggered flag with a policy for resetting it.
/// Ports belong to a block and stay where they are. One thread at a time.
class QUORVAL_EXPORT Port {
public:
    /// @param auto_reset  whether reset(false) clears the trigger
    Port(const std::string& name, Datatype type, bool auto_reset);
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    virtual ~Port();

    /// Whether there is something new at this port.
    virtual bool is_triggered() const;

    /// Clears the triggered flag when `force` is true or the port resets automatically; otherwise
    /// does nothing.
    virtual void reset(bool force);

    const std::string& get_name() const;
    const Datatype& get_datatype() const;

protected:
    std::string name_;
    Datatype datatype_;
    bool triggered_ = false;
    bool auto_reset_;
};

/// An output: publishes a pointer to the current value of a block. Blocks use OutPort<T>.
class QUORVAL_EXPORT OutPortInternal : public Port {
public:
    /// The port resets automatically.
    OutPortInternal(const std::string& name, Datatype type);
    ~OutPortInternal() override;

    /// The current value, null before the first. The block owns it.
    void* get_data() const;

protected:
    void* data_ = nullptr;
};

/// Whatever can stand as an input of a block: an input itself, or something that leads to one.
class QUORVAL_EXPORT InPortProvider : public Port {
public:
    /// @param auto_reset  whether reset(false) clears the trigger
    InPortProvider(const std::string& name, Datatype type, bool auto_reset);
    ~InPortProvider() override;

    /// The input that really receives the data. Not owned by the caller; it lives as long as the
    /// block.
    virtual InPortInternal* get_connectable() = 0;
};

/// An input: takes over value and trigger of the output that it is connected to. Blocks use
/// InPort<T>.
class QUORVAL_EXPORT InPortInternal : public InPortProvider {
public:
    /// @param auto_reset  whether reset(false) clears the trigger
    InPortInternal(const std::string& name, Datatype type, bool auto_reset);
    ~InPortInternal() override;

    /// The port itself.
    InPortInternal* get_connectable() override;

    /// The pointer last taken over, null before the first. The block of the output owns the value.
    void* get_data() const;

    /// Takes over the trigger of `source`, unless this port is triggered already, and in any case
    /// its data pointer. Allocates nothing. Nothing compares the data types: whoever connects
    /// ports has to, with Datatype::is_assignable_from().
    void update(OutPortInternal& source);

protected:
    void* data_ = nullptr;
};

/// A file descriptor that the event loop of the application watches for a block. The loop reports
/// readiness with trigger(). The port does not own the descriptor.
class QUORVAL_EXPORT FdPort : public Port {
public:
    /// @param fd          0 or greater
    /// @param mask        what the event loop shall watch for
    /// @param auto_reset  whether reset(false) clears the trigger
    /// @throws std::runtime_error  `fd` is negative: "Invalid fd supplied"
    FdPort(const std::string& name, const Datatype& type, int fd, const FDEvent::EventMask& mask,
           bool auto_reset);
    /// Destroys the registration, which takes the descriptor out of the event loop.
    ~FdPort() override;

    /// A null pointer: a descriptor carries no data.
    virtual void* get_value() const;

    int get_fd() const;
    FDEvent::EventMask get_eventmask() const;

    /// Stores the mask and passes it to the registration when there is one. When its updater
    /// throws, the port keeps the mask that it had.
    void set_eventmask(const FDEvent::EventMask& mask);

    /// Reports readiness: sets the triggered flag and stores both flags.
    void trigger(bool readable, bool writable);

    /// The readiness that the last trigger() reported; a reset leaves it as it is.
    bool is_readable() const;
    bool is_writable() const;

    /// Hands the registration that the event loop made for this port to the port; null ends it.
    /// The one that the port held before is destroyed.
    void set_event(std::unique_ptr<FDEvent> event);
    /// The registration, null when there is none. The port owns it.
    FDEvent* get_event() const;

protected:
    int fd_;
    FDEvent::EventMask eventmask_;
    bool readable_ = false;
    bool writable_ = false;
    std::unique_ptr<FDEvent> event_;
};

/// A port on an event descriptor, see eventfd(2), that it owns: fire() makes the descriptor
/// readable so that the event loop wakes up, reset() drains it.
class QUORVAL_EXPORT EventPort : public FdPort {
public:
    /// A port of the type `extfd` that waits for its descriptor to become readable.
    /// @param fd  0 or greater; owned by the port from here on, unless the constructor throws
    /// @throws std::runtime_error  `fd` is negative: "Invalid fd supplied"
    EventPort(const std::string& name, bool auto_reset, int fd);
    /// Closes the descriptor, unless it is 0; the registration ends after that.
    ~EventPort() override;

    /// Drains the descriptor when the port is triggered, and clears the trigger whatever `force`
    /// and the reset policy say. Waits when the port was triggered but never fired.
    /// @throws std::system_error  the descriptor cannot be read: "Failed to reset EventPort
    ///     <name>"; the code is always 1 of the generic category. The port stays triggered.
    void reset(bool force) override;

    /// Makes the descriptor readable; firing again before the reset adds nothing.
    /// @throws std::system_error  the descriptor cannot be written: "Failed to fire port: <name>";
    ///     code() holds its errno. The port stays usable.
    void fire();
};

/// An output that holds its value. A block writes it; connected inputs see the value in place, so
/// it lives as long as the block.
template <class T>
class OutPort : public OutPortInternal {
public:
    OutPort(const std::string& name, Datatype type) : OutPortInternal(name, std::move(type)) {}

    /// The held value, value-initialised at first. Changing it publishes nothing: see trigger().
    T& value() { return value_; }
    const T& value() const { return value_; }

    /// Publishes the held value and triggers the port.
    void trigger()
    {
        data_ = &value_;
        triggered_ = true;
    }

    /// Assigns the held value and publishes it.
    void write(T value)
    {
        value_ = std::move(value);
        trigger();
    }

private:
    T value_{};
};

/// An input that reads values of type T. It must be connected to an OutPort<T> of the same T;
/// equal data types are how the two agree on it.
template <class T>
class InPort : public InPortInternal {
public:
    /// @param auto_reset  whether reset(false) clears the trigger
    InPort(const std::string& name, Datatype type, bool auto_reset = true)
        : InPortInternal(name, std::move(type), auto_reset)
    {
    }

    /// The value last taken over, null before the first. The block of the output owns it.
    const T* get() const { return static_cast<const T*>(get_data()); }

    /// The value last taken over.
    /// @throws std::runtime_error  there is none yet: "InPort <name> has no data"
    const T& value() const
    {
        if (get() == nullptr) {
            throw std::runtime_error("InPort " + get_name() + " has no data");
        }
        return *get();
    }
};

}  // namespace Quorval
