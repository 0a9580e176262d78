#include "graph/declared.h"

#include <quorval/runtime/suggest.h>
#include "description/names.h"
#include "description/suggest.h"
#include "graph/create.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <unordered_set>

namespace Quorval::runtime {

namespace {

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
        meant_.insert(find_near(key, known));
        if (is_key(key)) {
            report(ref.setting->key_place, "block type '" + block_.member->type +
                                               "' has no setting '" + key + "'" +
                                               suggestion(key, known));
        }
    }

    /// Whether a key is missing because of what is reported.
    bool is_excused(const std::string& key) const
    {
        return block_.is_config_wrong || meant_.count(key) > 0;
    }

    void check_value(const BlockConfiguration& config, const Quorval::Setting& setting)
    {
        SettingProblem problem;
        try {
            problem = find_problem(config, setting);
        } catch (const std::runtime_error& error) {
            problem.text = error.what();
        }
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

}  // namespace Quorval::runtime
