#include "runtime/lazy/fake_tbb.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

#include <array>
#include <cstddef>

namespace d0 = tbb::detail::d0;
namespace d1 = tbb::detail::d1;
namespace r1 = tbb::detail::r1;
using quorval_test::call_text;
using ::testing::ElementsAre;

namespace {

/// An object that nobody looks into.
template <class Type>
Type& some()
{
    alignas(Type) static std::array<std::byte, sizeof(Type)> bytes;
    return *reinterpret_cast<Type*>(bytes.data());
}

TEST(Tbb, IsCalledAsItsHeadersCallIt)
{
    // Loaded by its path, it is found by its name, wherever else there is a library of that name.
    void* library = ::dlopen(QUORVAL_TEST_FAKE_TBB, RTLD_NOW);
    ASSERT_NE(library, nullptr);
    const auto calls = reinterpret_cast<decltype(&quorval_test_tbb_calls)>(
        ::dlsym(library, "quorval_test_tbb_calls"));
    auto& arena = some<d1::task_arena_base>();
    auto& context = some<d1::task_group_context>();
    auto& control = some<d1::global_control>();
    auto& data = some<d1::execution_data>();
    auto& pool = some<d1::small_object_pool>();
    auto& task = some<d1::task>();
    auto& wait = some<d1::wait_context>();
    auto& work = some<d1::delegate_base>();
    d1::small_object_pool* chosen = &pool;
    int object = 0;

    EXPECT_EQ(r1::allocate(chosen, 1), &pool);
    r1::assertion_failure("place", 2, "a == b", "why");
    r1::call_itt_notify(3, &object);
    EXPECT_TRUE(r1::cancel_group_execution(context));
    r1::create(control);
    r1::deallocate(pool, &object, 4, data);
    r1::destroy(control);
    r1::destroy(context);
    r1::execute(arena, work);
    EXPECT_EQ(r1::execution_slot(&data), 7);
    r1::initialize(arena);
    r1::initialize(context);
    EXPECT_TRUE(r1::is_group_execution_cancelled(context));
    r1::isolate_within_arena(work, 5);
    r1::notify_waiters(6);
    EXPECT_EQ(r1::numa_default_concurrency(7), 8);
    r1::reset(context);
    r1::spawn(task, context);
    r1::terminate(arena);
    r1::throw_exception(d0::exception_id::bad_alloc);
    r1::wait(wait, context);

    EXPECT_THAT(
        *calls(),
        ElementsAre(
            call_text("allocate", &chosen, 1),
            call_text("assertion_failure", "place", 2, "a == b", "why"),
            call_text("call_itt_notify", 3, &object), call_text("cancel_group_execution", &context),
            call_text("create control", &control),
            call_text("deallocate", &pool, &object, 4, &data),
            call_text("destroy control", &control), call_text("destroy context", &context),
            call_text("execute", &arena, &work), call_text("execution_slot", &data),
            call_text("initialize arena", &arena), call_text("initialize context", &context),
            call_text("is_group_execution_cancelled", &context),
            call_text("isolate_within_arena", &work, 5), call_text("notify_waiters", 6),
            call_text("numa_default_concurrency", 7), call_text("reset", &context),
            call_text("spawn", &task, &context), call_text("terminate", &arena),
            call_text("throw_exception", static_cast<int>(d0::exception_id::bad_alloc)),
            call_text("wait", &wait, &context)));
}

}  // namespace
