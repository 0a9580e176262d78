// Whether a plug-in fits what loads it.
#pragma once

#include <quorval/runtime/plugin.h>

#include <optional>
#include <string>
#include <string_view>

namespace Quorval::runtime {

/// What is known of the file of a plug-in before it is loaded.
struct PluginFacts {
    std::optional<PluginNote> note;
    std::string obstacle;  ///< why it cannot be loaded here; empty: it may be tried
};

/// Reads a file without loading it.
PluginFacts look_at_plugin(const std::string& file);

/// The content of a note.
/// @return nothing where it is not what quorval_add_plugin() writes
std::optional<PluginNote> parse_note(std::string_view text);

}  // namespace Quorval::runtime
