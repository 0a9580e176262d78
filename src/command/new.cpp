// quorval new: a plug-in to begin with.
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "template.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace {

namespace fs = std::filesystem;

HelpText help_of_new()
{
    return {"quorval new NAME",
            "Writes a plug-in to begin with into the new folder NAME: a block with settings, its "
            "tests, a\n"
            "graph, and what builds them.",
            "Exit status:\n"
            "  0  done\n"
            "  1  the folder is there already, or could not be written\n"
            "  2  wrong use of the command line\n"
            "\n"
            "Example:\n"
            "  quorval new filters"};
}

bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

void check_name(const std::string& name)
{
    const auto is_valid = [](char c) {
        return is_letter(c) || (c >= '0' && c <= '9') || c == '_' || c == '-';
    };
    if (name.empty() || !is_letter(name.front()) ||
        !std::all_of(name.begin(), name.end(), is_valid)) {
        throw UsageError("'" + name +
                         "' is not a valid name (a letter, then letters, digits, '_' and '-')");
    }
    if (name == "basic") {
        throw UsageError("'basic' is the name of a plug-in that comes with Quorval");
    }
}

std::string fill_in(std::string text, const std::string& name)
{
    constexpr std::string_view kPlace = "@NAME@";
    std::size_t at = text.find(kPlace);
    while (at != std::string::npos) {
        text.replace(at, kPlace.size(), name);
        at = text.find(kPlace, at + name.size());
    }
    return text;
}

void write_file(const fs::path& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    if (!out) {
        throw std::system_error(errno, std::generic_category(),
                                "'" + path.string() + "' cannot be written");
    }
}

void write_plugin(const std::string& name)
{
    std::error_code error;
    if (!fs::create_directory(name, error)) {
        const std::string reason = error ? "cannot be made: " + error.message() : "exists already";
        throw std::runtime_error("'" + name + "' " + reason);
    }
    try {
        for (const TemplateFile& file : template_files()) {
            write_file(fs::path(name) / fill_in(file.path, name), fill_in(file.content, name));
        }
    } catch (const std::exception&) {
        fs::remove_all(name, error);
        throw;
    }
}

}  // namespace

int new_command(const Arguments& arguments)
{
    CommandLine line(help_of_new());
    const auto names = line.read(arguments);
    if (!names.has_value()) {
        return kDone;
    }
    if (names->empty()) {
        throw UsageError("a name is missing");
    }
    refuse_more_than(1, *names);
    check_name(names->front());
    write_plugin(names->front());
    write_output(
        fill_in("The plug-in is in the folder @NAME@; its README.md says how it is built.\n",
                names->front()));
    return kDone;
}
