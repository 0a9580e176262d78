#include "graph/standard_output.h"

#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

using Quorval::runtime::StandardOutputScope;
using quorval_test::NoStandardInput;
using quorval_test::open_descriptors;
using quorval_test::read_file;
using quorval_test::TemporaryDirectory;

namespace {

/// What an action writes to standard output and to standard error in a process of its own.
template <class Action>
std::pair<std::string, std::string> outputs_of(const Action& action)
{
    const TemporaryDirectory directory;
    const std::string out = directory.store_path() + "out";
    const std::string err = directory.store_path() + "err";
    std::cout.flush();
    static_cast<void>(std::fflush(nullptr));
    const pid_t process = ::fork();
    if (process == 0) {
        constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND;
        const int files[] = {::open(out.c_str(), kFlags, 0600), ::open(err.c_str(), kFlags, 0600)};
        ::dup2(files[0], STDOUT_FILENO);
        ::dup2(files[1], STDERR_FILENO);
        action();
        std::cout.flush();
        static_cast<void>(std::fflush(nullptr));
        ::_exit(0);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
    return {read_file(out), read_file(err)};
}

TEST(StandardOutput, GoesToStandardErrorMeanwhile)
{
    const auto outputs = outputs_of([] {
        std::ios::sync_with_stdio(false);
        std::cout << "1";
        std::cout.flush();
        static_cast<void>(std::fputs("2", stdout));
        {
            const StandardOutputScope scope;
            std::cout << "3";
            std::cout.flush();
            static_cast<void>(std::fputs("4", stdout));
        }
        static_cast<void>(std::fputs("5", stdout));
    });

    EXPECT_EQ(outputs.first, "125");
    EXPECT_EQ(outputs.second, "34");
}

TEST(StandardOutput, OfStreamsGoesToStandardErrorMeanwhile)
{
    const auto outputs = outputs_of([] {
        std::ios::sync_with_stdio(false);
        std::cout << "1";
        {
            const StandardOutputScope scope;
            std::cout << "2";
        }
        std::cout << "3";
    });

    EXPECT_EQ(outputs.first, "13");
    EXPECT_EQ(outputs.second, "2");
}

TEST(StandardOutput, ComesBackWithoutStandardInput)
{
    const auto outputs = outputs_of([] {
        const NoStandardInput none;
        const std::vector<int> before = open_descriptors();
        {
            const StandardOutputScope scope;
            static_cast<void>(std::fputs("1", stdout));
        }
        static_cast<void>(std::fputs(open_descriptors() == before ? "2" : "left open", stdout));
    });

    EXPECT_EQ(outputs.first, "2");
    EXPECT_EQ(outputs.second, "1");
}

TEST(StandardOutput, StaysClosed)
{
    const auto outputs = outputs_of([] {
        ::close(STDOUT_FILENO);
        const bool is_taken = [] {
            const StandardOutputScope scope;
            return ::fcntl(STDOUT_FILENO, F_GETFD) >= 0;
        }();
        const bool is_taken_later = ::fcntl(STDOUT_FILENO, F_GETFD) >= 0;
        static_cast<void>(std::fputs(is_taken || is_taken_later ? "taken" : "closed", stderr));
    });

    EXPECT_EQ(outputs.second, "closed");
}

}  // namespace
