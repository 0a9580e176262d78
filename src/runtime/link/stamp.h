// What a message says of the value in it.
#pragma once

#include <cstdint>
#include <string>

namespace Quorval::runtime {

struct Stamp {
    std::string type;          ///< name of the data type
    std::uint64_t start = 0;   ///< when the sender started, nanoseconds since 1970
    std::uint64_t number = 0;  ///< of the value since then, from 1
};

}  // namespace Quorval::runtime
