#include "messages/crash_threads.h"

#include <csignal>
#include <cstddef>
#include <vector>

namespace Quorval::runtime {

namespace {

constexpr std::size_t kSize = 65536;

class CrashStack {
public:
    CrashStack()
    {
        ::sigaltstack(nullptr, &before_);
        if ((before_.ss_flags & SS_DISABLE) == 0) {
            return;
        }
        memory_.resize(kSize);
        stack_t stack{};
        stack.ss_sp = memory_.data();
        stack.ss_size = memory_.size();
        ::sigaltstack(&stack, nullptr);
    }
    CrashStack(const CrashStack&) = delete;
    CrashStack& operator=(const CrashStack&) = delete;

    ~CrashStack()
    {
        if (!memory_.empty()) {
            ::sigaltstack(&before_, nullptr);
        }
    }

private:
    stack_t before_{};
    std::vector<char> memory_;
};

}  // namespace

void have_crash_stack()
{
    static const thread_local CrashStack kStack;
}

}  // namespace Quorval::runtime
