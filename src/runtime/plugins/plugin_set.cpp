#include "plugins/plugin_set.h"

#include "description/file.h"
#include "messages/context.h"
#include "messages/signal_mask.h"
#include "plugins/codecs.h"

#include <sys/stat.h>

#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

namespace {

std::string join(const std::string& directory, const std::string& file)
{
    return directory + (directory.back() == '/' ? "" : "/") + file;
}

bool is_refused(const std::string& directory)
{
    struct stat status {};
    return ::stat(directory.c_str(), &status) == 0 && is_refused_for_root(status);
}

bool is_there(const std::string& file)
{
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0;
}

}  // namespace

PluginSet::PluginSet(std::vector<std::string> directories, const InitTools& tools, bool are_kept)
    : directories_(std::move(directories)), tools_(tools), are_kept_(are_kept)
{
}

const PluginSet::Found& PluginSet::get(const std::string& name)
{
    auto found = found_.find(name);
    if (found == found_.end()) {
        found = found_.emplace(name, look_for(name)).first;
    }
    return found->second;
}

const Codec* PluginSet::find_codec(const std::string& type) const
{
    const auto found = codecs_.find(type);
    return found != codecs_.end() ? &found->second : find_standard_codec(type);
}

PluginSet::Found PluginSet::look_for(const std::string& name)
{
    std::string list;
    for (const std::string& directory : directories_) {
        if (is_refused(directory)) {
            return {nullptr, text_of_refusal(directory)};
        }
        const std::string file = join(directory, name + ".so");
        if (is_there(file)) {
            return load(name, file);
        }
        list += (list.empty() ? "" : ":") + directory;
    }
    return {nullptr, "there is no plug-in '" + name + "' in " + list};
}

PluginSet::Found PluginSet::load(const std::string& name, const std::string& file)
{
    Found found;
    const LoadScope scope(name.c_str());
    const std::string failure =
        text_of_failure([&] { found.plugin = std::make_unique<Plugin>(file, tools_, are_kept_); });
    give_back_signals();
    if (!failure.empty()) {
        found.problem = "plug-in '" + name + "' cannot be loaded: " + failure;
    } else {
        codecs_.insert(found.plugin->codecs().begin(), found.plugin->codecs().end());
    }
    return found;
}

}  // namespace Quorval::runtime
