#include "link/topics.h"

namespace Quorval::runtime {

namespace {

std::string escape(const std::string& port)
{
    constexpr const char* kDigits = "0123456789ABCDEF";
    constexpr unsigned kBits = 4;  // of a digit
    constexpr unsigned kDigit = 0xF;
    constexpr unsigned kSpace = 0x20;
    constexpr unsigned kDelete = 0x7F;
    static const std::string kSpecial = "+#/%";
    std::string escaped;
    for (const char c : port) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > kSpace && byte < kDelete && kSpecial.find(c) == std::string::npos) {
            escaped += c;
        } else {
            escaped += {'%', kDigits[byte >> kBits], kDigits[byte & kDigit]};
        }
    }
    return escaped;
}

}  // namespace

std::string value_topic(const std::string& graph, const std::string& path, const std::string& port)
{
    return "quorval/" + graph + "/value/" + path + "/" + escape(port);
}

std::string machine_topic(const std::string& graph, const std::string& machine)
{
    return "quorval/" + graph + "/machine/" + machine;
}

std::string client_name(const std::string& graph, const std::string& machine)
{
    return "quorval-" + graph + "-" + machine;
}

}  // namespace Quorval::runtime
