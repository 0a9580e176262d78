// The record of a configuration.
#pragma once

#include <quorval/config.h>
#include "config/elements.h"
#include "config/value.h"

#include <string>

namespace Quorval {

struct BlockConfiguration::Impl {
    Elements elements;

    /// The record of a configuration; a moved-from one has none.
    static const Impl& of(const BlockConfiguration& config);
    static Impl& of(BlockConfiguration& config);

    /// The element of exactly that key, null when there is none.
    static const Entry* get_element(const BlockConfiguration& config, const std::string& key)
    {
        return config.impl_ ? config.impl_->elements.find(key) : nullptr;
    }

    /// Stores a value under `key`, unread, over whatever was there.
    /// @throws std::runtime_error  the key is not valid
    void set(const std::string& key, Value&& value);
};

}  // namespace Quorval
