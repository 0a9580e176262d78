#include "plugins/note.h"

#include "plugins/elf_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <map>

namespace Quorval::runtime {

namespace {

// As cmake/QuorvalNote.cpp has them.
constexpr int kInterface = 0;
#if defined(_LIBCPP_VERSION)
constexpr const char* kStandardLibrary = "libc++";
#elif defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI == 0
constexpr const char* kStandardLibrary = "libstdc++ with the ABI of before C++11";
#else
constexpr const char* kStandardLibrary = "libstdc++";
#endif

/// Reads a JSON object whose values are strings and numbers.
class FlatObject {
public:
    explicit FlatObject(std::string_view text) : rest_(text) {}

    /// @return false where the text is something else
    bool read()
    {
        if (!take('{')) {
            return false;
        }
        do {
            std::string key;
            if (!read_string(key) || !take(':') || !read_value(members_[key])) {
                return false;
            }
        } while (take(','));
        return take('}') && (skip_blanks(), rest_.empty());
    }

    const std::string& get(const std::string& key) { return members_[key]; }

private:
    void skip_blanks()
    {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
    }

    bool take(char wanted)
    {
        skip_blanks();
        const bool is_there = !rest_.empty() && rest_.front() == wanted;
        rest_.remove_prefix(is_there ? 1 : 0);
        return is_there;
    }

    bool read_value(std::string& value)
    {
        skip_blanks();
        return !rest_.empty() && rest_.front() == '"' ? read_string(value) : read_number(value);
    }

    /// Of escapes those for quotes and backslashes alone.
    bool read_string(std::string& text)
    {
        if (!take('"')) {
            return false;
        }
        while (!rest_.empty() && rest_.front() != '"') {
            const bool is_escape = rest_.front() == '\\';
            if (is_escape && (rest_.size() < 2 || (rest_[1] != '"' && rest_[1] != '\\'))) {
                return false;
            }
            text += rest_[is_escape ? 1 : 0];
            rest_.remove_prefix(is_escape ? 2 : 1);
        }
        return take('"');
    }

    bool read_number(std::string& text)
    {
        const std::size_t length = std::min(rest_.find_first_not_of("-0123456789"), rest_.size());
        text = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return length > 0;
    }

    std::string_view rest_;
    std::map<std::string, std::string> members_;
};

std::string describe(int interface, const std::string& standard_library)
{
    return "interface " + std::to_string(interface) + " with " + standard_library;
}

bool is_other_file(const std::string& file)
{
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

std::string find_obstacle(const std::string& file, unsigned machine,
                          const std::optional<PluginNote>& note)
{
    if (is_other_file(file)) {
        return "not a regular file";  // such as a pipe, which the loader would wait for
    }
    if (machine != 0 && machine != own_machine()) {
        return "it was built for " + machine_name(machine) + ", and this is " +
               machine_name(own_machine());
    }
    if (note && (note->interface != kInterface || note->standard_library != kStandardLibrary)) {
        return "it was built for " + describe(note->interface, note->standard_library) +
               ", and this is " + describe(kInterface, kStandardLibrary);
    }
    return {};
}

}  // namespace

PluginFacts look_at_plugin(const std::string& file)
{
    const ElfFile elf = read_elf_file(file);
    PluginFacts facts;
    facts.note = parse_note(elf.note);
    facts.obstacle = find_obstacle(file, elf.machine, facts.note);
    return facts;
}

std::optional<PluginNote> parse_note(std::string_view text)
{
    FlatObject object(text);
    if (!object.read()) {
        return std::nullopt;
    }
    PluginNote note;
    const std::string number = object.get("interface");
    const auto read = std::from_chars(number.data(), number.data() + number.size(), note.interface);
    if (read.ec != std::errc() || read.ptr != number.data() + number.size()) {
        return std::nullopt;
    }
    note.standard_library = object.get("standard_library");
    note.compiler = object.get("compiler");
    note.version = object.get("version");
    return note;
}

}  // namespace Quorval::runtime

namespace Quorval {

std::optional<PluginNote> read_plugin_note(const std::string& file)
{
    return runtime::parse_note(runtime::read_elf_file(file).note);
}

}  // namespace Quorval
