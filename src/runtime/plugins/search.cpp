#include "plugins/search.h"

#include <dlfcn.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>

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

}  // namespace

std::vector<std::string> plugin_directories(const std::vector<std::string>& given)
{
    std::vector<std::string> directories;
    append(directories, given);
    append(directories, split_path(environment("QUORVAL_PLUGIN_PATH")));
    append(directories, {environment("QUORVAL_PLUGIN_DIR"), installed_plugin_directory()});
    return directories;
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
