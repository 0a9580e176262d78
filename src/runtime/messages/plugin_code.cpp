#include "messages/plugin_code.h"

#include <dlfcn.h>

#include <map>
#include <mutex>

namespace Quorval::runtime {

namespace {

struct Plugins {
    std::mutex mutex;
    std::map<const void*, std::string> names;  // by the address where each was loaded
};

/// Never destroyed: it is asked while the process ends.
Plugins& plugins()
{
    static auto* const kAll = new Plugins;  // NOLINT(cppcoreguidelines-owning-memory)
    return *kAll;
}

const void* base_of(const void* address)
{
    Dl_info object{};
    return ::dladdr(address, &object) != 0 ? object.dli_fbase : nullptr;
}

}  // namespace

void note_plugin_code(const void* address, const std::string& plugin)
{
    Plugins& all = plugins();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.names[base_of(address)] = plugin;
}

void forget_plugin_code(const void* address)
{
    Plugins& all = plugins();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.names.erase(base_of(address));
}

std::string find_plugin_code(const void* address)
{
    Plugins& all = plugins();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.names.find(base_of(address));
    return found != all.names.end() ? found->second : std::string();
}

}  // namespace Quorval::runtime
