#include "link/losses.h"

#include <quorval/log.h>

namespace Quorval::runtime {

void Losses::add(std::uint64_t count, const std::string& why, Time now)
{
    count_ += count;
    if (is_reported_ && now - last_ < std::chrono::seconds(1)) {
        left_out_ += count;
        return;
    }
    const std::string rest =
        left_out_ == 0 ? std::string() : " (" + std::to_string(left_out_) + " more since the last)";
    logger(LOGLEVEL_WARNING, "%llu values of %s are lost: %s%s",
           static_cast<unsigned long long>(count), output_.c_str(), why.c_str(), rest.c_str());
    is_reported_ = true;
    last_ = now;
    left_out_ = 0;
}

void Losses::add_rest()
{
    if (left_out_ > 0) {
        logger(LOGLEVEL_WARNING, "%llu more values of %s are lost",
               static_cast<unsigned long long>(left_out_), output_.c_str());
        left_out_ = 0;
    }
}

}  // namespace Quorval::runtime
