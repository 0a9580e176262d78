// A description with each superblock in its places.
#pragma once

#include "description/description.h"
#include "description/problem.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Quorval::runtime {

/// An element of a block's configuration, as it was written somewhere further out.
struct SettingRef {
    const Setting* setting = nullptr;
    std::size_t offset = 0;  // of the block's own key in the key that was written

    std::string_view key() const { return std::string_view(setting->key).substr(offset); }
};

/// A plain block in its place.
struct PlainBlock {
    std::string path;
    const MemberDescription* member = nullptr;
    OnError on_error = OnError::Stop;
    std::vector<SettingRef> settings;  ///< by key, each once: the one that counts
    std::uint32_t composite = 0;       ///< that it is in
    std::string machine;               ///< empty: there is none
    bool is_elsewhere = false;         ///< it belongs to another machine than is asked for
    bool is_config_wrong = false;      ///< as a whole, here or further out, which is reported

    /// Whether the configuration lacks anything because it is wrong, which is reported.
    bool lacks_settings() const;
};

/// What a member has become.
struct MemberRef {
    enum class Kind { Plain, Composite, Nothing };

    Kind kind = Kind::Nothing;  ///< nothing: it is wrong, which is reported
    std::uint32_t index = 0;    ///< among the plain blocks, or the composites
};

/// The graph, or a superblock in its place.
struct Composite {
    std::string path;                           ///< empty for the graph
    const MemberDescription* member = nullptr;  ///< null for the graph
    const CompositeDescription* inside = nullptr;
    std::uint32_t parent = 0;        ///< of the graph: itself
    std::vector<MemberRef> members;  ///< as those inside
    std::string machine;        ///< of what is inside; empty: there is none, or it is the graph
    bool is_elsewhere = false;  ///< as that of a block
};

/// Refers to the description that it was made from.
struct Expansion {
    std::vector<Composite> composites;  ///< the graph first, each behind the one that it is in
    std::vector<PlainBlock> blocks;     ///< by composite; in one, by name
};

/// Puts superblocks in their places, and hands configurations down to the plain blocks. What is
/// wrong is reported and left out; a graph that is too large, and what contains itself, are not
/// expanded at all.
Expansion expand(const GraphDescription& description, Problems& problems);

/// The path of a member.
std::string path_below(const std::string& path, const std::string& name);

}  // namespace Quorval::runtime
