#include "plugins/codecs.h"

#include <quorval/settings.h>
#include "plugins/plugin.h"

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Quorval::runtime {

namespace {

template <class... T>
std::map<std::string, Codec> make_codecs()
{
    return {{PortType<T>::name(), make_codec<T>()}...};
}

void run_contained(const std::function<void()>& action)
{
    const std::string failure = text_of_failure(action);
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
}

}  // namespace

const Codec* find_standard_codec(const std::string& type)
{
    static const std::map<std::string, Codec> kCodecs =
        make_codecs<bool, std::int32_t, std::int64_t, float, double, std::string,
                    std::vector<std::int32_t>, std::vector<std::int64_t>, std::vector<float>,
                    std::vector<double>>();
    const auto found = kCodecs.find(type);
    return found != kCodecs.end() ? &found->second : nullptr;
}

void encode(const Codec& codec, const void* value, std::string& bytes)
{
    bytes.clear();
    run_contained([&] { codec.encode(value, bytes); });
}

std::shared_ptr<void> make_value(const Codec& codec)
{
    std::shared_ptr<void> value;
    run_contained([&] { value = codec.make(); });
    if (value == nullptr) {
        throw std::runtime_error("the codec made no value");
    }
    return value;
}

void decode(const Codec& codec, std::string_view bytes, void* value)
{
    run_contained([&] { codec.decode(bytes, value); });
}

DecodedOutPort::DecodedOutPort(const std::string& name, Datatype type, const Codec& codec)
    : OutPortInternal(name, std::move(type)), codec_(codec), value_(make_value(codec))
{
}

void DecodedOutPort::write(std::string_view bytes)
{
    decode(codec_, bytes, value_.get());
    data_ = value_.get();
    triggered_ = true;
}

}  // namespace Quorval::runtime
