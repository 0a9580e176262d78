#include "graph/create.h"

#include "graph/creation_order.h"
#include "graph/declared.h"
#include "graph/state.h"
#include "graph/unread.h"
#include "graph/values.h"
#include "messages/context.h"
#include "messages/left_open.h"
#include "messages/signal_mask.h"

#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

namespace {

std::string list_of(const std::vector<std::string>& types)
{
    std::string list;
    for (const std::string& type : types) {
        list += (list.empty() ? "" : ", ") + type;
    }
    return list.empty() ? "none" : list;
}

class Creator {
public:
    Creator(const Expansion& expansion, const CreationOptions& options, PluginSet& plugins,
            Destruction& destruction, Problems& problems)
        : expansion_(expansion),
          options_(options),
          plugins_(plugins),
          destruction_(destruction),
          problems_(problems)
    {
    }

    Creation create(Superblock& root)
    {
        made_.superblocks.push_back(&root);
        for (std::size_t i = 1; i < expansion_.composites.size(); ++i) {
            add_superblock(expansion_.composites[i]);
        }
        const std::size_t count = expansion_.blocks.size();
        made_.blocks.resize(count);
        made_.records.resize(count);
        made_.input_counts.resize(count);
        for (const std::uint32_t block : creation_order(expansion_)) {
            add_block(block);
        }
        return std::move(made_);
    }

private:
    void add_superblock(const Composite& composite)
    {
        if (composite.is_elsewhere) {
            made_.superblocks.push_back(nullptr);
            return;
        }
        auto superblock = std::make_unique<Superblock>(composite.member->name);
        made_.superblocks.push_back(superblock.get());
        made_.superblocks[composite.parent]->add_block(
            UniqueDlPtr<Container>(nullptr, std::move(superblock)));
    }

    void add_block(std::size_t index)
    {
        const PlainBlock& place = expansion_.blocks[index];
        if (place.is_elsewhere) {
            return;
        }
        const std::size_t colon = place.member->type.find(':');
        const std::string type = place.member->type.substr(colon + 1);
        const Plugin* plugin = find_plugin(place, place.member->type.substr(0, colon), type);
        if (plugin == nullptr) {
            return;
        }
        BlockRecord& record = made_.records[index];
        record.declared = plugin->settings_of(type);
        record.description = plugin->description_of(type);
        const bool adds_store = configure(place, record);
        if (record.declared != nullptr &&
            !check_declared(*record.declared, place, record.config, problems_)) {
            return;
        }
        UniqueDlPtr<Container> container = make_or_report(*plugin, place, type, record, adds_store);
        if (container) {
            keep(index, std::move(container));
            warn_of_unread_keys(place, record.config, adds_store);
        }
    }

    /// @return empty where it cannot be made, which is reported
    UniqueDlPtr<Container> make_or_report(const Plugin& plugin, const PlainBlock& place,
                                          const std::string& type, const BlockRecord& record,
                                          bool adds_store)
    {
        UniqueDlPtr<Container> container;
        const std::string failure = text_of_failure([&] {
            if (adds_store && !options_.is_dry) {
                make_state_directory(record.state_directory);
            }
            container = make(plugin, place, type, record.config);
        });
        if (!failure.empty()) {
            report_failure(place, failure);
        }
        return container;
    }

    void keep(std::size_t index, UniqueDlPtr<Container> container)
    {
        const PlainBlock& place = expansion_.blocks[index];
        auto* const block = static_cast<Block*>(container.get());
        made_.blocks[index] = block;
        made_.input_counts[index] = block->Block::get_inports_info().size();
        made_.superblocks[place.composite]->add_block(std::move(container));
        destruction_.add(place.path);
    }

    void report_failure(const PlainBlock& place, const std::string& text)
    {
        // Without what is wrong in its configuration the block may have had no chance.
        if (!place.lacks_settings()) {
            problems_.add_error(place.member->type_place,
                                "block '" + place.path + "' cannot be created: " + text);
        }
    }

    const Plugin* find_plugin(const PlainBlock& place, const std::string& name,
                              const std::string& type)
    {
        const LoadedPlugin& found = plugins_.get(name);
        if (found.plugin == nullptr) {
            problems_.add_error(place.member->type_place, found.problem);
            return nullptr;
        }
        if (!found.plugin->has_type(type)) {
            problems_.add_error(place.member->type_place,
                                "plug-in '" + name + "' has no block type '" + type + "'; it has " +
                                    list_of(found.plugin->types()));
            return nullptr;
        }
        return found.plugin.get();
    }

    /// @param record  with what the type declares
    /// @return whether the runtime adds the path of the store
    bool configure(const PlainBlock& place, BlockRecord& record)
    {
        bool has_store = false;
        for (const SettingRef& ref : place.settings) {
            if (ref.setting->is_saved && record.declared != nullptr &&
                !is_declared(*record.declared, ref.key())) {
                continue;  // of a former version of the block; reported below
            }
            if (!ref.setting->is_wrong) {
                set_value(record.config, std::string(ref.key()), ref.setting->value);
            }
            has_store = has_store || ref.key() == kStoreKey;
        }
        if (has_store || options_.state_directory.empty()) {
            return false;
        }
        record.state_directory = state_directory_of(options_.state_directory, place.path);
        record.config.set(kStoreKey, record.state_directory);
        return true;
    }

    UniqueDlPtr<Container> make(const Plugin& plugin, const PlainBlock& place,
                                const std::string& type, const BlockConfiguration& config)
    {
        const ContextScope scope(place.path.c_str(), "create");
        const std::string& name = place.member->name;
        UniqueDlPtr<Container> container;
        try {
            container = plugin.create(type, name, config,
                                      [&destruction = destruction_] { destruction.next(); });
            to_block(*container);
        } catch (...) {
            note_left_open_of_failure();
            throw;
        }
        give_back_signals();
        note_left_open();
        if (container->get_name() != name) {
            container->set_name(name);
        }
        return container;
    }

    void warn_of_unread_keys(const PlainBlock& place, const BlockConfiguration& config,
                             bool adds_store)
    {
        if (config.is_consumed()) {
            return;
        }
        // To look at a value marks it as read.
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
        const BlockConfiguration copy = config;
        if (adds_store) {
            copy.getString(kStoreKey);
        }
        for (const SettingRef* ref : find_unread(copy, place.settings)) {
            problems_.add_warning(
                ref->setting->key_place,
                "key '" + std::string(ref->key()) + "' is not read by block '" + place.path + "'");
        }
    }

    const Expansion& expansion_;
    const CreationOptions& options_;
    PluginSet& plugins_;
    Destruction& destruction_;
    Problems& problems_;
    Creation made_;
};

}  // namespace

Creation create_blocks(const Expansion& expansion, const CreationOptions& options,
                       PluginSet& plugins, Superblock& root, Destruction& destruction,
                       Problems& problems)
{
    return Creator(expansion, options, plugins, destruction, problems).create(root);
}

}  // namespace Quorval::runtime
