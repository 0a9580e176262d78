// A library in the place of oneTBB that tells how it is called.
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace quorval_test {

/// The name of a function, and its arguments: numbers, texts, and the addresses of all else.
template <class... Arguments>
std::string call_text(const char* name, const Arguments&... arguments)
{
    std::ostringstream text;
    text << name;
    ((text << ' ' << arguments), ...);
    return text.str();
}

}  // namespace quorval_test

/// In the library: the calls so far.
extern "C" const std::vector<std::string>* quorval_test_tbb_calls();
