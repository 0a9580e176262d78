#include "graph/expansion.h"

#include "description/suggest.h"
#include "graph/size.h"

#include <algorithm>
#include <utility>

namespace Quorval::runtime {

namespace {

class Expander {
public:
    Expander(const GraphDescription& description, const SizeCheck& size, Problems& problems)
        : description_(description), size_(size), problems_(problems)
    {
    }

    Expansion expand()
    {
        result_.composites.push_back({"", nullptr, &description_.graph, 0, {}, "", false});
        handed_down_.emplace_back();
        on_error_.push_back(description_.on_error);
        is_config_wrong_.push_back(false);
        for (std::uint32_t i = 0; i < result_.composites.size(); ++i) {
            expand_composite(i);
        }
        assign();
        for (PlainBlock& block : result_.blocks) {
            keep_what_counts(block.settings);
        }
        return std::move(result_);
    }

private:
    void expand_composite(std::uint32_t index)
    {
        const CompositeDescription& inside = *result_.composites[index].inside;
        std::vector<std::vector<SettingRef>> shares = share_out(index);
        for (std::size_t i = 0; i < inside.members.size(); ++i) {
            const MemberRef ref = add_member(index, inside.members[i], std::move(shares[i]));
            result_.composites[index].members.push_back(ref);
        }
    }

    MemberRef add_member(std::uint32_t parent, const MemberDescription& member,
                         std::vector<SettingRef> from_outside)
    {
        std::string path = path_below(result_.composites[parent].path, member.name);
        if (member.misses_type) {
            problems_.add_error(member.name_place, "block '" + path + "' has no type");
        }
        if (parent == 0) {
            check_machine(member);
        }
        if (!member.has_type || size_.closes_cycle(member)) {
            return {};
        }
        std::vector<SettingRef> settings = own_settings(member);
        settings.insert(settings.end(), from_outside.begin(), from_outside.end());
        const OnError on_error = member.on_error.value_or(on_error_[parent]);
        std::string machine = parent == 0 ? member.machine : result_.composites[parent].machine;
        const bool is_config_wrong = member.is_config_wrong || is_config_wrong_[parent];
        if (member.type.find(':') != std::string::npos) {
            result_.blocks.push_back({std::move(path), &member, on_error, std::move(settings),
                                      parent, std::move(machine), false, is_config_wrong});
            return {MemberRef::Kind::Plain, static_cast<std::uint32_t>(result_.blocks.size() - 1)};
        }
        const auto kind = description_.kinds.find(member.type);
        if (kind == description_.kinds.end()) {
            report_no_kind(member);
            return {};
        }
        result_.composites.push_back(
            {std::move(path), &member, &kind->second, parent, {}, std::move(machine), false});
        handed_down_.push_back(std::move(settings));
        on_error_.push_back(on_error);
        is_config_wrong_.push_back(is_config_wrong);
        return {MemberRef::Kind::Composite,
                static_cast<std::uint32_t>(result_.composites.size() - 1)};
    }

    void check_machine(const MemberDescription& member)
    {
        const std::vector<std::string>& machines = description_.machines;
        if (description_.has_broken_machines) {
            return;
        }
        if (member.misses_machine && !machines.empty()) {
            problems_.add_error(member.name_place, "block '" + member.name + "' has no machine");
        } else if (member.machine_place.line != 0 &&
                   !std::binary_search(machines.begin(), machines.end(), member.machine)) {
            problems_.add_error(member.machine_place,
                                "there is no machine '" + member.machine + "'" +
                                    suggester_.suggest(member.machine, machines));
        }
    }

    void report_no_kind(const MemberDescription& member)
    {
        if (!description_.has_broken_kinds) {
            problems_.add_error(member.type_place,
                                "there is no superblock '" + member.type + "'" +
                                    suggester_.suggest(member.type, names_of_kinds()));
        }
    }

    const std::vector<std::string>& names_of_kinds()
    {
        if (kinds_.empty()) {
            for (const auto& [name, kind] : description_.kinds) {
                kinds_.push_back(name);
            }
        }
        return kinds_;
    }

    static std::vector<SettingRef> own_settings(const MemberDescription& member)
    {
        std::vector<SettingRef> settings;
        settings.reserve(member.config.size());
        for (const Setting& setting : member.config) {
            settings.push_back({&setting, 0});
        }
        return settings;
    }

    /// Parts the configuration of a superblock among its members.
    std::vector<std::vector<SettingRef>> share_out(std::uint32_t index)
    {
        const Composite& composite = result_.composites[index];
        std::vector<std::vector<SettingRef>> shares(composite.inside->members.size());
        std::string_view unknown = ".";  // no name, since the first component may be empty
        for (const SettingRef& ref : std::exchange(handed_down_[index], {})) {
            const std::string_view key = ref.key();
            const std::string_view name = key.substr(0, key.find('.'));
            const std::size_t member = composite.inside->find_member(name);
            if (member < shares.size() && name.size() < key.size()) {
                shares[member].push_back({ref.setting, ref.offset + name.size() + 1});
            } else if (!ref.setting->is_wrong && member == shares.size()) {
                report_no_member(composite, *ref.setting, name, unknown);
            } else if (!ref.setting->is_wrong) {
                problems_.add_error(ref.setting->value_place,
                                    "'" + ref.setting->key + "' has to be a table");
            }
        }
        return shares;
    }

    /// @param last  the name that was reported before: elements of one table stand together
    void report_no_member(const Composite& composite, const Setting& setting, std::string_view name,
                          std::string_view& last)
    {
        if (name != last && !composite.inside->is_broken) {
            problems_.add_error(
                setting.key_place,
                "there is no block '" + path_below(composite.path, std::string(name)) + "'");
        }
        last = name;
    }

    void assign()
    {
        if (description_.assignments.empty()) {
            return;
        }
        std::unordered_map<std::string_view, PlainBlock*> by_path;
        for (PlainBlock& block : result_.blocks) {
            by_path.emplace(block.path, &block);
        }
        for (const Assignment& assignment : description_.assignments) {
            const auto found = by_path.find(assignment.path);
            if (found != by_path.end()) {
                found->second->settings.push_back({&assignment.setting, 0});
            } else if (!leads_to_what_is_wrong(assignment.path)) {
                report_no_block(assignment);
            }
        }
    }

    /// Whether what a path names may be missing because it is wrong, which is reported.
    bool leads_to_what_is_wrong(std::string_view path) const
    {
        const Composite* place = &result_.composites.front();
        while (true) {
            const std::size_t end = path.find('/');
            const std::size_t at = place->inside->find_member(path.substr(0, end));
            if (at == place->members.size()) {
                return place->inside->is_broken;
            }
            const MemberRef& member = place->members[at];
            if (member.kind != MemberRef::Kind::Composite || end == std::string_view::npos) {
                return member.kind == MemberRef::Kind::Nothing;
            }
            place = &result_.composites[member.index];
            path.remove_prefix(end + 1);
        }
    }

    void report_no_block(const Assignment& assignment)
    {
        const std::string text = "there is no block '" + assignment.path + "'";
        if (assignment.setting.is_saved) {
            problems_.add_warning(assignment.setting.key_place, text);
        } else {
            problems_.add_error(assignment.setting.key_place, text);
        }
    }

    /// Of one key the last one counts: what is further out is behind what is further in.
    static void keep_what_counts(std::vector<SettingRef>& settings)
    {
        std::reverse(settings.begin(), settings.end());
        std::stable_sort(
            settings.begin(), settings.end(),
            [](const SettingRef& a, const SettingRef& b) { return a.key() < b.key(); });
        const auto end = std::unique(
            settings.begin(), settings.end(),
            [](const SettingRef& a, const SettingRef& b) { return a.key() == b.key(); });
        settings.erase(end, settings.end());
    }

    const GraphDescription& description_;
    const SizeCheck& size_;
    Problems& problems_;
    Expansion result_;
    std::vector<std::vector<SettingRef>> handed_down_;  // to each composite, the outermost last
    std::vector<OnError> on_error_;                     // of each composite
    std::vector<bool> is_config_wrong_;                 // likewise
    std::vector<std::string> kinds_;                    // names, when they were asked for
    Suggester suggester_;
};

}  // namespace

bool PlainBlock::lacks_settings() const
{
    return is_config_wrong ||
           std::any_of(settings.begin(), settings.end(),
                       [](const SettingRef& ref) { return ref.setting->is_wrong; });
}

Expansion expand(const GraphDescription& description, Problems& problems)
{
    SizeCheck size(description, problems);
    if (!size.check()) {
        return {};
    }
    return Expander(description, size, problems).expand();
}

std::string path_below(const std::string& path, const std::string& name)
{
    return path.empty() ? name : path + "/" + name;
}

}  // namespace Quorval::runtime
