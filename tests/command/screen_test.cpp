#include "screen.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <system_error>

namespace {

/// Has standard input be something else.
class OtherInput {
public:
    explicit OtherInput(const char* file) : before_(::dup(STDIN_FILENO))
    {
        const int fd = ::open(file, O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(::dup2(fd, STDIN_FILENO), STDIN_FILENO);
        ::close(fd);
    }
    OtherInput(const OtherInput&) = delete;
    OtherInput& operator=(const OtherInput&) = delete;
    ~OtherInput()
    {
        ::dup2(before_, STDIN_FILENO);
        ::close(before_);
    }

private:
    int before_;
};

TEST(Screen, IsRefusedWhereInputIsNoTerminal)
{
    const OtherInput input("/dev/null");

    testing::internal::CaptureStdout();
    quorval_test::expect_throw<std::system_error>(
        [] { const Screen screen; },
        "the terminal cannot be drawn on: Inappropriate ioctl for device");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
