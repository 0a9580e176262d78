#include "plugins/search.h"

#include "description/file.h"
#include "description/names.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <system_error>

namespace Quorval::runtime {

namespace {

void append(std::vector<std::string>& directories, const std::vector<std::string>& more)
{
    for (const std::string& directory : more) {
        if (!directory.empty()) {
            directories.push_back(directory);
        }
    }
}

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string join(const std::string& directory, const std::string& file)
{
    return directory + (directory.back() == '/' ? "" : "/") + file;
}

bool is_refused(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && is_refused_for_root(status);
}

bool is_there(const std::string& file)
{
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0;
}

/// The names of the plug-ins that lie in a directory.
std::set<std::string> names_in(const std::string& directory)
{
    std::set<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::filesystem::path path = entry->path();
        if (path.extension() == ".so" && is_name(path.stem().string()) && is_there(path)) {
            names.insert(path.stem().string());
        }
    }
    return names;
}

}  // namespace

std::vector<std::string> plugin_directories(const std::vector<std::string>& given)
{
    std::vector<std::string> directories;
    append(directories, given);
    append(directories, split_path(environment("QUORVAL_PLUGIN_PATH")));
    append(directories, {environment("QUORVAL_PLUGIN_DIR"), installed_plugin_directory()});
    return directories;
}

PluginFile find_plugin(const std::string& name, const std::vector<std::string>& directories)
{
    std::string list;
    for (const std::string& directory : directories) {
        const std::string file = join(directory, name + ".so");
        if (is_refused(directory)) {
            return {name, is_there(file) ? file : "", text_of_refusal(directory)};
        }
        if (is_there(file)) {
            return {name, file, is_refused(file) ? text_of_refusal(file) : ""};
        }
        list += (list.empty() ? "" : ":") + directory;
    }
    return {name, "", "there is no plug-in '" + name + "' in " + list};
}

std::vector<PluginFile> list_plugins(const std::vector<std::string>& directories)
{
    std::set<std::string> names;
    for (const std::string& directory : directories) {
        names.merge(names_in(directory));
    }
    std::vector<PluginFile> plugins;
    for (const std::string& name : names) {
        plugins.push_back(find_plugin(name, directories));
    }
    return plugins;
}

std::vector<std::string> split_path(const std::string& list)
{
    std::vector<std::string> directories;
    std::size_t begin = 0;
    while (begin <= list.size()) {
        const std::size_t end = std::min(list.find(':', begin), list.size());
        append(directories, {list.substr(begin, end - begin)});
        begin = end + 1;
    }
    return directories;
}

// Seen from the file that holds this code, so that an installation can be moved.
std::string installed_plugin_directory()
{
    Dl_info self{};
    if (::dladdr(reinterpret_cast<const void*>(&installed_plugin_directory), &self) == 0) {
        return {};
    }
    std::error_code error;
    const std::filesystem::path library = std::filesystem::canonical(self.dli_fname, error);
    return (library.parent_path() / QUORVAL_PLUGIN_DIRECTORY).lexically_normal().string();
}

}  // namespace Quorval::runtime
