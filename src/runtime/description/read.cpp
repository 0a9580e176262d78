#include "description/read.h"

#include "description/file.h"
#include "description/names.h"
#include "description/settings.h"
#include "description/toml.h"
#include "description/tree.h"

#include <toml++/toml.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

namespace {

void note_gaps(const CompositeDescription& part, CompositeDescription& whole)
{
    whole.is_broken = whole.is_broken || part.is_broken;
    whole.misses_connections = whole.misses_connections || part.misses_connections;
    for (const MemberDescription& member : part.members) {
        const std::size_t at = whole.find_member(member.name);
        if (at < whole.members.size()) {
            MemberDescription& merged = whole.members[at];
            merged.misses_type = merged.misses_type && member.misses_type;
            merged.misses_machine = merged.misses_machine && member.misses_machine;
            merged.is_config_wrong = merged.is_config_wrong || member.is_config_wrong;
        }
    }
}

/// What one file lacks because it is wrong, the whole may lack too, although another file has
/// something right under the same key.
void note_gaps(const GraphDescription& part, GraphDescription& whole)
{
    whole.has_broken_kinds = whole.has_broken_kinds || part.has_broken_kinds;
    whole.has_broken_machines = whole.has_broken_machines || part.has_broken_machines;
    whole.link.is_wrong = whole.link.is_wrong || part.link.is_wrong;
    note_gaps(part.graph, whole.graph);
    for (const auto& [name, kind] : part.kinds) {
        const auto merged = whole.kinds.find(name);
        if (merged != whole.kinds.end()) {
            note_gaps(kind, merged->second);
        }
    }
}

/// A file that is not included for an error may have more of everything, so nothing is reported as
/// missing. It cannot replace what is there.
void note_missing_file(CompositeDescription& inside)
{
    inside.is_broken = true;
    inside.misses_connections = true;
    for (MemberDescription& member : inside.members) {
        member.misses_type = false;
        member.misses_machine = false;
        member.is_config_wrong = true;
    }
}

void note_missing_file(GraphDescription& whole)
{
    whole.has_broken_kinds = true;
    whole.has_broken_machines = true;
    whole.link.is_wrong = true;
    note_missing_file(whole.graph);
    for (auto& [name, kind] : whole.kinds) {
        note_missing_file(kind);
    }
}

/// Reads files and what they include, each once.
class FileReader {
public:
    FileReader(Reading& reading, IPatience* patience) : reading_(reading), patience_(patience) {}

    /// Reads a file of the command line, then all that is included below it.
    void read(const std::string& name)
    {
        enter(name, nullptr);
        while (!open_.empty()) {
            OpenFile& file = open_.back();
            if (file.next < file.includes.size()) {
                // Copied: what is entered may move the record.
                const Include include = file.includes[file.next++];
                enter(join(file.folder, include.name), &include.place);
            } else {
                is_open_[file.identity] = false;
                merge_order_.push_back(file.source);
                open_.pop_back();
            }
        }
    }

    /// Describes all files as one. Forms are checked file by file: what is wrong in one is so even
    /// where another replaces it.
    GraphDescription describe()
    {
        std::vector<std::uint32_t> ranks(reading_.sources.size());
        for (std::size_t i = 0; i < merge_order_.size(); ++i) {
            ranks[merge_order_[i]] = static_cast<std::uint32_t>(i);
        }
        std::vector<GraphDescription> parts;
        toml::table merged;
        for (const std::uint32_t source : merge_order_) {
            if (merge_order_.size() > 1) {
                parts.push_back(read_tree(trees_[source], ranks, reading_.problems));
                merge_toml(merged, std::move(trees_[source]));
            } else {
                merged = std::move(trees_[source]);
            }
        }
        GraphDescription whole = read_tree(merged, ranks, reading_.problems);
        for (const GraphDescription& part : parts) {
            note_gaps(part, whole);
        }
        if (!has_all_includes_) {
            note_missing_file(whole);
        }
        whole.graph.find_ends();
        for (auto& [name, kind] : whole.kinds) {
            kind.find_ends();
        }
        return whole;
    }

private:
    struct OpenFile {
        std::uint32_t source = 0;
        GraphFile::Identity identity;
        std::filesystem::path folder;
        std::vector<Include> includes;
        std::size_t next = 0;  // of the includes
    };

    static std::string join(const std::filesystem::path& folder, const std::string& name)
    {
        return (folder / name).string();
    }

    /// @param include  where the name stands in a file; null on the command line
    void enter(const std::string& name, const Place* include)
    {
        GraphFile file(name);
        if (!file.error().empty()) {
            report_unreadable(name, file.error(), include);
            return;
        }
        const auto [seen, is_new] = is_open_.try_emplace(file.identity(), false);
        if (!is_new) {
            // What is still open was entered from a file.
            if (seen->second && include != nullptr) {
                reading_.problems.add_error(*include, "'" + name + "' includes itself");
            }
            return;
        }
        if (file.is_refused()) {
            reading_.problems.add_error({add_source(name, ""), 1, 1}, text_of_refusal(name));
            reading_.is_whole = false;
            return;
        }
        std::string text = file.read(patience_);
        if (!file.error().empty()) {
            report_unreadable(name, file.error(), include);
            return;
        }
        parse(add_source(name, std::move(text)), file.identity());
    }

    void report_unreadable(const std::string& name, const std::string& error, const Place* include)
    {
        reading_.is_whole = false;
        if (include != nullptr) {
            reading_.problems.add_error(*include, "'" + name + "' cannot be read: " + error);
        } else {
            reading_.problems.add_error({add_source(name, ""), 1, 1}, "cannot read: " + error);
        }
    }

    std::uint32_t add_source(const std::string& name, std::string text)
    {
        reading_.sources.push_back({name, std::move(text), false});
        trees_.emplace_back();
        return static_cast<std::uint32_t>(reading_.sources.size() - 1);
    }

    void parse(std::uint32_t source, const GraphFile::Identity& identity)
    {
        const Source& file = reading_.sources[source];
        std::optional<toml::table> tree = parse_toml(file.text, source, reading_.problems);
        if (!tree) {
            reading_.is_whole = false;
            return;
        }
        FileHead head = read_head(*tree, source, reading_.problems);
        if (!head.is_supported) {
            reading_.is_whole = false;
            return;
        }
        has_all_includes_ = has_all_includes_ && head.has_all_includes;
        trees_[source] = std::move(*tree);
        is_open_[identity] = true;
        open_.push_back({source, identity, std::filesystem::path(file.name).parent_path(),
                         std::move(head.includes), 0});
    }

    Reading& reading_;
    IPatience* patience_;
    std::vector<toml::table> trees_;  // by source
    std::vector<OpenFile> open_;      // each is included by the one before it
    // The files that were met, and whether they are among the open ones.
    std::map<GraphFile::Identity, bool> is_open_;
    std::vector<std::uint32_t> merge_order_;  // of sources
    bool has_all_includes_ = true;            // false: one is no name or a key is misspelt
};

}  // namespace

Reading read_graph(const std::vector<std::string>& files,
                   const std::vector<std::string>& assignments, IPatience* patience)
{
    if (files.empty()) {
        throw std::invalid_argument("there is no graph file");
    }
    std::vector<std::string> targets;
    targets.reserve(assignments.size());
    for (const std::string& assignment : assignments) {
        targets.push_back(target_of(assignment));
    }

    Reading reading;
    FileReader reader(reading, patience);
    for (const std::string& file : files) {
        reader.read(file);
    }
    reading.description = reader.describe();
    if (reading.description.name.empty()) {
        reading.description.name = name_of_file(files.front());
    }
    for (std::size_t i = 0; i < assignments.size(); ++i) {
        const auto source = static_cast<std::uint32_t>(reading.sources.size());
        reading.sources.push_back({"--set " + targets[i], "", true});
        for (Assignment& assignment : read_assignment(assignments[i], source, reading.problems)) {
            reading.description.assignments.push_back(std::move(assignment));
        }
    }
    return reading;
}

}  // namespace Quorval::runtime
