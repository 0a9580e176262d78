#include "graph/declared.h"

#include <quorval/runtime/suggest.h>
#include "description/names.h"
#include "description/suggest.h"
#include "graph/create.h"
#include "graph/values.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <unordered_set>

namespace Quorval::runtime {

namespace {

std::string text_of_unknown(const std::vector<Quorval::Setting>& declared, const std::string& type,
                            const std::string& key)
{
    std::vector<std::string> known;
    known.reserve(declared.size());
    for (const Quorval::Setting& setting : declared) {
        known.push_back(setting.key);
    }
    return "block type '" + type + "' has no setting '" + key + "'" + suggestion(key, known);
}

class DeclaredCheck {
public:
    DeclaredCheck(const std::vector<Quorval::Setting>& declared, const PlainBlock& block,
                  Problems& problems)
        : declared_(declared), block_(block), problems_(problems)
    {
    }

    bool check(const BlockConfiguration& config)
    {
        check_keys();
        for (const Quorval::Setting& setting : declared_) {
            if (has_value(config, setting)) {
                check_value(config, setting);
            } else if (setting.is_required && !is_excused(setting.key)) {
                report(block_.member->name_place, "'" + setting.key + "' is missing");
            }
        }
        return is_right_;
    }

private:
    void check_keys()
    {
        std::unordered_set<std::string> known;
        for (const Quorval::Setting& setting : declared_) {
            known.insert(setting.key);
        }
        for (const SettingRef& ref : block_.settings) {
            const std::string key(ref.key());
            if (known.count(key) == 0 && key != kStoreKey) {
                check_unknown_key(ref, {known.begin(), known.end()});
            } else if (ref.setting->is_wrong) {
                meant_.insert(key);
            }
        }
    }

    void check_unknown_key(const SettingRef& ref, const std::vector<std::string>& known)
    {
        const std::string key(ref.key());
        if (ref.setting->is_saved) {
            problems_.add_warning(ref.setting->key_place,
                                  text_of_unknown(declared_, block_.member->type, key));
            return;
        }
        meant_.insert(find_near(key, known));
        if (is_key(key)) {
            report(ref.setting->key_place, text_of_unknown(declared_, block_.member->type, key));
        }
    }

    /// Whether a key is missing because of what is reported.
    bool is_excused(const std::string& key) const
    {
        return block_.is_config_wrong || meant_.count(key) > 0;
    }

    void check_value(const BlockConfiguration& config, const Quorval::Setting& setting)
    {
        const SettingProblem problem = find_problem(config, setting);
        if (!problem.text.empty()) {
            report(place_of(setting.key, problem.item), problem.text);
        }
    }

    /// Of a value, or of an item of it.
    Place place_of(const std::string& key, int item) const
    {
        const auto ref = std::lower_bound(
            block_.settings.begin(), block_.settings.end(), key,
            [](const SettingRef& a, const std::string& wanted) { return a.key() < wanted; });
        if (ref == block_.settings.end() || ref->key() != key) {
            return block_.member->name_place;
        }
        const std::vector<Place>& items = ref->setting->item_places;
        const auto at = static_cast<std::size_t>(item);
        return item >= 0 && at < items.size() ? items[at] : ref->setting->value_place;
    }

    void report(const Place& place, const std::string& text)
    {
        problems_.add_error(place, text);
        is_right_ = false;
    }

    const std::vector<Quorval::Setting>& declared_;
    const PlainBlock& block_;
    Problems& problems_;
    std::unordered_set<std::string> meant_;  // by keys that are wrong
    bool is_right_ = true;
};

}  // namespace

bool check_declared(const std::vector<Quorval::Setting>& declared, const PlainBlock& block,
                    const BlockConfiguration& config, Problems& problems)
{
    // A copy: to look at a value marks it as read.
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    const BlockConfiguration copy = config;
    return DeclaredCheck(declared, block, problems).check(copy);
}

bool is_declared(const std::vector<Quorval::Setting>& declared, std::string_view key)
{
    return std::any_of(declared.begin(), declared.end(),
                       [key](const Quorval::Setting& setting) { return setting.key == key; });
}

std::string find_refusal(const std::vector<Quorval::Setting>& declared, const std::string& type,
                         const BlockConfiguration& values)
{
    for (const std::string& key : keys_of(values)) {
        const auto setting =
            std::find_if(declared.begin(), declared.end(),
                         [&key](const Quorval::Setting& one) { return one.key == key; });
        if (setting == declared.end()) {
            return text_of_unknown(declared, type, key);
        }
        if (!setting->is_live) {
            return text_of_fixed(key);
        }
        const SettingProblem problem = find_problem(values, *setting);
        if (!problem.text.empty()) {
            return problem.text;
        }
    }
    return "";
}

BlockConfiguration read_defaults(const BlockConfiguration& description)
{
    BlockConfiguration defaults;
    for (std::size_t i = 0;; ++i) {
        const std::string prefix = "settings." + std::to_string(i);
        const std::string key = description.getString(prefix + ".key", "");
        if (key.empty()) {
            return defaults;
        }
        const BlockConfiguration setting = description.getSubtree(prefix);
        for (const std::string& member : keys_of(setting)) {
            if (member == "default") {
                set_value(defaults, key, get_value(setting, member));
            }
        }
    }
}

std::string text_of_fixed(const std::string& key)
{
    return "'" + key + "' cannot be changed while the graph runs";
}

}  // namespace Quorval::runtime
