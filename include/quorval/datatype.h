// The type name of a port.
#pragma once

#include <quorval/export.h>

#include <cstddef>
#include <string>

namespace Quorval {

/// Names the kind of data that a port carries, and tells which ports fit together. A name is
/// concrete, a word such as `int32` or `rgb-image`, or generic, a path under "/prefix/" such as
/// `/prefix/image/rgb`. A value; safe to read from several threads.
class QUORVAL_EXPORT Datatype {
public:
    /// @param name  concrete: lower-case letters, digits, "_" and "-" only, empty allowed;
    ///              generic: "/prefix/", at least one character, and a later "/"
    /// @throws std::runtime_error  a generic name without content and a slash behind it:
    ///     "Malformed /prefix/ typename, expected content and a trailing /"; another character in
    ///     a concrete name: "Type name '<name>' not valid (should be [a-z0-9_-])."
    Datatype(const std::string& name);

    const std::string& get_name() const;

    bool operator==(const Datatype& other) const;
    bool operator!=(const Datatype& other) const;

    /// Whether the name begins with "/prefix/".
    bool is_generic() const;

    /// Whether a value of type `other` may be delivered to a port of this type: the names are
    /// equal, or both are generic and `other` begins with this name up to its last slash (the
    /// slash left out, so `/prefix/image/` also accepts `/prefix/imagex/`).
    bool is_assignable_from(const Datatype& other) const;

private:
    std::string name_;
    std::size_t split_;  // position of the last "/", or the length of a name that has none
};

}  // namespace Quorval
