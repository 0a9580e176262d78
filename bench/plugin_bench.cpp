// Loading plug-ins.

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include <dlfcn.h>

#ifdef QUORVAL_BENCH_HAS_CLASS_LOADER
#include <class_loader/class_loader.hpp>

#include "class_loader_member.h"
#endif

#include "harness.h"
#include "plugins.h"

namespace quorval_bench {

const std::string& plugin_directory()
{
    static const std::string directory = [] {
        ::setenv("QUORVAL_PLUGIN_DIR", QUORVAL_BENCH_PLUGIN_DIR, 1);
        return std::string(QUORVAL_BENCH_PLUGIN_DIR);
    }();
    return directory;
}

std::unique_ptr<Quorval::PluginLoader> load_plugin()
{
    static const Quorval::InitTools tools{};
    plugin_directory();
    return std::make_unique<Quorval::PluginLoader>(kPlugin, tools);
}

namespace {

constexpr std::size_t kLoads = 10;

/// Counts what a plug-in registers, the least that a caller can do.
class CountingRegistry : public Quorval::IRegistry {
public:
    void register_block_create_fn(
        const std::string& /*type*/,
        std::function<std::unique_ptr<Quorval::Container>(
            std::string, const Quorval::BlockConfiguration&, const Quorval::InitTools&)>
        /*fn*/) override
    {
        ++count;
    }
    void register_type(const std::string& /*name*/) override {}

    int count = 0;
};

/// The system's calls in the order in which the library makes them.
int load_by_hand(const std::string& path)
{
    void* handle = ::dlopen(path.c_str(), RTLD_NOW);
    if (handle == nullptr) {
        throw std::runtime_error(::dlerror());
    }
    using EntryPoint = int (*)(Quorval::IRegistry&);
    const auto entry_point = reinterpret_cast<EntryPoint>(::dlsym(handle, "lib_register_cpp"));
    CountingRegistry registry;
    if (entry_point == nullptr || entry_point(registry) != 0) {
        throw std::runtime_error(path + " does not register");
    }
    ::dlclose(handle);
    return registry.count;
}

bool is_loaded(const std::string& path)
{
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        ::dlclose(handle);
    }
    return handle != nullptr;
}

const bool kAreAdded = [] {
    add_time("plugin_load/quorval", kLoads, [] {
        auto loads = std::make_shared<std::size_t>(0);
        return Side{[loads] {
                        for (*loads = 0; *loads < kLoads; ++*loads) {
                            load_plugin();
                        }
                    },
                    [loads] {
                        const std::string path = plugin_directory() + "/" + kPlugin;
                        const bool is_closed = !is_loaded(path);
                        const auto loader = load_plugin();
                        return *loads == kLoads && is_closed && is_loaded(path) &&
                               std::get<0>(loader->create(kMemberType, {}, "a"))->get_name() == "a";
                    }};
    });
    add_time("plugin_load/system", kLoads, [] {
        auto registered = std::make_shared<int>(0);
        const std::string path = plugin_directory() + "/" + kPlugin;
        return Side{[registered, path] {
                        *registered = 0;
                        for (std::size_t load = 0; load < kLoads; ++load) {
                            *registered += load_by_hand(path);
                        }
                    },
                    [registered, path] { return *registered == kLoads && !is_loaded(path); }};
    });
#ifdef QUORVAL_BENCH_HAS_CLASS_LOADER
    add_time("plugin_load/class_loader", kLoads, [] {
        auto offered = std::make_shared<std::size_t>(0);
        const std::string path = plugin_directory() + "/bench-class-loader-plugin.so";
        return Side{[offered, path] {
                        *offered = 0;
                        for (std::size_t load = 0; load < kLoads; ++load) {
                            class_loader::ClassLoader loader(path);
                            *offered += loader.getAvailableClasses<ClassLoaderMember>().size();
                        }
                    },
                    [offered] { return *offered == kLoads; }};
    });
#endif
    return true;
}();

}  // namespace

}  // namespace quorval_bench
