// Loading plug-ins.

#include <dlfcn.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#ifdef QUORVAL_BENCH_HAS_CLASS_LOADER
#include "class_loader_member.h"

#include <class_loader/class_loader.hpp>
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

constexpr std::size_t kMany = 100;

/// Copies of the plug-in, each of which is loaded as one of its own. Without a "/" at its end.
const std::string& many_directory()
{
    static const std::string directory = [] {
        std::string path = scratch_directory() + "many";
        std::filesystem::create_directory(path);
        for (std::size_t index = 0; index < kMany; ++index) {
            std::filesystem::copy_file(plugin_directory() + "/" + kPlugin,
                                       path + "/" + std::to_string(index) + ".so");
        }
        return path;
    }();
    return directory;
}

std::vector<std::string> many_names()
{
    std::vector<std::string> names;
    for (std::size_t index = 0; index < kMany; ++index) {
        names.push_back(std::to_string(index) + ".so");
    }
    return names;
}

/// Keeps what a plug-in registers, and the plug-in open.
class KeepingRegistry : public Quorval::IRegistry {
public:
    explicit KeepingRegistry(const std::string& path) : handle_(::dlopen(path.c_str(), RTLD_NOW))
    {
        if (handle_ == nullptr) {
            throw std::runtime_error(::dlerror());
        }
        using EntryPoint = int (*)(Quorval::IRegistry&);
        const auto entry_point = reinterpret_cast<EntryPoint>(::dlsym(handle_, "lib_register_cpp"));
        if (entry_point == nullptr || entry_point(*this) != 0) {
            throw std::runtime_error(path + " does not register");
        }
    }
    ~KeepingRegistry() override
    {
        functions_.clear();
        ::dlclose(handle_);
    }

    void register_block_create_fn(
        const std::string& type,
        std::function<std::unique_ptr<Quorval::Container>(
            std::string, const Quorval::BlockConfiguration&, const Quorval::InitTools&)>
            fn) override
    {
        functions_.emplace(type, std::move(fn));
    }
    void register_type(const std::string& /*name*/) override {}

    std::size_t size() const { return functions_.size(); }

private:
    void* handle_;
    std::map<std::string,
             std::function<std::unique_ptr<Quorval::Container>(
                 std::string, const Quorval::BlockConfiguration&, const Quorval::InitTools&)>>
        functions_;
};

/// A hundred plug-ins that stay loaded.
void add_many()
{
    add_time("plugin_load_many/quorval", kMany, [] {
        auto loaders = std::make_shared<std::vector<std::unique_ptr<Quorval::PluginLoader>>>();
        return Side{
            [loaders, names = many_names()] {
                static const Quorval::InitTools tools{};
                for (const std::string& name : names) {
                    loaders->push_back(std::make_unique<Quorval::PluginLoader>(name, tools));
                }
            },
            [loaders] {
                return loaders->size() == kMany && is_loaded(many_directory() + "/99.so") &&
                       std::get<0>(loaders->back()->create(kMemberType, {}, "a"))->get_name() ==
                           "a";
            },
            [loaders] {
                loaders->clear();
                ::setenv("QUORVAL_PLUGIN_DIR", many_directory().c_str(), 1);
            }};
    });
    add_time("plugin_load_many/system", kMany, [] {
        auto loaded = std::make_shared<std::vector<std::unique_ptr<KeepingRegistry>>>();
        return Side{[loaded, names = many_names(), directory = many_directory()] {
                        for (const std::string& name : names) {
                            std::string path = directory;
                            path += '/';
                            path += name;
                            loaded->push_back(std::make_unique<KeepingRegistry>(path));
                        }
                    },
                    [loaded] {
                        return loaded->size() == kMany && loaded->back()->size() == 1 &&
                               is_loaded(many_directory() + "/99.so");
                    },
                    [loaded] { loaded->clear(); }};
    });
}

const bool kAreAdded = [] {
    add_many();
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
