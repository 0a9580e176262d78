// The _exit() and _Exit() of the process: plug-in code that calls one of them is named, as where it
// calls exit().
#include <quorval/runtime/crash.h>
#include "apart.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

namespace {

/// That of the C library, or of a sanitizer. Looked up early: _exit() may come at any time.
const auto next_exit = reinterpret_cast<void (*)(int)>(::dlsym(RTLD_NEXT, "_exit"));

[[noreturn]] void end_suddenly(int status)
{
    if (Quorval::report_sudden_exit(status)) {
        note_reported_end();
    }
    if (next_exit != nullptr) {
        next_exit(status);
    }
    while (true) {
        ::syscall(SYS_exit_group, status);
    }
}

}  // namespace

// Where the program has them, they are found before those of the C library.
extern "C" {

[[gnu::visibility("default")]] void _exit(int status)
{
    end_suddenly(status);
}

[[gnu::visibility("default")]] void _Exit(int status) noexcept
{
    end_suddenly(status);
}

}  // extern "C"
