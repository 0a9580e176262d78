#include "description/broker.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace Quorval::runtime {

namespace {

constexpr int kDefaultPort = 1883;
constexpr int kDefaultEncryptedPort = 8883;

bool take_prefix(std::string_view& text, std::string_view prefix)
{
    const bool has_it = text.substr(0, prefix.size()) == prefix;
    text.remove_prefix(has_it ? prefix.size() : 0);
    return has_it;
}

/// @return 0 where the text is no port
int parse_port(std::string_view text)
{
    constexpr int kHighest = 65'535;
    constexpr int kTen = 10;
    int port = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9' || port > kHighest) {
            return 0;
        }
        port = kTen * port + (digit - '0');
    }
    return port <= kHighest ? port : 0;
}

bool is_host_character(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '-' || c == '_';
}

bool is_address_character(char c)
{
    return is_host_character(c) || c == ':' || c == '%';
}

/// The host at the beginning, which is taken away; empty where there is none.
std::string_view take_host(std::string_view& text)
{
    const bool is_address = take_prefix(text, "[");
    const std::size_t size = std::min(text.find(is_address ? ']' : ':'), text.size());
    const std::string_view host = text.substr(0, size);
    text.remove_prefix(size);
    const bool is_valid = std::all_of(host.begin(), host.end(),
                                      is_address ? is_address_character : is_host_character) &&
                          (!is_address || take_prefix(text, "]"));
    return is_valid ? host : std::string_view();
}

}  // namespace

bool parse_broker(const std::string& text, LinkDescription& link)
{
    std::string_view rest = text;
    const bool is_encrypted = take_prefix(rest, "mqtts://");
    if (!is_encrypted && !take_prefix(rest, "mqtt://")) {
        return false;
    }
    const std::string_view host = take_host(rest);
    int port = is_encrypted ? kDefaultEncryptedPort : kDefaultPort;
    if (take_prefix(rest, ":")) {
        port = parse_port(rest);
    } else if (!rest.empty()) {
        return false;
    }
    if (host.empty() || port == 0) {
        return false;
    }
    link.broker = text;
    link.host = host;
    link.port = port;
    link.is_encrypted = is_encrypted;
    return true;
}

}  // namespace Quorval::runtime
