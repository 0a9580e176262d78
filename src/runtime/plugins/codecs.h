// What values look like outside of the process.
#pragma once

#include <quorval/codec.h>

#include <memory>
#include <string>
#include <string_view>

namespace Quorval::runtime {

/// The codec of a standard data type, those that PortType names; null for another one.
const Codec* find_standard_codec(const std::string& type);

/// Replaces `bytes` by those of the value at `value`.
/// @throws std::runtime_error  the codec failed, with the text of what it threw, or "an unknown
///     exception"; no exception of a plug-in's own leaves it
void encode(const Codec& codec, const void* value, std::string& bytes);

/// Makes a value.
/// @return never null; to be let go before the plug-in of the codec
/// @throws std::runtime_error  the codec failed, as above; or it made none: "the codec made no
///     value"
std::shared_ptr<const void> decode(const Codec& codec, std::string_view bytes);

}  // namespace Quorval::runtime
