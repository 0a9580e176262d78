#include "quorval/datatype.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Quorval {

namespace {

constexpr std::string_view kGenericPrefix = "/prefix/";

[[noreturn]] void throw_malformed_generic_name()
{
    throw std::runtime_error("Malformed " + std::string(kGenericPrefix) +
                             " typename, expected content and a trailing /");
}

[[noreturn]] void throw_invalid_name(const std::string& name)
{
    throw std::runtime_error("Type name '" + name + "' not valid (should be [a-z0-9_-]).");
}

bool is_name_character(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9') ||
           character == '_' || character == '-';
}

}  // namespace

Datatype::Datatype(const std::string& name)
    : name_(name), split_(std::min(name.rfind('/'), name.size()))
{
    if (is_generic()) {
        if (split_ <= kGenericPrefix.size()) {
            throw_malformed_generic_name();
        }
    } else if (!std::all_of(name_.begin(), name_.end(), is_name_character)) {
        throw_invalid_name(name_);
    }
}

const std::string& Datatype::get_name() const
{
    return name_;
}

bool Datatype::operator==(const Datatype& other) const
{
    return name_ == other.name_;
}

bool Datatype::operator!=(const Datatype& other) const
{
    return !(*this == other);
}

bool Datatype::is_generic() const
{
    return name_.compare(0, kGenericPrefix.size(), kGenericPrefix) == 0;
}

bool Datatype::is_assignable_from(const Datatype& other) const
{
    if (is_generic() && other.is_generic()) {
        // No slash is asked for behind the common part: /prefix/image/ takes /prefix/imagex/ too.
        // Applications may depend on it, so it stays.
        // Held by DatatypeAssignable.AcceptsALongerComponentWithTheSameBeginning.
        return other.name_.compare(0, split_, name_, 0, split_) == 0;
    }
    return *this == other;
}

}  // namespace Quorval
