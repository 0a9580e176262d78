// Plug-ins, for tools that show what they offer.
#pragma once

#include <quorval/config.h>
#include <quorval/export.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Quorval {

/// What a plug-in was built with and for: the note that quorval_add_plugin() puts into it.
struct PluginNote {
    int interface = 0;             ///< the number in the SONAME of the library
    std::string standard_library;  ///< of C++, such as "libstdc++"
    std::string compiler;          ///< and its version
    std::string version;           ///< of the library
};

/// Reads the note in a file without loading it, whatever the file is.
/// @return nothing where there is none, or one that cannot be read
QUORVAL_EXPORT std::optional<PluginNote> read_plugin_note(const std::string& file);

/// Where a plug-in lies.
struct PluginFile {
    std::string name;     ///< without directory and ending
    std::string file;     ///< with its directory; empty: there is none
    std::string problem;  ///< why it is not even tried; empty: it may be loaded
};

/// Looks for a plug-in.
/// @param plugin_path  directories that are searched before those of QUORVAL_PLUGIN_PATH, that of
///                     QUORVAL_PLUGIN_DIR and that of the installation
/// @return where there is none, the problem is "there is no plug-in '<name>' in <directories>"
QUORVAL_EXPORT PluginFile find_plugin(const std::string& name,
                                      const std::vector<std::string>& plugin_path);

/// All plug-ins in these directories, by name in the order of bytes; of several with one name that
/// which find_plugin() finds. Names are those that a graph file can have.
QUORVAL_EXPORT std::vector<PluginFile> find_plugins(const std::vector<std::string>& plugin_path);

/// What a block has, as it is made.
struct BlockPorts {
    std::map<std::string, std::string> inports;  ///< data types by name; likewise below
    std::map<std::string, std::string> outports;
    std::map<std::string, std::string> fdports;
    std::vector<std::pair<std::string, std::string>> dbus;  ///< path and interface of its objects
};

/// One plug-in, loaded to be looked at; nothing is started. The code of the plug-in runs, and may
/// crash or hang. Stays where it is. One thread.
class QUORVAL_EXPORT PluginView {
public:
    /// Loads a plug-in.
    /// @throws std::runtime_error  it cannot be loaded, with the text of the message in a graph:
    ///     "plug-in '<plugin>' cannot be loaded: <text>"; or the problem of `file`
    explicit PluginView(const PluginFile& file);
    PluginView(const PluginView&) = delete;
    PluginView& operator=(const PluginView&) = delete;
    /// Closes the plug-in.
    ~PluginView();

    /// The block types, in the order of bytes.
    std::vector<std::string> types() const;

    /// What Settings::describe() tells about one of the types; null where the type declares no
    /// settings. Lives as long as this object.
    const BlockConfiguration* description(const std::string& type) const;

    /// Makes a block of one of the types and destroys it.
    /// @throws std::runtime_error  it cannot be made, with the texts of the messages in a graph:
    ///     "'<key>' is missing", "block '<type>' cannot be created: <text>"; several are parted by
    ///     "; "
    BlockPorts make_block(const std::string& type, const BlockConfiguration& config) const;

private:
    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

/// The configuration that assignments without a path make.
/// @param assignments  `KEY=VALUE`; a value is one of TOML, and what is none is taken as a string
/// @throws std::invalid_argument  one that has not this form: "'<text>' is not of the form
///     KEY=VALUE"; a value or a key that no configuration holds, with the text of the message in a
///     graph
QUORVAL_EXPORT BlockConfiguration read_assignments(const std::vector<std::string>& assignments);

}  // namespace Quorval
