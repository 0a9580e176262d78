#include "observe/trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <system_error>

namespace Quorval::runtime {

namespace {

constexpr std::size_t kBufferSize = 65536;
constexpr std::size_t kLongestNumber = 20;
constexpr mode_t kForAll = 0666;  // less what the umask takes away

std::string text_for(const std::string& file)
{
    return "'" + file + "' cannot be written";
}

}  // namespace

Trace::Trace(const std::string& file, const std::string& graph, const Network& network)
    : file_(file),
      network_(network),
      descriptor_(::open(file.c_str(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kForAll),
                  text_for(file).c_str()),
      process_(R"(,"pid":)" + std::to_string(::getpid()) + R"(,"tid":)"),
      buffer_(kBufferSize)
{
    // Graphs and blocks have names that need no escapes.
    add(R"([)"
        "\n"
        R"({"name":"process_name","ph":"M")");
    add_thread(0);
    add(R"(,"args":{"name":")");
    add(graph);
    add(R"("}})");
}

void Trace::add_run(std::uint32_t block, Time begin, Time end, bool has_failed,
                    std::uint32_t thread) noexcept
{
    add(",\n{\"name\":\"");
    add(network_.nodes[block].path);
    add(R"(","ph":"X","ts":)");
    add_time(begin);
    add(R"(,"dur":)");
    add_time(end - begin);
    add_thread(thread);
    add(has_failed ? R"(,"args":{"failed":true}})" : "}");
}

void Trace::add_wave(Time begin, std::uint64_t runs) noexcept
{
    add(",\n{\"name\":\"wave\",\"ph\":\"C\",\"ts\":");
    add_time(begin);
    add_thread(0);
    add(R"(,"args":{"runs":)");
    add(runs);
    add("}}");
}

void Trace::finish()
{
    add("\n]\n");
    write();
    if (error_ != 0) {
        throw std::system_error(error_, std::generic_category(), text_for(file_));
    }
}

void Trace::add(std::string_view text) noexcept
{
    while (!text.empty()) {
        if (used_ == buffer_.size()) {
            write();
        }
        const std::size_t count = std::min(text.size(), buffer_.size() - used_);
        text.copy(buffer_.data() + used_, count);
        used_ += count;
        text.remove_prefix(count);
    }
}

void Trace::add(std::uint64_t number) noexcept
{
    std::array<char, kLongestNumber> digits{};
    const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    add(std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())));
}

/// In microseconds, with three digits behind the point.
void Trace::add_time(Time time) noexcept
{
    constexpr std::uint64_t kThousand = 1000;
    const auto nanoseconds = static_cast<std::uint64_t>(time.count());
    const std::uint64_t rest = nanoseconds % kThousand;
    add(nanoseconds / kThousand);
    const std::array<char, 4> fraction = {'.', static_cast<char>('0' + rest / 100),
                                          static_cast<char>('0' + rest / 10 % 10),
                                          static_cast<char>('0' + rest % 10)};
    add(std::string_view(fraction.data(), fraction.size()));
}

void Trace::add_thread(std::uint32_t thread) noexcept
{
    add(process_);
    add(std::uint64_t{thread} + 1);
}

void Trace::write() noexcept
{
    for (std::size_t done = 0; done < used_ && error_ == 0;) {
        const ssize_t count = ::write(descriptor_.get(), buffer_.data() + done, used_ - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            error_ = errno;
        }
    }
    used_ = 0;
}

}  // namespace Quorval::runtime
