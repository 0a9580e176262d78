// Codecs: how values of a data type become bytes that can be kept, or sent to another machine.
#pragma once

#include <quorval/export.h>
#include <quorval/pluginloader.h>

#include <cereal/cereal.hpp>
#include <cereal/types/string.hpp>
#include <cereal/types/vector.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Quorval {

/// Makes bytes of values of one C++ type, and values of bytes. A plain record; its functions are
/// code of the plug-in that registered it. Several threads may use it.
struct Codec {
    /// Appends the bytes of the value at `value` to `bytes`.
    /// @throws what serializing throws
    void (*encode)(const void* value, std::string& bytes) = nullptr;

    /// Makes a new value, value-initialised.
    std::shared_ptr<void> (*make)() = nullptr;

    /// Replaces the value at `value`, which stays as it is when this throws.
    /// @throws std::runtime_error  the bytes are not those of a value: "the value ends too early",
    ///     "the value has no byte order", "the value has a list that is longer than itself", "the
    ///     value is nested too deeply", "the value ends too late"
    /// @throws what serializing throws
    void (*decode)(std::string_view bytes, void* value) = nullptr;
};

/// What a registry is, too, that takes codecs: register_codec() asks for it with a dynamic_cast.
/// New operations come at the end.
class QUORVAL_EXPORT ICodecRegistry {
public:
    /// Records the codec of a data type, which lives as long as the plug-in is loaded.
    /// @throws std::runtime_error  there is one for this type already: "Try to register codec
    ///     <type> twice."
    virtual void add_codec(const std::string& type, const Codec& codec) = 0;

    ICodecRegistry(const ICodecRegistry&) = delete;
    ICodecRegistry& operator=(const ICodecRegistry&) = delete;

protected:
    ICodecRegistry() = default;
    ~ICodecRegistry() = default;
};

/// What this header keeps to itself: archives with the format of cereal's portable binary ones. A
/// first byte says whether the bytes of a number come from the least (1) or from the greatest one
/// on (0); then come the numbers one behind the other, the length of a list, 8 bytes, before its
/// items.
namespace codec_detail {

constexpr bool is_little_endian()
{
    return __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
}

/// Turns each of the items of `size` bytes around.
template <std::size_t ItemSize>
void swap_bytes(char* bytes, std::size_t size)
{
    for (std::size_t i = 0; i + ItemSize <= size; i += ItemSize) {
        std::reverse(bytes + i, bytes + i + ItemSize);
    }
}

/// Appends to a string, the least byte of each number first.
class Encoder : public cereal::OutputArchive<Encoder, cereal::AllowEmptyClassElision> {
public:
    explicit Encoder(std::string& bytes)
        : cereal::OutputArchive<Encoder, cereal::AllowEmptyClassElision>(this), bytes_(bytes)
    {
        bytes_.push_back(1);
    }

    template <std::size_t ItemSize>
    void write(const void* data, std::size_t size)
    {
        const std::size_t begin = bytes_.size();
        bytes_.append(static_cast<const char*>(data), size);
        if (!is_little_endian()) {
            swap_bytes<ItemSize>(&bytes_[begin], size);
        }
    }

private:
    std::string& bytes_;
};

/// Reads what may come from anywhere: it takes no more memory than the bytes account for, nor more
/// of the stack than a value of sense needs.
class Decoder : public cereal::InputArchive<Decoder, cereal::AllowEmptyClassElision> {
public:
    explicit Decoder(std::string_view bytes)
        : cereal::InputArchive<Decoder, cereal::AllowEmptyClassElision>(this),
          rest_(bytes),
          items_left_(bytes.size())
    {
        std::uint8_t order = 0;
        read<1>(&order, 1);
        if (order > 1) {
            throw std::runtime_error("the value has no byte order");
        }
        is_swapped_ = (order == 1) != is_little_endian();
    }

    template <std::size_t ItemSize>
    void read(void* data, std::size_t size)
    {
        if (size > rest_.size()) {
            throw std::runtime_error("the value ends too early");
        }
        if (size == 0) {
            return;
        }
        std::memcpy(data, rest_.data(), size);
        rest_.remove_prefix(size);
        if (is_swapped_) {
            swap_bytes<ItemSize>(static_cast<char*>(data), size);
        }
    }

    /// Lists are made as long as they say before their items are read. All of them together have
    /// at most as many items as there are bytes, since each takes one at least.
    void count_items(std::uint64_t count)
    {
        if (count > items_left_) {
            throw std::runtime_error("the value has a list that is longer than itself");
        }
        items_left_ -= count;
    }

    void enter()
    {
        constexpr int kMostNested = 500;
        if (++depth_ > kMostNested) {
            throw std::runtime_error("the value is nested too deeply");
        }
    }
    void leave() { --depth_; }

    void finish() const
    {
        if (!rest_.empty()) {
            throw std::runtime_error("the value ends too late");
        }
    }

private:
    std::string_view rest_;
    std::uint64_t items_left_;
    int depth_ = 0;
    bool is_swapped_ = false;
};

// What cereal calls, found by the archive.

template <class T>
void prologue(Decoder& decoder, const T& /*value*/)
{
    decoder.enter();
}

template <class T>
void epilogue(Decoder& decoder, const T& /*value*/)
{
    decoder.leave();
}

template <class T>
constexpr bool is_portable()
{
    return !std::is_floating_point_v<T> || std::numeric_limits<T>::is_iec559;
}

template <class T>
std::enable_if_t<std::is_arithmetic_v<T>> CEREAL_SAVE_FUNCTION_NAME(Encoder& encoder,
                                                                    const T& value)
{
    static_assert(is_portable<T>(), "numbers of this type have no portable form");
    encoder.template write<sizeof(T)>(&value, sizeof value);
}

template <class T>
std::enable_if_t<std::is_arithmetic_v<T>> CEREAL_LOAD_FUNCTION_NAME(Decoder& decoder, T& value)
{
    static_assert(is_portable<T>(), "numbers of this type have no portable form");
    if constexpr (std::is_same_v<T, bool>) {
        std::uint8_t byte = 0;
        decoder.read<1>(&byte, 1);
        value = byte != 0;
    } else {
        decoder.template read<sizeof(T)>(&value, sizeof value);
    }
}

template <class T>
void CEREAL_SAVE_FUNCTION_NAME(Encoder& encoder, const cereal::BinaryData<T>& data)
{
    encoder.template write<sizeof(std::remove_pointer_t<T>)>(data.data, data.size);
}

template <class T>
void CEREAL_LOAD_FUNCTION_NAME(Decoder& decoder, cereal::BinaryData<T>& data)
{
    decoder.template read<sizeof(std::remove_pointer_t<T>)>(data.data, data.size);
}

template <class T>
void CEREAL_SAVE_FUNCTION_NAME(Encoder& encoder, const cereal::NameValuePair<T>& pair)
{
    encoder(pair.value);
}

template <class T>
void CEREAL_LOAD_FUNCTION_NAME(Decoder& decoder, cereal::NameValuePair<T>& pair)
{
    decoder(pair.value);
}

template <class T>
void CEREAL_SAVE_FUNCTION_NAME(Encoder& encoder, const cereal::SizeTag<T>& tag)
{
    encoder(static_cast<std::uint64_t>(tag.size));
}

template <class T>
void CEREAL_LOAD_FUNCTION_NAME(Decoder& decoder, cereal::SizeTag<T>& tag)
{
    std::uint64_t size = 0;
    decoder(size);
    decoder.count_items(size);
    tag.size = static_cast<std::remove_reference_t<decltype(tag.size)>>(size);
}

template <class T>
void encode(const void* value, std::string& bytes)
{
    Encoder encoder(bytes);
    encoder(*static_cast<const T*>(value));
}

/// Not by std::make_shared, which would keep a plug-in loaded for ever; see quorval_add_plugin().
template <class T>
std::shared_ptr<void> make()
{
    return std::make_unique<T>();
}

template <class T>
void decode(std::string_view bytes, void* value)
{
    Decoder decoder(bytes);
    T decoded{};
    decoder(decoded);
    decoder.finish();
    *static_cast<T*>(value) = std::move(decoded);
}

}  // namespace codec_detail

/// The codec of a C++ type that can be made without arguments, be assigned, and has one of cereal's
/// functions, such as `template <class Archive> void serialize(Archive& archive)`. Its bytes are
/// the same on each machine where the numbers in T have the same size.
///
/// A list whose items take no bytes, and values in one another more than 250 deep, are refused by
/// decode().
template <class T>
constexpr Codec make_codec()
{
    return {&codec_detail::encode<T>, &codec_detail::make<T>, &codec_detail::decode<T>};
}

/// Lets values of a data type be recorded, and sent to other machines, by a registry that takes
/// codecs; with any other one nothing happens. The standard data types, those that PortType names,
/// have their codecs without this.
/// @param type  the name of the data type
/// @throws std::runtime_error  there is a codec for this type already: "Try to register codec
///     <type> twice."
template <class T>
void register_codec(IRegistry& registry, const std::string& type)
{
    if (auto* const codecs = dynamic_cast<ICodecRegistry*>(&registry)) {
        codecs->add_codec(type, make_codec<T>());
    }
}

}  // namespace Quorval

CEREAL_SETUP_ARCHIVE_TRAITS(Quorval::codec_detail::Decoder, Quorval::codec_detail::Encoder)
