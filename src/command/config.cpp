// quorval config: store files, shown and changed.
#include <quorval/config.h>
#include <quorval/runtime/config_files.h>
#include <quorval/runtime/diagnostic.h>
#include <quorval/runtime/suggest.h>
#include "command.h"
#include "command_line.h"
#include "diagnostics.h"
#include "output.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Quorval::StoreContent;
using Type = BlockConfiguration::Type;

/// A store file is wrong.
class StoreError : public std::runtime_error {
public:
    StoreError(std::string file, const std::string& text)
        : std::runtime_error(text), file_(std::move(file))
    {
    }

    const std::string& file() const { return file_; }

private:
    std::string file_;
};

// ---- Files ----

std::string damage_text(const StoreContent& content)
{
    return "the file is damaged: " + content.damage;
}

/// Reads what can be read.
StoreContent read_some(const std::string& file)
{
    try {
        return Quorval::read_store_file(file);
    } catch (const std::runtime_error& error) {
        throw StoreError(file, error.what());
    }
}

void refuse_damage(const std::string& file, const StoreContent& content)
{
    if (!content.damage.empty()) {
        throw StoreError(file, damage_text(content));
    }
}

BlockConfiguration read_whole(const std::string& file)
{
    StoreContent content = read_some(file);
    refuse_damage(file, content);
    return std::move(content.config);
}

void write(const std::string& file, const BlockConfiguration& config)
{
    try {
        Quorval::write_store_file(file, config);
    } catch (const std::exception& error) {
        throw std::runtime_error("'" + file + "' cannot be written: " + error.what());
    }
}

// ---- Keys ----

std::vector<std::string> keys_of(const BlockConfiguration& config)
{
    std::vector<std::string> keys;
    for (const auto element = config.iterate(""); !element->is_end(); element->advance()) {
        keys.push_back(element->key());
    }
    return keys;
}

[[noreturn]] void throw_no_key(const std::string& file, const std::string& key,
                               const std::vector<std::string>& keys)
{
    const std::string near = Quorval::find_near(key, keys);
    throw StoreError(file, "there is no key '" + key + "'" +
                               (near.empty() ? "" : "; did you mean '" + near + "'?"));
}

/// Copies an element.
void copy(const BlockConfiguration& from, const std::string& key, BlockConfiguration& to)
{
    switch (from.getType(key)) {
        case Type::Int:
            return to.set(key, from.getInt(key));
        case Type::Bool:
            return to.set(key, from.getBool(key));
        case Type::Double:
            return to.set(key, from.getDouble(key));
        case Type::String:
            return to.set(key, from.getString(key));
        case Type::IntVector:
            return to.set(key, from.getIntVector(key));
        case Type::DoubleVector:
            return to.set(key, from.getDoubleVector(key));
        case Type::StringVector:
            return to.set(key, from.getStringVector(key));
        case Type::BoolVector:
            return to.set(key, from.getBoolVector(key));
    }
}

bool is_at_or_below(const std::string& key, const std::string& top)
{
    return key == top || key.rfind(top + ".", 0) == 0;
}

/// `config` without a key and all below it. BlockConfiguration::delete_element() would also remove
/// keys that have a full stop where the key would end.
BlockConfiguration without(const BlockConfiguration& config, const std::string& file,
                           const std::string& top)
{
    const std::vector<std::string> keys = keys_of(config);
    BlockConfiguration rest;
    bool has_removed = false;
    for (const std::string& key : keys) {
        if (is_at_or_below(key, top)) {
            has_removed = true;
        } else {
            copy(config, key, rest);
        }
    }
    if (!has_removed) {
        throw_no_key(file, top, keys);
    }
    return rest;
}

// ---- What is done ----

struct Request {
    std::vector<std::string> operands;
    bool is_raw = false;
};

/// Ends what shows all that can be read of a file.
int tell_damage(const std::string& file, const StoreContent& content)
{
    refuse_damage(file, content);
    return kDone;
}

int show(const Request& request)
{
    const std::string& file = request.operands[0];
    const StoreContent content = read_some(file);
    std::ostringstream text;
    text << content.config;
    write_output(text.str());
    return tell_damage(file, content);
}

int export_file(const Request& request)
{
    const std::string& file = request.operands[0];
    const StoreContent content = read_some(file);
    try {
        write_output(Quorval::to_toml(content.config));
    } catch (const std::invalid_argument& error) {
        throw StoreError(file, error.what());
    }
    return tell_damage(file, content);
}

int get(const Request& request)
{
    const std::string& file = request.operands[0];
    const std::string& key = request.operands[1];
    const BlockConfiguration config = read_whole(file);
    const std::vector<std::string> keys = keys_of(config);
    if (!std::binary_search(keys.begin(), keys.end(), key)) {
        throw_no_key(file, key, keys);
    }
    try {
        const bool is_bare = request.is_raw && config.getType(key) == Type::String;
        write_output((is_bare ? config.getString(key) : Quorval::to_toml_value(config, key)) +
                     "\n");
    } catch (const std::invalid_argument& error) {
        throw StoreError(file, error.what());
    }
    return kDone;
}

BlockConfiguration read_assignment(const std::string& text)
{
    try {
        return Quorval::read_toml_assignment(text);
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    } catch (const Quorval::GraphError& error) {
        throw UsageError(error.diagnostics().front().text);
    }
}

int set(const Request& request)
{
    const std::string& file = request.operands[0];
    BlockConfiguration changes;
    for (std::size_t i = 1; i < request.operands.size(); ++i) {
        changes += read_assignment(request.operands[i]);
    }
    std::error_code error;
    const bool is_new = std::filesystem::symlink_status(file, error).type() ==
                        std::filesystem::file_type::not_found;
    write(file, (is_new ? BlockConfiguration() : read_whole(file)) + changes);
    return kDone;
}

int unset(const Request& request)
{
    const std::string& file = request.operands[0];
    BlockConfiguration config = read_whole(file);
    for (std::size_t i = 1; i < request.operands.size(); ++i) {
        config = without(config, file, request.operands[i]);
    }
    write(file, config);
    return kDone;
}

int import_file(const Request& request)
{
    try {
        write(request.operands[1], Quorval::read_toml_file(request.operands[0]));
        return kDone;
    } catch (const Quorval::GraphError& error) {
        show_diagnostics(error.diagnostics());
        return kWrongGraph;
    }
}

/// A line for each element, by key.
std::map<std::string, std::string> lines_of(const BlockConfiguration& config)
{
    std::map<std::string, std::string> lines;
    for (const std::string& key : keys_of(config)) {
        lines[key] = key + " (" + config.getTypeName(key) +
                     ") = " + Quorval::describe_value(config, key) + "\n";
    }
    return lines;
}

int diff(const Request& request)
{
    const auto before = lines_of(read_whole(request.operands[0]));
    const auto after = lines_of(read_whole(request.operands[1]));
    auto all = before;
    all.insert(after.begin(), after.end());
    std::string text;
    for (const auto& [key, line] : all) {
        const auto removed = before.find(key);
        const auto added = after.find(key);
        if (removed != before.end() && added != after.end() && removed->second == added->second) {
            continue;
        }
        if (removed != before.end()) {
            text += "-" + removed->second;
        }
        if (added != after.end()) {
            text += "+" + added->second;
        }
    }
    write_output(text);
    return text.empty() ? kDone : kFailed;
}

// ---- The command line ----

constexpr std::size_t kAny = std::numeric_limits<std::size_t>::max();

struct Action {
    const char* name;
    const char* operands;
    std::size_t fewest;
    std::size_t most;
    const char* summary;
    int (*run)(const Request&);
};

constexpr std::array<Action, 7> kActions = {{
    {"show", "FILE", 1, 1, "print what a store file holds", show},
    {"get", "FILE KEY", 2, 2, "print one value, as TOML", get},
    {"set", "FILE KEY=VALUE...", 2, kAny, "set values; makes the file where there is none", set},
    {"unset", "FILE KEY...", 2, kAny, "remove keys, and all below them", unset},
    {"diff", "A B", 2, 2, "print how B differs from A", diff},
    {"import", "TOML FILE", 2, 2, "replace a store file by what a file of TOML says", import_file},
    {"export", "FILE", 1, 1, "print a store file as TOML", export_file},
}};

constexpr std::size_t kActionWidth = 28;

HelpText help_of_config()
{
    std::string actions = "Actions:\n";
    for (const Action& action : kActions) {
        std::string line = std::string("  ") + action.name + " " + action.operands;
        line.resize(kActionWidth, ' ');
        actions += line + action.summary + "\n";
    }
    return {"quorval config ACTION [OPTION...] FILE...",
            "Shows and changes store files, the files in which blocks keep their state.",
            actions +
                "\n"
                "VALUE is a value of TOML; what is none is taken as a string. A file is\n"
                "replaced as a whole or stays as it was.\n"
                "\n"
                "Exit status:\n"
                "  0  done; of 'diff': the files are the same\n"
                "  1  a file or output could not be written; of 'diff': the files differ\n"
                "  2  wrong use of the command line\n"
                "  3  a file cannot be read, is damaged, or has no such key\n"
                "\n"
                "Example:\n"
                "  quorval config set /var/lib/quorval/loudness/left.gain/state factor=0.5"};
}

const Action& find_action(const std::string& name)
{
    const auto* const found =
        std::find_if(kActions.begin(), kActions.end(),
                     [&](const Action& action) { return action.name == name; });
    if (found == kActions.end()) {
        std::vector<std::string> names;
        std::transform(kActions.begin(), kActions.end(), std::back_inserter(names),
                       [](const Action& action) { return action.name; });
        throw_unknown("action", name, names);
    }
    return *found;
}

void check_operands(const Action& action, const Request& request)
{
    const std::vector<std::string>& operands = request.operands;
    if (operands.size() < action.fewest) {
        throw UsageError(std::string("'config ") + action.name + "' needs " + action.operands);
    }
    refuse_more_than(action.most, operands);
    if (request.is_raw && action.run != get) {
        throw UsageError("'--raw' is for 'config get' alone");
    }
}

int run(const Action& action, const Request& request)
{
    try {
        return action.run(request);
    } catch (const StoreError& error) {
        show_diagnostics({{error.file(), 0, 0, true, to_printable(error.what()), ""}});
        return kWrongGraph;
    }
}

}  // namespace

int config_command(const Arguments& arguments)
{
    CommandLine line(help_of_config());
    Request request;
    line.add_flag("--raw", request.is_raw, "of 'get': print a string bare");
    auto operands = line.read(arguments);
    if (!operands.has_value()) {
        return kDone;
    }
    if (operands->empty()) {
        throw UsageError("an action is missing; 'quorval config --help' lists them");
    }
    const Action& action = find_action(operands->front());
    request.operands.assign(std::next(operands->begin()), operands->end());
    check_operands(action, request);
    return run(action, request);
}
