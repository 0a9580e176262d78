#include "plugins/plugin_set.h"

#include "messages/context.h"
#include "messages/signal_mask.h"
#include "plugins/codecs.h"
#include "plugins/search.h"

#include <utility>

namespace Quorval::runtime {

PluginSet::PluginSet(std::vector<std::string> directories, const InitTools& tools, bool are_kept)
    : directories_(std::move(directories)), tools_(tools), are_kept_(are_kept)
{
}

const LoadedPlugin& PluginSet::get(const std::string& name)
{
    auto found = found_.find(name);
    if (found == found_.end()) {
        found = found_.emplace(name, load(name)).first;
    }
    return found->second;
}

const Codec* PluginSet::find_codec(const std::string& type) const
{
    const auto found = codecs_.find(type);
    return found != codecs_.end() ? &found->second : find_standard_codec(type);
}

LoadedPlugin PluginSet::load(const std::string& name)
{
    LoadedPlugin loaded = load_plugin(find_plugin(name, directories_), tools_, are_kept_);
    if (loaded.plugin != nullptr) {
        codecs_.insert(loaded.plugin->codecs().begin(), loaded.plugin->codecs().end());
    }
    return loaded;
}

LoadedPlugin load_plugin(const PluginFile& file, const InitTools& tools, bool is_kept)
{
    if (!file.problem.empty()) {
        return {nullptr, file.problem};
    }
    LoadedPlugin loaded;
    const LoadScope scope(file.name.c_str());
    const std::string failure = text_of_failure(
        [&] { loaded.plugin = std::make_unique<Plugin>(file.file, tools, is_kept); });
    give_back_signals();
    if (!failure.empty()) {
        loaded.problem = "plug-in '" + file.name + "' cannot be loaded: " + failure;
    }
    return loaded;
}

}  // namespace Quorval::runtime
