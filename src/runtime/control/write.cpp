#include "control/write.h"

#include <quorval/config.h>
#include <quorval/runtime/config_files.h>
#include "graph/values.h"
#include "store/utf8.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string_view>
#include <variant>
#include <vector>

namespace Quorval::runtime {

std::string to_utf8(const std::string& text)
{
    std::string valid;
    valid.reserve(text.size());
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t size = utf8_size(rest);
        valid += size > 0 ? rest.substr(0, size) : std::string_view("\xEF\xBF\xBD");
        rest.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return valid;
}

std::string to_toml(const Value& value)
{
    BlockConfiguration config;
    set_value(config, "value", value);
    return to_utf8(describe_value(config, "value"));
}

std::string quote(const std::string& text)
{
    return to_toml(to_utf8(text));
}

std::string to_json(const Value& value)
{
    const auto write = [](double number) {
        return std::isfinite(number) ? to_toml(number) : std::string("null");
    };
    if (const auto* number = std::get_if<double>(&value)) {
        return write(*number);
    }
    if (const auto* text = std::get_if<std::string>(&value)) {
        return quote(*text);
    }
    std::string items;
    if (const auto* numbers = std::get_if<std::vector<double>>(&value)) {
        for (const double number : *numbers) {
            items += (items.empty() ? "" : ", ") + write(number);
        }
        return "[" + items + "]";
    }
    if (const auto* texts = std::get_if<std::vector<std::string>>(&value)) {
        for (const std::string& text : *texts) {
            items += (items.empty() ? "" : ", ") + quote(text);
        }
        return "[" + items + "]";
    }
    return to_toml(value);
}

}  // namespace Quorval::runtime
