#include <quorval/config.h>
#include "config/impl.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace Quorval {

namespace {

[[noreturn]] void throw_internal_error()
{
    throw std::runtime_error("Internal error");
}

std::string with_full_stop(std::string prefix)
{
    if (prefix.empty() || prefix.back() != '.') {
        prefix += '.';
    }
    return prefix;
}

}  // namespace

BlockConfiguration BlockConfiguration::getSubtree(const std::string& prefix) const
{
    const std::string path = with_full_stop(prefix);
    BlockConfiguration result;
    Elements& found = Impl::of(result).elements;
    for (const Entry& entry : Impl::of(*this).elements) {
        // Not only at the start of the key. Applications rely on what this finds, so it stays.
        // Held by ConfigSubtree.MatchesThePrefixAnywhereInTheKey.
        if (entry.key.find(path) != std::string::npos) {
            found.put(entry.key.substr(path.size()), copy_value(entry.value));
        }
    }
    return result;
}

BlockConfiguration::SubtreeIterator BlockConfiguration::iterate_subtree(std::string prefix) const
{
    return SubtreeIterator(*this, std::move(prefix));
}

struct BlockConfiguration::SubtreeIterator::InternalIterator::Impl {
    const BlockConfiguration& config;
    std::string prefix;  // ends with a full stop
    Elements::Position position;
    std::size_t path_length = 0;  // the start of the current key that is the path of the child

    /// Moves to the first child at the position or behind it. False when the walk has met a key
    /// that does not begin with the prefix.
    bool find_child();

    /// Moves behind all elements of the current child.
    void skip_child();
};

bool BlockConfiguration::SubtreeIterator::InternalIterator::Impl::find_child()
{
    for (; !position.is_end(); ++position) {
        const std::string& key = position->key;
        if (!key.starts_with(prefix)) {
            return false;
        }
        // A leaf of the prefix has no further full stop, an empty component is no child.
        path_length = key.find('.', prefix.size());
        if (path_length != std::string::npos && path_length != prefix.size()) {
            return true;
        }
    }
    return true;
}

void BlockConfiguration::SubtreeIterator::InternalIterator::Impl::skip_child()
{
    // All keys from here on that begin alike lie together.
    const std::string_view path_with_full_stop(position->key.data(), path_length + 1);
    position.pass([&](const Entry& entry) { return entry.key.starts_with(path_with_full_stop); });
}

using InternalIterator = BlockConfiguration::SubtreeIterator::InternalIterator;

InternalIterator::InternalIterator() = default;

InternalIterator::InternalIterator(const BlockConfiguration& config, std::string prefix)
{
    const Elements& elements = BlockConfiguration::Impl::of(config).elements;
    prefix = with_full_stop(std::move(prefix));
    const auto position = elements.lower_bound(prefix);
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): owned by impl_
    impl_.reset(new Impl{config, std::move(prefix), position});
    if (!impl_->find_child()) {
        impl_.reset();
    }
}

InternalIterator::InternalIterator(InternalIterator&& other) noexcept = default;

InternalIterator& InternalIterator::operator=(InternalIterator&& other) noexcept = default;

InternalIterator::~InternalIterator() = default;

void InternalIterator::advance()
{
    if (is_end()) {
        return;
    }
    impl_->skip_child();
    if (!impl_->find_child()) {
        impl_.reset();
    }
}

bool InternalIterator::is_end() const
{
    return !impl_ || impl_->position.is_end();
}

const BlockConfiguration& InternalIterator::config() const
{
    if (!impl_) {
        throw_internal_error();
    }
    return impl_->config;
}

std::string InternalIterator::current_path() const
{
    if (is_end()) {
        throw_internal_error();
    }
    return impl_->position->key.substr(0, impl_->path_length);
}

BlockConfiguration::SubtreeIterator::Iterator::Iterator(InternalIterator cursor)
    : cursor_(std::move(cursor))
{
}

BlockConfiguration::SubtreeIterator::Iterator::Iterator(Iterator&& other) noexcept = default;

BlockConfiguration::SubtreeIterator::Iterator&
BlockConfiguration::SubtreeIterator::Iterator::operator=(Iterator&& other) noexcept = default;

BlockConfiguration::SubtreeIterator::Iterator::~Iterator() = default;

BlockConfiguration::SubtreeIterator::Accessor
BlockConfiguration::SubtreeIterator::Iterator::operator*() const
{
    std::string path = cursor_.current_path();  // throws at the end, where there is no record
    return Accessor(cursor_.config(), std::move(path), cursor_.impl_->prefix.size());
}

BlockConfiguration::SubtreeIterator::Iterator&
BlockConfiguration::SubtreeIterator::Iterator::operator++()
{
    cursor_.advance();
    return *this;
}

bool BlockConfiguration::SubtreeIterator::Iterator::operator==(const Iterator& other) const
{
    if (cursor_.is_end() || other.cursor_.is_end()) {
        return cursor_.is_end() == other.cursor_.is_end();
    }
    return cursor_.impl_->position == other.cursor_.impl_->position;
}

bool BlockConfiguration::SubtreeIterator::Iterator::operator!=(const Iterator& other) const
{
    return !(*this == other);
}

BlockConfiguration::SubtreeIterator::SubtreeIterator(const BlockConfiguration& config,
                                                     std::string prefix)
    : config_(&config), prefix_(std::move(prefix))
{
}

BlockConfiguration::SubtreeIterator::Iterator BlockConfiguration::SubtreeIterator::begin() const
{
    return Iterator(InternalIterator(*config_, prefix_));
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): the other half of begin()
BlockConfiguration::SubtreeIterator::Iterator BlockConfiguration::SubtreeIterator::end() const
{
    return Iterator(InternalIterator());
}

using Accessor = BlockConfiguration::SubtreeIterator::Accessor;

Accessor::Accessor(const BlockConfiguration& config, std::string path, unsigned long prefix_length)
    : config_(&config), path_(std::move(path)), prefix_length_(prefix_length)
{
}

std::string Accessor::full_key() const
{
    return path_;
}

std::string Accessor::prefix() const
{
    return path_.substr(0, prefix_length_);
}

std::string Accessor::key() const
{
    return path_.substr(std::min<std::size_t>(prefix_length_, path_.size()));
}

int Accessor::index() const
{
    const std::string component = key();
    int value = 0;
    const auto result =
        std::from_chars(component.data(), component.data() + component.size(), value);
    return result.ec == std::errc() ? value : -1;
}

std::string Accessor::path(const std::string& key) const
{
    std::string full;
    full.reserve(path_.size() + 1 + key.size());
    full += path_;
    full += '.';
    full += key;
    return full;
}

int Accessor::getInt(const std::string& key) const
{
    return config_->getInt(path(key));
}

bool Accessor::getBool(const std::string& key) const
{
    return config_->getBool(path(key));
}

double Accessor::getDouble(const std::string& key) const
{
    return config_->getDouble(path(key));
}

float Accessor::getFloat(const std::string& key) const
{
    return config_->getFloat(path(key));
}

std::string Accessor::getString(const std::string& key) const
{
    return config_->getString(path(key));
}

std::vector<int> Accessor::getIntVector(const std::string& key) const
{
    return config_->getIntVector(path(key));
}

std::vector<double> Accessor::getDoubleVector(const std::string& key) const
{
    return config_->getDoubleVector(path(key));
}

std::vector<float> Accessor::getFloatVector(const std::string& key) const
{
    return config_->getFloatVector(path(key));
}

std::vector<std::string> Accessor::getStringVector(const std::string& key) const
{
    return config_->getStringVector(path(key));
}

std::vector<bool> Accessor::getBoolVector(const std::string& key) const
{
    return config_->getBoolVector(path(key));
}

int Accessor::getInt(const std::string& key, int default_value) const
{
    return config_->getInt(path(key), default_value);
}

bool Accessor::getBool(const std::string& key, bool default_value) const
{
    return config_->getBool(path(key), default_value);
}

double Accessor::getDouble(const std::string& key, double default_value) const
{
    return config_->getDouble(path(key), default_value);
}

float Accessor::getFloat(const std::string& key, float default_value) const
{
    return config_->getFloat(path(key), default_value);
}

std::string Accessor::getString(const std::string& key, const std::string& default_value) const
{
    return config_->getString(path(key), default_value);
}

std::vector<int> Accessor::getIntVector(const std::string& key,
                                        const std::vector<int>& default_value) const
{
    return config_->getIntVector(path(key), default_value);
}

std::vector<double> Accessor::getDoubleVector(const std::string& key,
                                              const std::vector<double>& default_value) const
{
    return config_->getDoubleVector(path(key), default_value);
}

std::vector<float> Accessor::getFloatVector(const std::string& key,
                                            const std::vector<float>& default_value) const
{
    return config_->getFloatVector(path(key), default_value);
}

std::vector<std::string> Accessor::getStringVector(
    const std::string& key, const std::vector<std::string>& default_value) const
{
    return config_->getStringVector(path(key), default_value);
}

std::vector<bool> Accessor::getBoolVector(const std::string& key,
                                          const std::vector<bool>& default_value) const
{
    return config_->getBoolVector(path(key), default_value);
}

BlockConfiguration::Type Accessor::getType(const std::string& key) const
{
    return config_->getType(path(key));
}

BlockConfiguration Accessor::getSubtree(const std::string& key) const
{
    return config_->getSubtree(path(key));
}

BlockConfiguration::SubtreeIterator Accessor::iterate_subtree(const std::string& key) const
{
    return config_->iterate_subtree(path(key));
}

}  // namespace Quorval
