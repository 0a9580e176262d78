#include "quorval/fdevent.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace Quorval {

namespace {

constexpr int kNoDescriptor = -1;

[[noreturn]] void throw_invalid_fd(int fd)
{
    throw std::runtime_error("FDEvent: invalid fd " + std::to_string(fd));
}

}  // namespace

FDEvent::FDEvent(int fd, EventMask mask, std::function<void(bool, bool)> callback,
                 IFDEventUpdater& updater)
    : fd_(fd), mask_(mask), callback_(std::move(callback)), updater_(&updater)
{
}

FDEvent::FDEvent(FDEvent&& other) noexcept
    : fd_(std::exchange(other.fd_, kNoDescriptor)),
      mask_(other.mask_),
      callback_(std::move(other.callback_)),
      updater_(other.updater_)
{
}

FDEvent& FDEvent::operator=(FDEvent&& other) noexcept
{
    if (this != &other) {
        fd_ = std::exchange(other.fd_, kNoDescriptor);
        mask_ = other.mask_;
        callback_ = std::move(other.callback_);
        updater_ = other.updater_;
    }
    return *this;
}

FDEvent::~FDEvent()
{
    updater_->remove(*this);
}

void FDEvent::change_mask(EventMask mask)
{
    updater_->update_mask(*this, mask);
    mask_ = mask;
}

void FDEvent::change_fd(int fd)
{
    if (fd < 0) {
        throw_invalid_fd(fd);
    }
    updater_->update_fd(*this, fd);
    fd_ = fd;
}

}  // namespace Quorval
