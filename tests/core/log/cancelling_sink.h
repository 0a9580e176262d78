// Threads that are cancelled while they log.
#pragma once

#include <quorval/log.h>

#include <pthread.h>

#include <functional>
#include <memory>
#include <utility>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

namespace quorval_test {

/// Ends the thread here when it is cancelled. The address sanitizer has to be told: it does not
/// see how a cancelled thread leaves its functions.
inline void end_if_cancelled()
{
#ifdef __SANITIZE_ADDRESS__
    __asan_handle_no_return();
#endif
    ::pthread_testcancel();
}

/// Cancels the thread that it logs for, counts the messages and those that ended early.
class CancellingSink : public Quorval::LogInstance {
public:
    struct Counts {
        int begun = 0;
        int ended = 0;
    };

    explicit CancellingSink(Counts& counts) : counts_(counts) {}

    void emit(loglevel /*level*/, const char* /*text*/, int /*length*/) override
    {
        ++counts_.begun;
        ::pthread_cancel(::pthread_self());
        end_if_cancelled();
        ++counts_.ended;
    }

private:
    Counts& counts_;
};

/// Runs `action` in a thread of its own whose sink cancels it.
/// @return whether the thread was cancelled, and how far the sink came
inline std::pair<bool, CancellingSink::Counts> run_cancelled(std::function<void()> action)
{
    CancellingSink::Counts counts;
    auto before = std::exchange(Quorval::loginstance, std::make_unique<CancellingSink>(counts));
    pthread_t thread{};
    ::pthread_create(
        &thread, nullptr,
        [](void* argument) -> void* {
            (*static_cast<std::function<void()>*>(argument))();
            return nullptr;
        },
        &action);
    void* result = nullptr;
    ::pthread_join(thread, &result);
    Quorval::loginstance = std::move(before);
    return {result == PTHREAD_CANCELED, counts};
}

}  // namespace quorval_test
