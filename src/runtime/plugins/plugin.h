// A loaded plug-in and the blocks that it makes.
#pragma once

#include <quorval/block.h>
#include <quorval/codec.h>
#include <quorval/config.h>
#include <quorval/dlloader.h>
#include <quorval/pluginloader.h>
#include <quorval/settings.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// Holds one plug-in loaded, keeps what it registers, and makes blocks of its types. It does what
/// PluginLoader does, without an environment variable. Stays where it is.
class Plugin : public IRegistry, public IDescriptionRegistry, public ICodecRegistry {
public:
    using CreateFn = std::function<std::unique_ptr<Container>(
        std::string, const BlockConfiguration&, const InitTools&)>;

    /// Loads a plug-in and lets it register its types. A constructor that throws closes it again;
    /// no exception of the plug-in's own leaves it. One without a note is told of at
    /// LOGLEVEL_INFO.
    /// @param file     with its directory
    /// @param tools    must outlive the plug-in
    /// @param is_kept  whether its code stays loaded until the process ends
    /// @throws std::runtime_error  it does not fit this runtime: "it was built for <interface or
    ///     machine>, and this is <...>", "not a regular file"; with the texts of PluginLoader, that
    ///     of what the plug-in threw, or "an unknown exception"
    Plugin(const std::string& file, const InitTools& tools, bool is_kept = false);
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;
    ~Plugin() override;

    void register_block_create_fn(const std::string& type, CreateFn fn) override;
    void register_type(const std::string& name) override;
    /// @throws what is wrong with a description that is none
    void describe_block(const std::string& type, const BlockConfiguration& description) override;

    /// @throws std::runtime_error  as ICodecRegistry says, also for a standard type
    void add_codec(const std::string& type, const Codec& codec) override;

    bool has_type(const std::string& type) const { return types_.count(type) > 0; }

    /// In the order of bytes.
    std::vector<std::string> types() const;

    /// The settings that a type declares, null where it declares none.
    const std::vector<Quorval::Setting>* settings_of(const std::string& type) const;

    /// What a type said about its settings, null where it declares none.
    const BlockConfiguration* description_of(const std::string& type) const;

    /// The codecs that it registered, by data type.
    const std::map<std::string, Codec>& codecs() const { return codecs_; }

    /// Makes a block and calls its setup().
    /// @param type    one that the plug-in has
    /// @param config  is read by the block, which leaves its marks
    /// @param gone    called when the block was destroyed, or could not be made; may be empty
    /// @throws what the block throws, and what PluginLoader::create() does
    UniqueDlPtr<Container> create(const std::string& type, const std::string& name,
                                  const BlockConfiguration& config,
                                  const std::function<void()>& gone = {}) const;

private:
    const InitTools& tools_;
    bool is_kept_;
    const void* code_ = nullptr;  // of the plug-in
    std::shared_ptr<DlLoader> library_;
    struct Type {
        CreateFn create;
        std::optional<std::vector<Quorval::Setting>> settings;
        BlockConfiguration description;
    };
    // Behind the library, so that they are destroyed first: create functions are code of it.
    std::map<std::string, Type> types_;
    std::map<std::string, Codec> codecs_;
};

/// The block that a plug-in made.
/// @throws std::runtime_error  it is something else: "it is no plain block"
Block& to_block(Container& container);

/// Calls `action`.
/// @return the text of what it threw, a copy that outlives the code which threw; "an unknown
///     exception" for what is no std::exception; empty when it threw nothing
std::string text_of_failure(const std::function<void()>& action);

}  // namespace Quorval::runtime
