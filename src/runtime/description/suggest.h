// The name that was probably meant, as part of a message.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// "; did you mean '<near>'?", or nothing where no known name is near.
std::string suggestion(const std::string& name, const std::vector<std::string>& known);

/// Makes suggestions for many names. Each one compares the name with all that are known, so after
/// some millions of comparisons there are none any more: a broken file of any size is told of in
/// time.
class Suggester {
public:
    /// suggestion(), as long as there are any.
    std::string suggest(const std::string& name, const std::vector<std::string>& known);

private:
    std::size_t comparisons_ = 0;
};

}  // namespace Quorval::runtime
