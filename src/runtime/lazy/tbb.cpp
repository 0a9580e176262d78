// oneTBB, loaded when the first of these functions is called: those that its headers call for what
// schedule/workers.cpp uses. Each hands its call on.

#include "lazy/library.h"

#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

#include <cstddef>
#include <cstdint>

namespace {

namespace d0 = tbb::detail::d0;
namespace d1 = tbb::detail::d1;

const Quorval::runtime::Library& libtbb()
{
    static const Quorval::runtime::Library kLoaded("libtbb.so.12");
    return kLoaded;
}

/// A function of the library by the name that it has there, with the type that is asked for.
struct Symbol {
    const char* name;

    template <class Function>
    operator Function*() const  // NOLINT(google-explicit-constructor,hicpp-explicit-conversions)
    {
        return libtbb().find<Function>(name);
    }
};

/// All that is called: a library that lacks one of them is refused with the first call.
struct Functions {
    void* (*allocate)(d1::small_object_pool*&, std::size_t) = Symbol{
        "_ZN3tbb6detail2r18allocateERPNS0_2d117small_object_poolEm"};
    void (*assertion_failure)(const char*, int, const char*, const char*) = Symbol{
        "_ZN3tbb6detail2r117assertion_failureEPKciS3_S3_"};
    void (*call_itt_notify)(int, void*) = Symbol{"_ZN3tbb6detail2r115call_itt_notifyEiPv"};
    bool (*cancel_group_execution)(d1::task_group_context&) = Symbol{
        "_ZN3tbb6detail2r122cancel_group_executionERNS0_2d118task_group_contextE"};
    void (*create_control)(d1::global_control&) = Symbol{
        "_ZN3tbb6detail2r16createERNS0_2d114global_controlE"};
    void (*deallocate)(d1::small_object_pool&, void*, std::size_t,
                       const d1::execution_data&) = Symbol{
        "_ZN3tbb6detail2r110deallocateERNS0_2d117small_object_poolEPvmRKNS2_14execution_dataE"};
    void (*destroy_control)(d1::global_control&) = Symbol{
        "_ZN3tbb6detail2r17destroyERNS0_2d114global_controlE"};
    void (*destroy_context)(d1::task_group_context&) = Symbol{
        "_ZN3tbb6detail2r17destroyERNS0_2d118task_group_contextE"};
    void (*execute)(d1::task_arena_base&, d1::delegate_base&) = Symbol{
        "_ZN3tbb6detail2r17executeERNS0_2d115task_arena_baseERNS2_13delegate_baseE"};
    d1::slot_id (*execution_slot)(const d1::execution_data*) = Symbol{
        "_ZN3tbb6detail2r114execution_slotEPKNS0_2d114execution_dataE"};
    void (*initialize_arena)(d1::task_arena_base&) = Symbol{
        "_ZN3tbb6detail2r110initializeERNS0_2d115task_arena_baseE"};
    void (*initialize_context)(d1::task_group_context&) = Symbol{
        "_ZN3tbb6detail2r110initializeERNS0_2d118task_group_contextE"};
    bool (*is_group_execution_cancelled)(d1::task_group_context&) = Symbol{
        "_ZN3tbb6detail2r128is_group_execution_cancelledERNS0_2d118task_group_contextE"};
    void (*isolate_within_arena)(d1::delegate_base&, std::intptr_t) = Symbol{
        "_ZN3tbb6detail2r120isolate_within_arenaERNS0_2d113delegate_baseEl"};
    void (*notify_waiters)(std::uintptr_t) = Symbol{"_ZN3tbb6detail2r114notify_waitersEm"};
    int (*numa_default_concurrency)(int) = Symbol{"_ZN3tbb6detail2r124numa_default_concurrencyEi"};
    void (*reset)(d1::task_group_context&) = Symbol{
        "_ZN3tbb6detail2r15resetERNS0_2d118task_group_contextE"};
    void (*spawn)(d1::task&, d1::task_group_context&) = Symbol{
        "_ZN3tbb6detail2r15spawnERNS0_2d14taskERNS2_18task_group_contextE"};
    void (*terminate)(d1::task_arena_base&) = Symbol{
        "_ZN3tbb6detail2r19terminateERNS0_2d115task_arena_baseE"};
    void (*throw_exception)(d0::exception_id) = Symbol{
        "_ZN3tbb6detail2r115throw_exceptionENS0_2d012exception_idE"};
    void (*wait)(d1::wait_context&, d1::task_group_context&) = Symbol{
        "_ZN3tbb6detail2r14waitERNS0_2d112wait_contextERNS2_18task_group_contextE"};
};

const Functions& functions()
{
    static const Functions kFound;
    return kFound;
}

}  // namespace

// Its headers have names of parameters of their own.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

namespace tbb::detail::r1 {

void* allocate(d1::small_object_pool*& pool, std::size_t size)
{
    return functions().allocate(pool, size);
}

void assertion_failure(const char* location, int line, const char* expression, const char* comment)
{
    functions().assertion_failure(location, line, expression, comment);
}

void call_itt_notify(int type, void* pointer)
{
    functions().call_itt_notify(type, pointer);
}

bool cancel_group_execution(d1::task_group_context& context)
{
    return functions().cancel_group_execution(context);
}

void create(d1::global_control& control)
{
    functions().create_control(control);
}

void deallocate(d1::small_object_pool& pool, void* object, std::size_t size,
                const d1::execution_data& data)
{
    functions().deallocate(pool, object, size, data);
}

void destroy(d1::global_control& control)
{
    functions().destroy_control(control);
}

void destroy(d1::task_group_context& context)
{
    functions().destroy_context(context);
}

void execute(d1::task_arena_base& arena, d1::delegate_base& work)
{
    functions().execute(arena, work);
}

d1::slot_id execution_slot(const d1::execution_data* data)
{
    return functions().execution_slot(data);
}

void initialize(d1::task_arena_base& arena)
{
    functions().initialize_arena(arena);
}

void initialize(d1::task_group_context& context)
{
    functions().initialize_context(context);
}

bool is_group_execution_cancelled(d1::task_group_context& context)
{
    return functions().is_group_execution_cancelled(context);
}

void isolate_within_arena(d1::delegate_base& work, std::intptr_t tag)
{
    functions().isolate_within_arena(work, tag);
}

void notify_waiters(std::uintptr_t wait)
{
    functions().notify_waiters(wait);
}

int numa_default_concurrency(int node)
{
    return functions().numa_default_concurrency(node);
}

void reset(d1::task_group_context& context)
{
    functions().reset(context);
}

void spawn(d1::task& task, d1::task_group_context& context)
{
    functions().spawn(task, context);
}

void terminate(d1::task_arena_base& arena)
{
    functions().terminate(arena);
}

void throw_exception(d0::exception_id id)
{
    functions().throw_exception(id);
}

void wait(d1::wait_context& wait, d1::task_group_context& context)
{
    functions().wait(wait, context);
}

}  // namespace tbb::detail::r1

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
