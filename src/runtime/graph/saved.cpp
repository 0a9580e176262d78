#include "graph/saved.h"

#include <quorval/config.h>
#include <quorval/runtime/config_files.h>
#include "graph/state.h"
#include "graph/values.h"

#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Quorval::runtime {

namespace {

constexpr const char* kFile = "overrides";

[[noreturn]] void throw_not_readable(const std::string& why)
{
    throw std::runtime_error("the saved changes cannot be read: " + why);
}

[[noreturn]] void throw_in_the_way(const std::string& directory)
{
    throw std::runtime_error("the changes cannot be saved: block '" + std::string(kFile) +
                             "' keeps its state in '" + directory + "/'");
}

std::string folder(const std::string& directory)
{
    return directory + (directory.back() == '/' ? "" : "/");
}

/// What a process left that was killed while it saved. The directory belongs to one run at a time.
void remove_left_files(const std::string& directory)
{
    const std::string begin = "." + std::string(kFile) + ".";
    std::vector<std::filesystem::path> left;
    std::error_code error;
    for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
         at.increment(error)) {
        if (at->path().filename().string().rfind(begin, 0) == 0) {
            left.push_back(at->path());
        }
    }
    for (const std::filesystem::path& file : left) {
        std::filesystem::remove(file, error);
    }
}

/// "block.<n>.path" is the path of a block, "block.<n>.set.<key>" the values of its keys.
BlockConfiguration to_config(const std::vector<Assignment>& values)
{
    BlockConfiguration config;
    int count = -1;
    const std::string* path = nullptr;
    for (const Assignment& one : values) {
        if (path == nullptr || *path != one.path) {
            path = &one.path;
            config.set("block." + std::to_string(++count) + ".path", one.path);
        }
        set_value(config, "block." + std::to_string(count) + ".set." + one.setting.key,
                  one.setting.value);
    }
    return config;
}

std::vector<Assignment> to_values(const BlockConfiguration& config)
{
    std::vector<Assignment> values;
    for (int block = 0;; ++block) {
        const std::string prefix = "block." + std::to_string(block);
        const std::string path = config.getString(prefix + ".path", "");
        if (path.empty()) {
            return values;
        }
        const BlockConfiguration set = config.getSubtree(prefix + ".set");
        for (const std::string& key : keys_of(set)) {
            Assignment one{path, {key, get_value(set, key), false, {}, {}, {}, true}};
            values.push_back(std::move(one));
        }
    }
}

}  // namespace

std::string saved_file(const std::string& directory)
{
    return folder(directory) + kFile;
}

std::vector<Assignment> read_saved(const std::string& directory)
{
    std::error_code error;
    const auto type = std::filesystem::status(saved_file(directory), error).type();
    if (type == std::filesystem::file_type::not_found) {
        return {};
    }
    // A block of this name has a directory here.
    if (type == std::filesystem::file_type::directory) {
        return {};
    }
    const StoreContent content = read_store_file(saved_file(directory));
    if (!content.damage.empty()) {
        throw_not_readable(content.damage);
    }
    return to_values(content.config);
}

void write_saved(const std::string& directory, const std::vector<Assignment>& values)
{
    make_state_directory(folder(directory));
    std::error_code error;
    if (std::filesystem::is_directory(saved_file(directory), error)) {
        throw_in_the_way(saved_file(directory));
    }
    remove_left_files(directory);
    write_store_file(saved_file(directory), to_config(values));
}

void insert_saved(Reading& reading, const std::string& file, const std::vector<Assignment>& saved)
{
    if (saved.empty()) {
        return;
    }
    const auto source = static_cast<std::uint32_t>(reading.sources.size());
    reading.sources.push_back({file, "", true});
    std::vector<Assignment>& all = reading.description.assignments;
    all.insert(all.begin(), saved.begin(), saved.end());
    for (std::size_t at = 0; at < saved.size(); ++at) {
        all[at].setting.key_place = {source, 0, 0};
        all[at].setting.value_place = {source, 0, 0};
    }
}

}  // namespace Quorval::runtime
