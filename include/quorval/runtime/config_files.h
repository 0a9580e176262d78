// Configurations in files: store files, and TOML.
#pragma once

#include <quorval/config.h>
#include <quorval/export.h>

#include <string>

namespace Quorval {

/// What a store file holds.
struct StoreContent {
    BlockConfiguration config;  ///< all that can be read
    std::string damage;         ///< what is wrong with the file, one line; empty: it is whole
};

/// Reads a store file as far as that goes. More than PStore::load() does it tell whether bytes are
/// left behind the last whole record, and whether the seal of a state is right, see state.h.
/// @throws std::runtime_error  it cannot be read: "cannot read: <text of errno>", or "cannot read:
///     not a regular file"
QUORVAL_EXPORT StoreContent read_store_file(const std::string& file);

/// Replaces a store file, or makes it, through a POFStream on another name in the same folder. More
/// than PStore::store() does it see to it that all of the content is on the disk before the old
/// file goes. A link is followed, the owner of an old file stays, its mode becomes 0600. A
/// configuration with the seal of a state is sealed again.
/// @throws std::runtime_error  the name ends in "/": "the name of a file is missing"; what is there
///     is no file: "not a regular file"; only a part could be written: "there is no room for it"
/// @throws std::system_error   a system call failed
/// @throws what POFStream throws
QUORVAL_EXPORT void write_store_file(const std::string& file, const BlockConfiguration& config);

/// A configuration as TOML: a line `<key> = <value>` for each element, in the order of their keys.
/// read_toml_file() gives the same elements, to the last bit.
/// @throws std::invalid_argument  an element that TOML cannot hold: "'<key>' is an empty list", or
///     the texts of to_toml_value()
QUORVAL_EXPORT std::string to_toml(const BlockConfiguration& config);

/// The value of one element as TOML, on one line.
/// @throws std::invalid_argument  TOML cannot hold it: "'<key>' is not UTF-8", "'<key>' is a NaN of
///     its own kind"; or there is no such element, with the text of getType()
QUORVAL_EXPORT std::string to_toml_value(const BlockConfiguration& config, const std::string& key);

/// The same for people: never throws for what TOML cannot hold. Bytes that are no UTF-8 are \xHH,
/// the bits of an unusual NaN stand behind it.
QUORVAL_EXPORT std::string describe_value(const BlockConfiguration& config, const std::string& key);

/// Reads a file of TOML, with the rules of the configurations in graph files.
/// @throws GraphError  something is wrong with the file, with all errors found
QUORVAL_EXPORT BlockConfiguration read_toml_file(const std::string& file);

/// Reads `KEY=VALUE`; what is no value of TOML is taken as a string, a table gives several
/// elements.
/// @throws std::invalid_argument  it has another form: "'<text>' is not of the form KEY=VALUE"
/// @throws GraphError             the key or the value is none that a configuration holds
QUORVAL_EXPORT BlockConfiguration read_toml_assignment(const std::string& text);

}  // namespace Quorval
