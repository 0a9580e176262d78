#include "quorval/port.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace Quorval {

namespace {

[[noreturn]] void throw_invalid_fd()
{
    throw std::runtime_error("Invalid fd supplied");
}

}  // namespace

Port::Port(const std::string& name, Datatype type, bool auto_reset)
    : name_(name), datatype_(std::move(type)), auto_reset_(auto_reset)
{
}

Port::~Port() = default;

bool Port::is_triggered() const
{
    return triggered_;
}

void Port::reset(bool force)
{
    if (force || auto_reset_) {
        triggered_ = false;
    }
}

const std::string& Port::get_name() const
{
    return name_;
}

const Datatype& Port::get_datatype() const
{
    return datatype_;
}

OutPortInternal::OutPortInternal(const std::string& name, Datatype type)
    : Port(name, std::move(type), true)
{
}

OutPortInternal::~OutPortInternal() = default;

void* OutPortInternal::get_data() const
{
    return data_;
}

InPortProvider::InPortProvider(const std::string& name, Datatype type, bool auto_reset)
    : Port(name, std::move(type), auto_reset)
{
}

InPortProvider::~InPortProvider() = default;

InPortInternal::InPortInternal(const std::string& name, Datatype type, bool auto_reset)
    : InPortProvider(name, std::move(type), auto_reset)
{
}

InPortInternal::~InPortInternal() = default;

InPortInternal* InPortInternal::get_connectable()
{
    return this;
}

void* InPortInternal::get_data() const
{
    return data_;
}

void InPortInternal::update(OutPortInternal& source)
{
    if (!triggered_) {
        triggered_ = source.is_triggered();
    }
    data_ = source.get_data();
}

FdPort::FdPort(const std::string& name, const Datatype& type, int fd,
               const FDEvent::EventMask& mask, bool auto_reset)
    : Port(name, type, auto_reset), fd_(fd), eventmask_(mask)
{
    if (fd < 0) {
        throw_invalid_fd();
    }
}

FdPort::~FdPort() = default;

void* FdPort::get_value() const
{
    return nullptr;
}

int FdPort::get_fd() const
{
    return fd_;
}

FDEvent::EventMask FdPort::get_eventmask() const
{
    return eventmask_;
}

void FdPort::set_eventmask(const FDEvent::EventMask& mask)
{
    const FDEvent::EventMask before = std::exchange(eventmask_, mask);
    if (event_ == nullptr) {
        return;
    }
    try {
        event_->change_mask(eventmask_);
    } catch (...) {
        eventmask_ = before;
        throw;
    }
}

void FdPort::trigger(bool readable, bool writable)
{
    triggered_ = true;
    readable_ = readable;
    writable_ = writable;
}

bool FdPort::is_readable() const
{
    return readable_;
}

bool FdPort::is_writable() const
{
    return writable_;
}

void FdPort::set_event(std::unique_ptr<FDEvent> event)
{
    event_ = std::move(event);
}

FDEvent* FdPort::get_event() const
{
    return event_.get();
}

}  // namespace Quorval
