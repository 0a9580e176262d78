// What values look like outside of the process.
#pragma once

#include <quorval/codec.h>
#include <quorval/port.h>

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

/// A new value.
/// @throws std::runtime_error  the codec failed, as above; or it made none: "the codec made no
///     value"
std::shared_ptr<void> make_value(const Codec& codec);

/// Replaces the value at `value`.
/// @throws std::runtime_error  the codec failed, as above; the value is as it was
void decode(const Codec& codec, std::string_view bytes, void* value);

/// An output whose values come from outside. Its value has one place, as that of an OutPort.
class DecodedOutPort : public OutPortInternal {
public:
    /// @param codec  must outlive the port
    /// @throws std::runtime_error  the codec failed, as above; or it made none: "the codec made no
    ///     value"
    DecodedOutPort(const std::string& name, Datatype type, const Codec& codec);

    /// Takes a value over and publishes it.
    /// @throws std::runtime_error  the codec failed, as above; the port is as it was
    void write(std::string_view bytes);

private:
    const Codec& codec_;
    std::shared_ptr<void> value_;
};

}  // namespace Quorval::runtime
