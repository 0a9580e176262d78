// Values that can be told from each other and from wrong ones, and who takes them in.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quorval_bench {

/// Values of one size: their number, then bytes that are the same in all.
class NumberedValues {
public:
    /// @param size  bytes of a value, at least those of its number
    explicit NumberedValues(std::size_t size) : value_(size, '\0')
    {
        constexpr std::size_t kStep = 31;
        for (std::size_t at = 0; at < size; ++at) {
            value_[at] = static_cast<char>(at * kStep);
        }
    }

    /// The value of a number, until the next call.
    const std::string& make(std::uint64_t number)
    {
        std::memcpy(value_.data(), &number, sizeof number);
        return value_;
    }

    /// The number of a value; 0 where a byte is wrong.
    std::uint64_t number_of(std::string_view bytes) const
    {
        std::uint64_t number = 0;
        if (bytes.size() == value_.size() &&
            bytes.substr(sizeof number) == std::string_view(value_).substr(sizeof number)) {
            std::memcpy(&number, bytes.data(), sizeof number);
        }
        return number;
    }

private:
    std::string value_;
};

/// What the last value of a burst is answered with.
struct Arrival {
    std::uint64_t number = 0;   ///< of the value; 0: something wrong came
    std::uint64_t arrived = 0;  ///< values since the last answer
};

/// Looks at each value that arrives, and answers the last one of each burst.
class Arrivals {
public:
    /// @param fd     for the answers
    /// @param size   bytes of a value
    /// @param burst  the numbers that it divides have an answer
    Arrivals(int fd, std::size_t size, std::uint64_t burst) : values_(size), fd_(fd), burst_(burst)
    {
    }

    void take(std::string_view bytes)
    {
        const std::uint64_t number = values_.number_of(bytes);
        ++arrived_;
        const bool is_next = number > last_;
        last_ = number;
        if (is_next && number % burst_ != 0) {
            return;
        }
        const Arrival arrival{is_next ? number : 0, arrived_};
        arrived_ = 0;
        if (::write(fd_, &arrival, sizeof arrival) != sizeof arrival) {
            throw std::runtime_error("an arrival cannot be told");
        }
    }

private:
    NumberedValues values_;
    int fd_;
    std::uint64_t burst_;
    std::uint64_t last_ = 0;
    std::uint64_t arrived_ = 0;
};

}  // namespace quorval_bench
