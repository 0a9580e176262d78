// Store files: how far they can be read, and how they are replaced.
#include <quorval/config.h>
#include <quorval/pstore.h>
#include <quorval/runtime/config_files.h>
#include <quorval/state.h>
#include "description/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace Quorval {

namespace {

namespace fs = std::filesystem;

using Count = std::uint64_t;

/// Steps over the records of a binary form that a configuration could be read from: nothing in it
/// is wrong, but its end may be cut.
class RecordWalker {
public:
    explicit RecordWalker(std::string_view bytes) : rest_(bytes) {}

    /// How many bytes are left behind the last whole record.
    std::size_t walk()
    {
        std::size_t left = rest_.size();
        while (skip_record()) {
            left = rest_.size();
        }
        return left;
    }

private:
    bool skip_record()
    {
        std::string_view key;
        std::string_view type;
        return take_text(key) && take_text(type) && skip_value(type);
    }

    bool skip_value(std::string_view type)
    {
        const auto is_it = [type](const Size& size) { return size.type == type; };
        const auto* const found = std::find_if(kSizes.begin(), kSizes.end(), is_it);
        Count count = 1;
        if (found == kSizes.end() || (found->is_list && !take_count(count))) {
            return false;
        }
        std::string_view item;
        for (; found->bytes == 0 && count > 0; --count) {
            if (!take_text(item)) {
                return false;
            }
        }
        return count <= rest_.size() && take(count * found->bytes, item);
    }

    bool take(Count size, std::string_view& bytes)
    {
        if (size > rest_.size()) {
            return false;
        }
        bytes = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return true;
    }

    bool take_count(Count& count)
    {
        std::string_view bytes;
        if (!take(sizeof count, bytes)) {
            return false;
        }
        std::memcpy(&count, bytes.data(), sizeof count);
        return true;
    }

    bool take_text(std::string_view& text)
    {
        Count size = 0;
        return take_count(size) && take(size, text);
    }

    struct Size {
        std::string_view type;
        std::size_t bytes;  // of one item; 0: each has its size in front of it
        bool is_list;
    };

    static constexpr std::array<Size, 8> kSizes = {{{"int", 4, false},
                                                    {"bool", 1, false},
                                                    {"double", 8, false},
                                                    {"string", 0, false},
                                                    {"IntVector", 4, true},
                                                    {"DoubleVector", 8, true},
                                                    {"StringVector", 0, true},
                                                    {"BoolVector", 1, true}}};

    std::string_view rest_;
};

std::string read_bytes(const std::string& file)
{
    runtime::GraphFile opened(file);
    std::string bytes = opened.error().empty() ? opened.read() : "";
    if (!opened.error().empty()) {
        throw std::runtime_error("cannot read: " + opened.error());
    }
    return bytes;
}

/// Why a configuration could not be read to its end; empty where it could.
std::string read_config(const std::string& bytes, BlockConfiguration& config)
{
    std::istringstream in(bytes, std::ios::in | std::ios::binary);
    try {
        in >> config;
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

void check(bool succeeded, const std::string& text)
{
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), text);
    }
}

/// A file that is written whole before it takes the name of another one. Goes away with this object
/// unless it took that name.
class Replacement {
public:
    explicit Replacement(fs::path target)
        : target_(std::move(target)),
          name_("." + target_.filename().string() + "." + std::to_string(::getpid())),
          path_(target_.parent_path() / name_)
    {
        if (!target_.has_filename()) {
            throw std::runtime_error("the name of a file is missing");
        }
        has_former_ = ::stat(target_.c_str(), &former_) == 0;
        if (has_former_ && !S_ISREG(former_.st_mode)) {
            throw std::runtime_error("not a regular file");
        }
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;
    ~Replacement()
    {
        ::unlink(path_.c_str());
        ::unlink((path_.string() + ".tmp").c_str());
    }

    void write(const BlockConfiguration& config) const
    {
        POFStream out((target_.parent_path() / "").string(), name_);
        out << config;
        const auto size = static_cast<std::uintmax_t>(out.tellp());
        out.close();
        if (fs::file_size(path_) != size) {
            throw std::runtime_error("there is no room for it");
        }
    }

    /// Takes the name over, for a file that is written.
    void commit() const
    {
        if (has_former_ && ::geteuid() == 0) {
            check(::lchown(path_.c_str(), former_.st_uid, former_.st_gid) == 0, "chown");
        }
        check(::rename(path_.c_str(), target_.c_str()) == 0, "rename");
        const int folder =
            ::open(target_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        check(folder >= 0, "open");
        const bool is_synced = ::fsync(folder) == 0;
        const int error = errno;
        ::close(folder);
        errno = error;
        check(is_synced, "fsync");
    }

private:
    fs::path target_;
    std::string name_;  // of this process alone
    fs::path path_;
    struct stat former_ {};
    bool has_former_ = false;
};

}  // namespace

StoreContent read_store_file(const std::string& file)
{
    const std::string bytes = read_bytes(file);
    StoreContent content;
    content.damage = read_config(bytes, content.config);
    const std::size_t left = content.damage.empty() ? RecordWalker(bytes).walk() : 0;
    if (left > 0) {
        content.damage = std::to_string(left) + " bytes after the last whole record";
    }
    if (content.damage.empty()) {
        content.damage = find_state_damage(content.config);
    }
    return content;
}

void write_store_file(const std::string& file, const BlockConfiguration& config)
{
    const Replacement replacement(fs::weakly_canonical(fs::absolute(file)));
    const int version = get_state_version(config);
    replacement.write(version > 0 ? seal_state(config, version) : config);
    replacement.commit();
}

}  // namespace Quorval
