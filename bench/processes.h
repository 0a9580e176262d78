// Processes that a benchmark starts, and how it speaks with them.
#pragma once

#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <stdexcept>

namespace quorval_bench {

/// A child process that ends with its owner.
class Child {
public:
    explicit Child(const std::function<void()>& work) : process_(::fork())
    {
        if (process_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            work();
            ::_exit(1);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
    }

    pid_t id() const { return process_; }

private:
    pid_t process_;
};

/// A pipe, whose descriptors stay what they are.
class Pipe {
public:
    Pipe()
    {
        if (::pipe(ends_) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }

    int read_end() const { return ends_[0]; }
    int write_end() const { return ends_[1]; }

private:
    int ends_[2] = {-1, -1};
};

}  // namespace quorval_bench
