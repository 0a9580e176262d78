#include "runtime/lazy/fake_tbb.h"

#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

#include <cstddef>
#include <cstdint>

namespace {

std::vector<std::string>& calls()
{
    static std::vector<std::string> calls;
    return calls;
}

template <class... Arguments>
void note(const char* name, const Arguments&... arguments)
{
    calls().push_back(quorval_test::call_text(name, arguments...));
}

}  // namespace

const std::vector<std::string>* quorval_test_tbb_calls()
{
    return &calls();
}

// The headers have names of parameters of their own.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

namespace tbb::detail::r1 {

void* allocate(d1::small_object_pool*& pool, std::size_t size)
{
    note("allocate", &pool, size);
    return pool;
}

void assertion_failure(const char* location, int line, const char* expression, const char* comment)
{
    note("assertion_failure", location, line, expression, comment);
}

void call_itt_notify(int type, void* pointer)
{
    note("call_itt_notify", type, pointer);
}

bool cancel_group_execution(d1::task_group_context& context)
{
    note("cancel_group_execution", &context);
    return true;
}

void create(d1::global_control& control)
{
    note("create control", &control);
}

void deallocate(d1::small_object_pool& pool, void* object, std::size_t size,
                const d1::execution_data& data)
{
    note("deallocate", &pool, object, size, &data);
}

void destroy(d1::global_control& control)
{
    note("destroy control", &control);
}

void destroy(d1::task_group_context& context)
{
    note("destroy context", &context);
}

void execute(d1::task_arena_base& arena, d1::delegate_base& work)
{
    note("execute", &arena, &work);
}

d1::slot_id execution_slot(const d1::execution_data* data)
{
    note("execution_slot", data);
    return 7;
}

void initialize(d1::task_arena_base& arena)
{
    note("initialize arena", &arena);
}

void initialize(d1::task_group_context& context)
{
    note("initialize context", &context);
}

bool is_group_execution_cancelled(d1::task_group_context& context)
{
    note("is_group_execution_cancelled", &context);
    return true;
}

void isolate_within_arena(d1::delegate_base& work, std::intptr_t tag)
{
    note("isolate_within_arena", &work, tag);
}

void notify_waiters(std::uintptr_t wait)
{
    note("notify_waiters", wait);
}

int numa_default_concurrency(int node)
{
    note("numa_default_concurrency", node);
    return 8;
}

void reset(d1::task_group_context& context)
{
    note("reset", &context);
}

void spawn(d1::task& task, d1::task_group_context& context)
{
    note("spawn", &task, &context);
}

void terminate(d1::task_arena_base& arena)
{
    note("terminate", &arena);
}

void throw_exception(d0::exception_id id)
{
    note("throw_exception", static_cast<int>(id));
}

void wait(d1::wait_context& wait, d1::task_group_context& context)
{
    note("wait", &wait, &context);
}

}  // namespace tbb::detail::r1

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
