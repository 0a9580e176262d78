#include "plugins/plugin.h"

#include <quorval/log.h>
#include "messages/plugin_code.h"
#include "plugins/codecs.h"
#include "plugins/note.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

namespace {

constexpr const char* kEntryPoint = "lib_register_cpp";

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

[[noreturn]] void throw_codec_registered_twice(const std::string& type)
{
    throw std::runtime_error("Try to register codec " + type + " twice.");
}

[[noreturn]] void throw_registers_types()
{
    throw std::runtime_error("PluginLoader cannot load plugins that register types.");
}

[[noreturn]] void throw_no_plain_block()
{
    throw std::runtime_error("it is no plain block");
}

[[noreturn]] void throw_no_block(const std::string& type)
{
    throw std::runtime_error("Create function returned no block for " + type);
}

/// Once loaded, it is not unloaded whoever closes it.
void keep_loaded(const std::string& file)
{
    if (void* handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE)) {
        ::dlclose(handle);
    }
}

/// A share of a library that tells when it is given back.
std::shared_ptr<DlLoader> watched(const std::shared_ptr<DlLoader>& library,
                                  const std::function<void()>& gone)
{
    return {library.get(), [library, gone](DlLoader* /*library*/) { gone(); }};
}

}  // namespace

Plugin::Plugin(const std::string& file, const InitTools& tools, bool is_kept)
    : tools_(tools), is_kept_(is_kept)
{
    const PluginFacts facts = look_at_plugin(file);
    if (!facts.obstacle.empty()) {
        throw std::runtime_error(facts.obstacle);
    }
    library_ = std::make_shared<DlLoader>(file);
    if (is_kept) {
        keep_loaded(file);
    }
    const std::string filename = std::filesystem::path(file).filename().string();
    const auto entry_point =
        reinterpret_cast<int (*)(IRegistry&)>(library_->get_fn_address(kEntryPoint));
    if (entry_point == nullptr) {
        throw_no_entry_point(filename);
    }
    int result = 0;
    const std::string failure = text_of_failure([&] { result = entry_point(*this); });
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
    if (result != 0) {
        throw_entry_point_failed(filename);
    }
    code_ = reinterpret_cast<const void*>(entry_point);
    note_plugin_code(code_, std::filesystem::path(file).stem().string());
    if (!facts.note) {
        ilog(LOGLEVEL_INFO) << "plug-in '" << std::filesystem::path(file).stem().string()
                            << "' has no note: what it was built with is not known";
    }
}

Plugin::~Plugin()
{
    if (!is_kept_) {
        forget_plugin_code(code_);
    }
}

void Plugin::register_block_create_fn(const std::string& type, CreateFn fn)
{
    if (!types_.try_emplace(type, Type{std::move(fn), std::nullopt, {}}).second) {
        throw_registered_twice(type);
    }
}

void Plugin::register_type(const std::string& /*name*/)
{
    throw_registers_types();
}

void Plugin::describe_block(const std::string& type, const BlockConfiguration& description)
{
    const auto found = types_.find(type);
    if (found != types_.end()) {
        found->second.settings = Quorval::read_settings(description);
        found->second.description = description;
    }
}

void Plugin::add_codec(const std::string& type, const Codec& codec)
{
    if (find_standard_codec(type) != nullptr || !codecs_.try_emplace(type, codec).second) {
        throw_codec_registered_twice(type);
    }
}

std::vector<std::string> Plugin::types() const
{
    std::vector<std::string> types;
    for (const auto& [type, record] : types_) {
        types.push_back(type);
    }
    return types;
}

const std::vector<Quorval::Setting>* Plugin::settings_of(const std::string& type) const
{
    const std::optional<std::vector<Quorval::Setting>>& settings = types_.at(type).settings;
    return settings ? &*settings : nullptr;
}

const BlockConfiguration* Plugin::description_of(const std::string& type) const
{
    const Type& record = types_.at(type);
    return record.settings ? &record.description : nullptr;
}

UniqueDlPtr<Container> Plugin::create(const std::string& type, const std::string& name,
                                      const BlockConfiguration& config,
                                      const std::function<void()>& gone) const
{
    UniqueDlPtr<Container> block(gone ? watched(library_, gone) : library_,
                                 types_.at(type).create(name, config, tools_));
    if (!block) {
        throw_no_block(type);
    }
    block->setup(config);
    return block;
}

Block& to_block(Container& container)
{
    // Not by a cast that asks for the type: the class may be one that was compiled without type
    // information. Held by LoadGraph.TakesBlocksWithoutTypeInformation.
    const std::vector<Block*> blocks = container.get_blocks();
    if (blocks.size() != 1 || blocks.front() != &container) {
        throw_no_plain_block();
    }
    return *blocks.front();
}

std::string text_of_failure(const std::function<void()>& action)
{
    try {
        action();
        return {};
    } catch (const std::exception& error) {
        const char* text = error.what();
        return text != nullptr && *text != '\0' ? text : "an exception without a text";
    } catch (...) {
        return "an unknown exception";
    }
}

}  // namespace Quorval::runtime
