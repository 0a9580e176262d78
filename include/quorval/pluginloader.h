// Loading plug-ins and creating blocks of the types that they offer.
#pragma once

#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/dlloader.h>
#include <quorval/export.h>

#include <functional>
#include <memory>
#include <string>
#include <tuple>

namespace Quorval {

/// Services that an application hands to the block create functions of a plug-in. The application
/// defines it; the library only passes it on.
struct InitTools;

/// What a plug-in sees of its loader: where it registers the block types that it offers.
class QUORVAL_EXPORT IRegistry {
public:
    /// Records the function that creates blocks of a type. It gets the block's name, its
    /// configuration and the services of the application, and returns the block, never null.
    /// @throws std::runtime_error  the type is registered already: "Try to register block <type>
    ///     twice."
    virtual void register_block_create_fn(
        const std::string& type,
        std::function<std::unique_ptr<Container>(std::string, const BlockConfiguration&,
                                                 const InitTools&)>
            fn) = 0;

    /// Registers a data type.
    /// @throws std::runtime_error  always, in a PluginLoader: "PluginLoader cannot load plugins
    ///     that register types."
    virtual void register_type(const std::string& name) = 0;

    // The destructor comes last: the order of the operations is part of the binary interface.
    virtual ~IRegistry();

    IRegistry(const IRegistry&) = delete;
    IRegistry& operator=(const IRegistry&) = delete;

protected:
    IRegistry() = default;
};

/// Holds one plug-in loaded and creates blocks of its types. The plug-in stays loaded while its
/// loader or any block that it created lives. Stays where it is. One thread at a time; create()
/// alone may be called from several.
class QUORVAL_EXPORT PluginLoader : public IRegistry {
public:
    /// Loads a plug-in from the directory that the environment variable QUORVAL_PLUGIN_DIR names,
    /// and calls its lib_register_cpp(). A constructor that throws closes the plug-in again.
    /// @param filename  the name of the file, without any directory
    /// @param tools     not owned; must outlive the loader
    /// @throws std::runtime_error  "QUORVAL_PLUGIN_DIR is not set"; "Plugin filename must be
    ///     without path"; the text of DlLoader; "Found no C++ register function in plugin
    ///     <filename>"; the function returned another value than 0: "lib_register_cpp failed for
    ///     plugin <filename>"
    /// @throws what lib_register_cpp() throws
    PluginLoader(const std::string& filename, const InitTools& tools);

    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    void register_block_create_fn(const std::string& type,
                                  std::function<std::unique_ptr<Container>(
                                      std::string, const BlockConfiguration&, const InitTools&)>
                                      fn) override;
    void register_type(const std::string& name) override;

    /// Drops the create functions, then the loader's share of the plug-in.
    ~PluginLoader() override;

    /// Creates a block, calls its setup() with `config`, and names it "<type>_<address>" when
    /// `name` is empty. While setup() runs, it has the name that its create function gave it.
    /// @return the block, and what its setup() returned
    /// @throws std::runtime_error     no such type: "Failed to find Block definition in
    ///     PluginLoader for <type>"; the create function returned null: "Create function returned
    ///     no block for <type>"
    /// @throws std::bad_function_call the registered function is empty
    /// @throws what the create function and setup() throw
    std::tuple<UniqueDlPtr<Container>, BlockConfiguration> create(const std::string& type,
                                                                  const BlockConfiguration& config,
                                                                  const std::string& name) const;

private:
    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Quorval

/// The entry point that every plug-in defines. It registers the plug-in's block types and returns
/// 0, or another value when it cannot.
///
/// When the loading fails the plug-in is closed while the exception is still on its way, and an
/// exception whose class is part of the plug-in is gone before anybody can look at it: the process
/// ends. So throw only exceptions whose code lies in the shared standard library, out of this
/// function and out of a create function: std::bad_alloc, std::bad_cast, std::bad_function_call and
/// std::bad_weak_ptr, the classes of <stdexcept>, std::system_error with std::ios_base::failure and
/// std::filesystem::filesystem_error, std::regex_error and std::future_error. Never let these four
/// out, which are made in the plug-in like its own: std::bad_optional_access, as value() of an
/// empty std::optional throws it, std::bad_variant_access, std::bad_any_cast, and what
/// std::throw_with_nested() throws.
extern "C" QUORVAL_EXPORT int lib_register_cpp(Quorval::IRegistry& registry);
