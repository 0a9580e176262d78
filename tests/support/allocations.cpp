#include "support/allocations.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace quorval_test {

namespace {

std::atomic<long> live_blocks{0};
std::atomic<std::size_t> bytes_now{0};
std::atomic<std::size_t> bytes_peak{0};

struct Plan {
    std::size_t left = 0;  // allocations up to the one that fails, 0 when none is to fail
    bool goes_on = false;
    bool has_failed = false;
};

thread_local Plan plan;
thread_local std::size_t calls = 0;
thread_local std::size_t limit = std::numeric_limits<std::size_t>::max();

bool is_to_fail(std::size_t size)
{
    ++calls;
    if (size > limit || live_bytes() > limit - size) {
        return true;
    }
    if (plan.has_failed) {
        return plan.goes_on;
    }
    plan.has_failed = plan.left != 0 && --plan.left == 0;
    return plan.has_failed;
}

/// @param alignment  0 for that of malloc()
void* allocate(std::size_t size, std::size_t alignment = 0)
{
    if (is_to_fail(size)) {
        return nullptr;
    }
    void* block = alignment == 0
                      ? std::malloc(size == 0 ? 1 : size)
                      : std::aligned_alloc(alignment, (size / alignment + 1) * alignment);
    if (block != nullptr) {
        const std::size_t usable = ::malloc_usable_size(block);
        live_blocks.fetch_add(1, std::memory_order_relaxed);
        const std::size_t now = bytes_now.fetch_add(usable, std::memory_order_relaxed) + usable;
        std::size_t peak = bytes_peak.load(std::memory_order_relaxed);
        while (now > peak &&
               !bytes_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {}
    }
    return block;
}

void* allocate_or_throw(std::size_t size, std::size_t alignment = 0)
{
    void* block = allocate(size, alignment);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void release(void* block)
{
    if (block != nullptr) {
        live_blocks.fetch_sub(1, std::memory_order_relaxed);
        bytes_now.fetch_sub(::malloc_usable_size(block), std::memory_order_relaxed);
        std::free(block);
    }
}

}  // namespace

long live_allocations()
{
    return live_blocks.load(std::memory_order_relaxed);
}

std::size_t live_bytes()
{
    return bytes_now.load(std::memory_order_relaxed);
}

std::size_t peak_bytes()
{
    return bytes_peak.load(std::memory_order_relaxed);
}

void restart_peak()
{
    bytes_peak.store(live_bytes(), std::memory_order_relaxed);
}

std::size_t count_of_allocations()
{
    return calls;
}

AllocationLimit::AllocationLimit(std::size_t more)
{
    limit = live_bytes() + more;
}

AllocationLimit::~AllocationLimit()
{
    limit = std::numeric_limits<std::size_t>::max();
}

FailingAllocation::FailingAllocation(std::size_t nth, Mode mode)
{
    plan = {nth, mode == Mode::FromThenOn, false};
}

FailingAllocation::~FailingAllocation()
{
    plan = {};
}

bool FailingAllocation::has_failed()
{
    return plan.has_failed;
}

}  // namespace quorval_test

// All forms, so that memory never comes from one implementation and goes to another.

void* operator new(std::size_t size)
{
    return quorval_test::allocate_or_throw(size);
}

void* operator new[](std::size_t size)
{
    return quorval_test::allocate_or_throw(size);
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return quorval_test::allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return quorval_test::allocate(size);
}

void* operator new(std::size_t size, std::align_val_t alignment)
{
    return quorval_test::allocate_or_throw(size, static_cast<std::size_t>(alignment));
}

void* operator new[](std::size_t size, std::align_val_t alignment)
{
    return quorval_test::allocate_or_throw(size, static_cast<std::size_t>(alignment));
}

void* operator new(std::size_t size, std::align_val_t alignment,
                   const std::nothrow_t& /*tag*/) noexcept
{
    return quorval_test::allocate(size, static_cast<std::size_t>(alignment));
}

void* operator new[](std::size_t size, std::align_val_t alignment,
                     const std::nothrow_t& /*tag*/) noexcept
{
    return quorval_test::allocate(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* block) noexcept
{
    quorval_test::release(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    quorval_test::release(block);
}

void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept
{
    quorval_test::release(block);
}

void operator delete(void* block, std::align_val_t /*alignment*/) noexcept
{
    quorval_test::release(block);
}

void operator delete(void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept
{
    quorval_test::release(block);
}

void operator delete(void* block, std::align_val_t /*alignment*/,
                     const std::nothrow_t& /*tag*/) noexcept
{
    quorval_test::release(block);
}

void operator delete[](void* block) noexcept
{
    quorval_test::release(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept
{
    quorval_test::release(block);
}

void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept
{
    quorval_test::release(block);
}

void operator delete[](void* block, std::align_val_t /*alignment*/) noexcept
{
    quorval_test::release(block);
}

void operator delete[](void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept
{
    quorval_test::release(block);
}

void operator delete[](void* block, std::align_val_t /*alignment*/,
                       const std::nothrow_t& /*tag*/) noexcept
{
    quorval_test::release(block);
}
