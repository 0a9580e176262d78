#include "graph/values.h"

#include <variant>

namespace Quorval::runtime {

void set_value(BlockConfiguration& config, const std::string& key, const Value& value)
{
    std::visit([&](const auto& held) { config.set(key, held); }, value);
}

}  // namespace Quorval::runtime
