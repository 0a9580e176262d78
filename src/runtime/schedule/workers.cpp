#include "schedule/workers.h"

#ifdef QUORVAL_HAS_THREADS

#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>
#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <optional>
#include <vector>

#ifdef QUORVAL_TELLS_THREAD_SANITIZER
// oneTBB is not built for the thread sanitizer, so this file is not either, and says itself what
// comes before what. Of the sanitizer's library.
extern "C" void __tsan_acquire(void* address);  // NOLINT(bugprone-reserved-identifier)
extern "C" void __tsan_release(void* address);  // NOLINT(bugprone-reserved-identifier)
#endif

namespace Quorval::runtime {

namespace {

constexpr std::size_t kLeastStack = 4 << 20;

/// A point that threads come to, some before and some behind it.
struct Order {
    void come_before()
    {
#ifdef QUORVAL_TELLS_THREAD_SANITIZER
        __tsan_release(this);
#endif
    }

    void come_behind()
    {
#ifdef QUORVAL_TELLS_THREAD_SANITIZER
        __tsan_acquire(this);
#endif
    }
};

/// Comes before a point when it goes, by an exception too.
struct Before {
    Order& point;
    ~Before() { point.come_before(); }
};

/// Likewise behind it.
struct Behind {
    Order& point;
    ~Behind() { point.come_behind(); }
};

/// What threads of the process have. Those of oneTBB have 4 MB if nothing else is said, and what
/// runs on the thread of the graph is to run on them.
std::size_t stack_size()
{
    pthread_attr_t attributes;
    std::size_t size = 0;
    if (::pthread_getattr_default_np(&attributes) == 0) {
        ::pthread_attr_getstacksize(&attributes, &size);
        ::pthread_attr_destroy(&attributes);
    }
    return std::max(size, kLeastStack);
}

/// Waits until nobody holds the mutex.
void* wait_for(void* mutex)
{
    const std::lock_guard lock(*static_cast<std::mutex*>(mutex));
    return nullptr;
}

}  // namespace

struct Workers::Impl {
    explicit Impl(unsigned threads)
        : stack(tbb::global_control::thread_stack_size, stack_size()),
          arena(static_cast<int>(threads), 1)
    {
        if (threads > processors()) {
            // The library has a thread for each processor unless it is told to have more.
            control.emplace(tbb::global_control::max_allowed_parallelism, threads);
        }
    }

    tbb::global_control stack;
    std::optional<tbb::global_control> control;
    tbb::task_arena arena;
    Order begin;
    Order end;
};

bool Workers::are_there()
{
    return true;
}

unsigned Workers::processors()
{
    return static_cast<unsigned>(std::max(tbb::info::default_concurrency(), 1));
}

unsigned Workers::count_available(unsigned threads)
{
    std::vector<pthread_t> others;
    others.reserve(threads);
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, stack_size());
    std::mutex until_all_are_there;
    {
        const std::lock_guard lock(until_all_are_there);
        pthread_t other{};
        while (others.size() + 1 < threads &&
               ::pthread_create(&other, &attributes, wait_for, &until_all_are_there) == 0) {
            others.push_back(other);
        }
    }
    for (const pthread_t other : others) {
        ::pthread_join(other, nullptr);
    }
    ::pthread_attr_destroy(&attributes);
    return static_cast<unsigned>(others.size()) + 1;
}

Workers::Workers(unsigned threads) : impl_(std::make_unique<Impl>(threads)) {}

Workers::~Workers() = default;

void Workers::run(std::size_t count, const std::function<void(std::size_t)>& work,
                  const std::function<void()>& own)
{
    Order& begin = impl_->begin;
    Order& end = impl_->end;
    // Isolated: a block that waits for tasks of its own must not be handed another block.
    const auto run_one = [&](std::size_t at) {
        tbb::this_task_arena::isolate([&] {
            begin.come_behind();
            const Before done{end};
            work(at);
        });
    };
    const Behind all_done{end};
    begin.come_before();
    impl_->arena.execute([&] {
        tbb::task_group group;
        for (std::size_t at = 0; at < count; ++at) {
            group.run([&run_one, at] { run_one(at); });
        }
        try {
            tbb::this_task_arena::isolate(own);
        } catch (...) {
            group.cancel();
            group.wait();
            throw;
        }
        group.wait();
    });
}

std::uint32_t Workers::present()
{
    const int index = tbb::this_task_arena::current_thread_index();
    return index > 0 ? static_cast<std::uint32_t>(index) : 0;
}

}  // namespace Quorval::runtime

#else

namespace Quorval::runtime {

struct Workers::Impl {};

bool Workers::are_there()
{
    return false;
}

unsigned Workers::processors()
{
    return 1;
}

unsigned Workers::count_available(unsigned /*threads*/)
{
    return 1;
}

Workers::Workers(unsigned /*threads*/) {}

Workers::~Workers() = default;

void Workers::run(std::size_t count, const std::function<void(std::size_t)>& work,
                  const std::function<void()>& own)
{
    own();
    for (std::size_t at = 0; at < count; ++at) {
        work(at);
    }
}

std::uint32_t Workers::present()
{
    return 0;
}

}  // namespace Quorval::runtime

#endif
