#include <quorval/config.h>
#include "config/impl.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Quorval {

struct BlockConfiguration::KeyValue::Impl {
    using Members = std::vector<KeyValue>;

    std::string key;
    std::variant<Value, Members, std::vector<Members>> content;

    template <class Content>
    Impl(std::string&& its_key, Content&& its_content)
        : key(std::move(its_key)), content(std::forward<Content>(its_content))
    {
    }

    template <class Content>
    static std::shared_ptr<const Impl> make(StringWrapper&& key, Content&& content)
    {
        return std::make_shared<const Impl>(std::move(key.value_), std::forward<Content>(content));
    }

    /// Stores it and everything below it.
    void set(BlockConfiguration& config, const std::string& prefix) const;

    static void set_all(BlockConfiguration& config, const std::string& prefix,
                        const Members& members)
    {
        for (const KeyValue& member : members) {
            member.impl_->set(config, prefix);
        }
    }
};

namespace {

/// A null pointer makes the constructor of the string throw.
Value make_strings(const char* const* first, const char* const* last)
{
    return make_value(std::vector<std::string>(first, last));
}

template <class Item>
Value make_leaf(std::vector<Item> items)
{
    return make_value(std::move(items));
}

Value make_leaf(const std::vector<const char*>& texts)
{
    return make_strings(texts.data(), texts.data() + texts.size());
}

}  // namespace

BlockConfiguration::KeyValue::StringWrapper::StringWrapper(const char* value) : value_(value) {}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, bool value)
    : impl_(Impl::make(std::move(key), make_value(value)))
{
}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, int value)
    : impl_(Impl::make(std::move(key), make_value(value)))
{
}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, double value)
    : impl_(Impl::make(std::move(key), make_value(value)))
{
}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, StringWrapper value)
    : impl_(Impl::make(std::move(key), make_value(std::move(value.value_))))
{
}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, const char* value)
    : impl_(Impl::make(std::move(key), make_value(std::string(value))))
{
}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, std::initializer_list<int> values)
    : impl_(Impl::make(std::move(key), make_value(std::vector<int>(values))))
{
}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, std::initializer_list<double> values)
    : impl_(Impl::make(std::move(key), make_value(std::vector<double>(values))))
{
}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key,
                                       std::initializer_list<StringWrapper> values)
{
    std::vector<std::string> strings;
    strings.reserve(values.size());
    for (const StringWrapper& value : values) {
        strings.push_back(value.value_);
    }
    impl_ = Impl::make(std::move(key), make_value(std::move(strings)));
}

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, std::initializer_list<const char*> values)
    : impl_(Impl::make(std::move(key), make_strings(values.begin(), values.end())))
{
}

template <class Bool, std::enable_if_t<std::is_same<Bool, bool>::value, int>>
BlockConfiguration::KeyValue::KeyValue(StringWrapper key, std::initializer_list<Bool> values)
    : impl_(Impl::make(std::move(key), make_value(std::vector<bool>(values))))
{
}

template BlockConfiguration::KeyValue::KeyValue(StringWrapper, std::initializer_list<bool>);

template <class T,
          std::enable_if_t<
              std::disjunction<std::is_same<T, bool>, std::is_same<T, int>, std::is_same<T, double>,
                               std::is_same<T, std::string>, std::is_same<T, const char*>>::value,
              int>>
BlockConfiguration::KeyValue::KeyValue(StringWrapper key, std::vector<T> values)
    : impl_(Impl::make(std::move(key), make_leaf(std::move(values))))
{
}

template BlockConfiguration::KeyValue::KeyValue(StringWrapper, std::vector<bool>);
template BlockConfiguration::KeyValue::KeyValue(StringWrapper, std::vector<int>);
template BlockConfiguration::KeyValue::KeyValue(StringWrapper, std::vector<double>);
template BlockConfiguration::KeyValue::KeyValue(StringWrapper, std::vector<std::string>);
template BlockConfiguration::KeyValue::KeyValue(StringWrapper, std::vector<const char*>);

BlockConfiguration::KeyValue::KeyValue(StringWrapper key, std::initializer_list<KeyValue> members)
    : impl_(Impl::make(std::move(key), Impl::Members(members)))
{
}

BlockConfiguration::KeyValue::KeyValue(
    StringWrapper key, std::initializer_list<std::initializer_list<KeyValue>> subtrees)
    : impl_(
          Impl::make(std::move(key), std::vector<Impl::Members>(subtrees.begin(), subtrees.end())))
{
}

BlockConfiguration::KeyValue::KeyValue(const KeyValue& other) = default;

BlockConfiguration::KeyValue& BlockConfiguration::KeyValue::operator=(const KeyValue& other) =
    default;

BlockConfiguration::KeyValue::~KeyValue() = default;

void BlockConfiguration::KeyValue::Impl::set(BlockConfiguration& config,
                                             const std::string& prefix) const
{
    const std::string path = prefix + key;
    if (const auto* leaf = std::get_if<Value>(&content)) {
        BlockConfiguration::Impl::of(config).set(path, copy_value(*leaf));
    } else if (const auto* members = std::get_if<Impl::Members>(&content)) {
        Impl::set_all(config, path + ".", *members);
    } else if (const auto* subtrees = std::get_if<std::vector<Impl::Members>>(&content)) {
        for (std::size_t index = 0; index < subtrees->size(); ++index) {
            Impl::set_all(config, path + "." + std::to_string(index) + ".", (*subtrees)[index]);
        }
    } else {
        throw std::runtime_error("Internal error");
    }
}

void BlockConfiguration::KeyValue::set_recursively(
    BlockConfiguration& config, const std::string& prefix,
    KeyValue value)  // NOLINT(performance-unnecessary-value-param): the signature is the interface
{
    value.impl_->set(config, prefix);
}

BlockConfiguration::BlockConfiguration(std::initializer_list<KeyValue> values)
    : BlockConfiguration()
{
    const std::string no_prefix;
    for (const KeyValue& value : values) {
        value.impl_->set(*this, no_prefix);
    }
}

}  // namespace Quorval
