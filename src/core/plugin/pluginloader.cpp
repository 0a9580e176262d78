#include "quorval/pluginloader.h"

#include "store/path.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

namespace Quorval {

namespace {

constexpr const char* kDirectoryVariable = "QUORVAL_PLUGIN_DIR";
constexpr const char* kEntryPoint = "lib_register_cpp";

[[noreturn]] void throw_no_directory()
{
    throw std::runtime_error(std::string(kDirectoryVariable) + " is not set");
}

[[noreturn]] void throw_has_path()
{
    throw std::runtime_error("Plugin filename must be without path");
}

[[noreturn]] void throw_no_entry_point(const std::string& filename)
{
    throw std::runtime_error("Found no C++ register function in plugin " + filename);
}

[[noreturn]] void throw_entry_point_failed(const std::string& filename)
{
    throw std::runtime_error(std::string(kEntryPoint) + " failed for plugin " + filename);
}

[[noreturn]] void throw_registered_twice(const std::string& type)
{
    throw std::runtime_error("Try to register block " + type + " twice.");
}

[[noreturn]] void throw_registers_types()
{
    throw std::runtime_error("PluginLoader cannot load plugins that register types.");
}

[[noreturn]] void throw_unknown_type(const std::string& type)
{
    throw std::runtime_error("Failed to find Block definition in PluginLoader for " + type);
}

[[noreturn]] void throw_no_block(const std::string& type)
{
    throw std::runtime_error("Create function returned no block for " + type);
}

std::string get_plugin_path(const std::string& filename)
{
    const char* directory = std::getenv(kDirectoryVariable);
    if (directory == nullptr) {
        throw_no_directory();
    }
    if (filename.find('/') != std::string::npos) {
        throw_has_path();
    }
    return join_path(directory, filename);
}

/// An address as a stream writes it. A stream would lose digits, and say nothing, when memory runs
/// out.
std::string to_text(const void* address)
{
    constexpr int kBase = 16;
    std::array<char, 2 * sizeof address> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(),
                                   reinterpret_cast<std::uintptr_t>(address), kBase)
                         .ptr;
    return "0x" + std::string(digits.data(), end);
}

}  // namespace

using CreateFn = std::function<std::unique_ptr<Container>(std::string, const BlockConfiguration&,
                                                          const InitTools&)>;

struct PluginLoader::Impl {
    const InitTools& tools;  // the caller's, outlives the loader
    std::shared_ptr<DlLoader> dl;
    // Behind `dl`, so that they are destroyed first: create functions are code of the plug-in.
    std::map<std::string, CreateFn> factories;
};

IRegistry::~IRegistry() = default;

PluginLoader::PluginLoader(const std::string& filename, const InitTools& tools)
    : impl_(new Impl{tools, nullptr, {}})
{
    impl_->dl = std::make_shared<DlLoader>(get_plugin_path(filename));
    const auto entry_point =
        reinterpret_cast<int (*)(IRegistry&)>(impl_->dl->get_fn_address(kEntryPoint));
    if (entry_point == nullptr) {
        throw_no_entry_point(filename);
    }
    if (entry_point(*this) != 0) {
        throw_entry_point_failed(filename);
    }
}

PluginLoader::~PluginLoader() = default;

void PluginLoader::register_block_create_fn(const std::string& type, CreateFn fn)
{
    if (!impl_->factories.try_emplace(type, std::move(fn)).second) {
        throw_registered_twice(type);
    }
}

void PluginLoader::register_type(const std::string& /*name*/)
{
    throw_registers_types();
}

std::tuple<UniqueDlPtr<Container>, BlockConfiguration> PluginLoader::create(
    const std::string& type, const BlockConfiguration& config, const std::string& name) const
{
    const auto found = impl_->factories.find(type);
    if (found == impl_->factories.end()) {
        throw_unknown_type(type);
    }
    // Copies, in this order: what is called here may destroy the loader, and code of the plug-in
    // must be gone before the plug-in is.
    const std::shared_ptr<DlLoader> dl = impl_->dl;
    const CreateFn create_fn = found->second;
    UniqueDlPtr<Container> block(dl, create_fn(name, config, impl_->tools));
    if (!block) {
        throw_no_block(type);
    }
    BlockConfiguration returned = block->setup(config);
    if (name.empty()) {
        block->set_name(type + "_" + to_text(block.get()));
    }
    return {std::move(block), std::move(returned)};
}

}  // namespace Quorval
