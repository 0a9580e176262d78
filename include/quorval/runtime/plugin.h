// What a plug-in says about itself.
#pragma once

#include <quorval/export.h>

#include <optional>
#include <string>

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

}  // namespace Quorval
