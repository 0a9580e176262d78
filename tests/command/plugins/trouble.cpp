// A block that makes trouble in the operation that it is told.
#include <quorval/block.h>
#include <quorval/log.h>
#include <quorval/pluginloader.h>
#include <quorval/runtime/tools.h>

#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Datatype;

/// Its text is no text.
class Wordless : public std::exception {
public:
    const char* what() const noexcept override { return nullptr; }
};

/// Uses code and objects of the plug-in.
[[noreturn]] void work_for_ever()
{
    static const std::string kText(1000, 'x');
    for (;;) {
        const std::string copy = kText;
        if (copy.size() != kText.size() || copy.back() != 'x') {
            std::abort();
        }
        std::this_thread::yield();
    }
}

/// Likewise, and logs what is seldom shown.
[[noreturn]] void talk_for_ever()
{
    for (;;) {
        Quorval::ilog(LOGLEVEL_INFO) << "talk";
        std::this_thread::yield();
    }
}

/// A stream that logs when it is written, which is at the end of the process.
void log_at_the_end()
{
    cookie_io_functions_t functions{};
    functions.write = [](void* /*cookie*/, const char* /*text*/, std::size_t size) {
        Quorval::ilog(LOGLEVEL_WARNING) << "the last word";
        return static_cast<ssize_t>(size);
    };
    std::fputs("text", ::fopencookie(nullptr, "w", functions));
}

/// `where` names an operation, `what` the trouble: "throw", "crash", "exit", "hang", "wait",
/// "say", "kill", "block", "exit in child", "exit in thread", "leave thread", "leave talk",
/// "throw nothing", "throw number", "abort", "quick exit", "sudden exit", "sudden exit 3", "system
/// exit", "system exit 3", "log and exit", "leave open", "leave open and throw", "close all",
/// "close error" or "spin".
class Trouble : public Block {
public:
    Trouble(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          where_(config.getString("where", "")),
          what_(config.getString("what", ""))
    {
        config.getInt("step", 0);
        add_fdport(std::make_unique<Quorval::EventPort>("event", true, ::eventfd(0, EFD_CLOEXEC)));
        be_at("constructor");
    }

    ~Trouble() override { be_at("destructor"); }

    BlockConfiguration setup(const BlockConfiguration& config) override
    {
        be_at("setup");
        return Block::setup(config);
    }

    void start() override
    {
        be_at("start");
        std::cout << get_name() << " started" << std::endl;
        if (where_ == "run") {
            get_tools().request_run();
        }
    }

    void reconfigure(const BlockConfiguration& merged,
                     const BlockConfiguration& /*override*/) override
    {
        be_at("reconfigure");
        std::cout << get_name() << " reconfigured: step " << merged.getInt("step") << std::endl;
    }

    bool run() override
    {
        be_at("run");
        return false;
    }

    void stop() override
    {
        be_at("stop");
        std::cout << get_name() << " stopped" << std::endl;
    }

private:
    void be_at(const std::string& operation) const
    {
        if (where_ != operation) {
            return;
        }
        if (what_ == "throw") {
            throw std::runtime_error("no luck");
        }
        if (what_ == "crash") {
            ::raise(SIGSEGV);
        }
        if (what_ == "kill") {
            ::raise(SIGKILL);
        }
        if (what_ == "exit") {
            std::exit(0);
        }
        if (what_ == "log and exit") {
            log_at_the_end();
            std::exit(0);
        }
        if (what_ == "say") {
            std::cout << "said by " << get_name() << std::endl;
            Quorval::ilog(LOGLEVEL_WARNING) << "a warning";
            Quorval::ilog(LOGLEVEL_INFO) << "a note";
            Quorval::ilog(LOGLEVEL_DEBUG) << "a detail";
        }
        if (what_ == "throw nothing") {
            throw Wordless();
        }
        if (what_ == "throw number") {
            throw 42;
        }
        if (what_ == "abort") {
            std::abort();
        }
        if (what_ == "quick exit") {
            std::quick_exit(0);
        }
        if (what_ == "sudden exit") {
            ::_exit(0);
        }
        if (what_ == "sudden exit 3") {
            std::_Exit(3);
        }
        if (what_ == "system exit" || what_ == "system exit 3") {
            ::syscall(SYS_exit_group, what_ == "system exit" ? 0 : 3);
        }
        be_careless();
        if (what_ == "block") {
            sigset_t all;
            ::sigfillset(&all);
            ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        }
        if (what_ == "exit in child") {
            const pid_t child = ::fork();
            if (child == 0) {
                std::exit(5);
            }
            int state = 0;
            ::waitpid(child, &state, 0);
            std::cout << "child " << WEXITSTATUS(state) << std::endl;
        }
        if (what_ == "exit in thread") {
            std::thread([] { std::exit(0); }).join();
        }
        if (what_ == "leave thread") {
            std::thread(work_for_ever).detach();
        }
        if (what_ == "leave talk") {
            std::thread(talk_for_ever).detach();
        }
        if (what_ == "hang") {
            std::cerr << "hanging" << std::endl;
            for (;;) {
                ::pause();
            }
        }
        if (what_ == "wait") {
            wait_for_signal();
        }
    }

    /// Troubles with descriptors and files, and a long wait without one.
    void be_careless() const
    {
        constexpr int kMany = 256;
        if (what_ == "leave open") {
            ::eventfd(0, EFD_CLOEXEC);
        }
        if (what_ == "leave open and throw") {
            ::eventfd(0, EFD_CLOEXEC);
            throw std::runtime_error("no luck");
        }
        if (what_ == "close all") {
            for (int fd = STDERR_FILENO + 1; fd < kMany; ++fd) {
                ::close(fd);
            }
        }
        if (what_ == "close error") {
            ::close(STDERR_FILENO);
        }
        if (what_ == "spin") {
            std::cerr << "spinning" << std::endl;
            work_for_ever();
        }
    }

    /// Until SIGINT has come, which the runtime takes; one that comes early is kept for the wait.
    static void wait_for_signal()
    {
        sigset_t interrupt;
        sigset_t before;
        ::sigemptyset(&interrupt);
        ::sigaddset(&interrupt, SIGINT);
        ::sigprocmask(SIG_BLOCK, &interrupt, &before);
        std::cerr << "waiting" << std::endl;
        ::sigsuspend(&before);
        ::sigprocmask(SIG_SETMASK, &before, nullptr);
    }

    std::string where_;
    std::string what_;
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn(
        "Trouble",
        [](std::string name, const BlockConfiguration& config, const Quorval::InitTools&) {
            return std::make_unique<Trouble>(std::move(name), config);
        });
    return 0;
}
