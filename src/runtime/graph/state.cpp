#include "graph/state.h"

#include "plugins/search.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace Quorval::runtime {

namespace {

[[noreturn]] void throw_in_use(const std::string& directory)
{
    throw std::runtime_error("the state directory '" + directory + "' is in use");
}

}  // namespace

std::string find_state_directory(const std::string& given)
{
    std::string directory = given;
    if (directory.empty()) {
        const char* list = std::getenv("STATE_DIRECTORY");
        const std::vector<std::string> directories = split_path(list != nullptr ? list : "");
        directory = directories.empty() ? "" : directories.front();
    }
    if (directory.empty()) {
        return directory;
    }
    directory = std::filesystem::absolute(directory).lexically_normal().string();
    if (directory.size() > 1 && directory.back() == '/') {
        directory.pop_back();
    }
    return directory;
}

std::string state_directory_of(const std::string& directory, const std::string& path)
{
    std::string name = path;
    std::replace(name.begin(), name.end(), '/', '.');
    return directory + (directory.back() == '/' ? "" : "/") + name + "/";
}

void make_state_directory(const std::string& directory)
{
    constexpr mode_t kOwnerAlone = 0700;
    for (std::size_t end = directory.find('/', 1); end != std::string::npos;
         end = directory.find('/', end + 1)) {
        const std::string part = directory.substr(0, end);
        struct stat status {};
        if (::mkdir(part.c_str(), kOwnerAlone) == 0 ||
            (errno == EEXIST && ::stat(part.c_str(), &status) == 0 && S_ISDIR(status.st_mode))) {
            continue;
        }
        const int number = errno == EEXIST ? ENOTDIR : errno;
        throw std::system_error(number, std::generic_category(), part);
    }
}

StateLock::StateLock(const std::string& directory)
{
    if (directory.empty()) {
        return;
    }
    try {
        make_state_directory(directory + "/");
    } catch (const std::system_error&) {
        return;
    }
    fd_ = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ >= 0 && ::flock(fd_, LOCK_EX | LOCK_NB) < 0 && errno == EWOULDBLOCK) {
        ::close(fd_);
        throw_in_use(directory);
    }
}

StateLock::~StateLock()
{
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

}  // namespace Quorval::runtime
