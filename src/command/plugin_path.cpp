#include "plugin_path.h"

#include <algorithm>
#include <cstddef>

namespace {

/// The parts of a list whose parts are parted by ":", without the empty ones.
void split_path(const std::string& list, std::vector<std::string>& directories)
{
    std::size_t begin = 0;
    while (begin <= list.size()) {
        const std::size_t end = std::min(list.find(':', begin), list.size());
        if (end > begin) {
            directories.push_back(list.substr(begin, end - begin));
        }
        begin = end + 1;
    }
}

}  // namespace

PluginPathOption::PluginPathOption(CommandLine& line)
{
    line.add_list("--plugin-path", lists_, "DIRS",
                  "look for plug-ins in these directories first, parted by ':'");
}

std::vector<std::string> PluginPathOption::directories() const
{
    std::vector<std::string> directories;
    for (const std::string& list : lists_) {
        split_path(list, directories);
    }
    return directories;
}
