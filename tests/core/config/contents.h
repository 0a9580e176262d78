// Looks at a configuration without reading it: no mark changes.
#pragma once

#include <quorval/config.h>

#include <exception>
#include <sstream>
#include <string>
#include <vector>

namespace quorval_test {

using Lines = std::vector<std::string>;

/// The lines of the text form behind the first, `<key> (<type>) = <value>` each.
inline Lines contents(const Quorval::BlockConfiguration& config)
{
    std::stringstream text;
    text << config;
    Lines lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    lines.erase(lines.begin());
    return lines;
}

/// Reads the element on which a cursor stands, whatever its type.
inline void consume(Quorval::BlockConfiguration::Iterator& cursor)
{
    try {
        cursor.getInt();
    } catch (const std::exception&) {
        // It has another type, and is consumed all the same.
    }
}

/// The keys of all elements.
inline Lines keys(const Quorval::BlockConfiguration& config)
{
    Lines result;
    for (auto cursor = config.iterate(""); !cursor->is_end(); cursor->advance()) {
        result.push_back(cursor->key());
    }
    return result;
}

/// The keys of the elements that are not consumed.
inline Lines unread_keys(const Quorval::BlockConfiguration& config)
{
    Lines result;
    for (const std::string& key : keys(config)) {
        // In a copy all others are read, so that the whole tells about the one.
        const Quorval::BlockConfiguration copy(config);
        for (auto cursor = copy.iterate(""); !cursor->is_end(); cursor->advance()) {
            if (cursor->key() != key) {
                consume(*cursor);
            }
        }
        if (!copy.is_consumed()) {
            result.push_back(key);
        }
    }
    return result;
}

}  // namespace quorval_test
