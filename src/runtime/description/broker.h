// Where a broker is.
#pragma once

#include "description/description.h"

#include <string>

namespace Quorval::runtime {

/// Takes `mqtt://HOST[:PORT]` or `mqtts://HOST[:PORT]` apart; an address of IPv6 stands in
/// brackets. Without a port it is 1883, or 8883.
/// @return false: it has another form; `link` is as it was then
bool parse_broker(const std::string& text, LinkDescription& link);

}  // namespace Quorval::runtime
