// Compiled without type information.
#include "core/store/untyped_buffer.h"

#include <sstream>

namespace quorval_test {

namespace {

class Untyped : public std::stringbuf {
public:
    using std::stringbuf::stringbuf;

protected:
    std::streamsize xsgetn(char* to, std::streamsize size) override
    {
        return std::stringbuf::xsgetn(to, size);
    }
};

}  // namespace

std::unique_ptr<std::stringbuf> make_untyped_buffer(const std::string& content)
{
    return std::make_unique<Untyped>(content);
}

}  // namespace quorval_test
