#include "process_map.h"

#include <dlfcn.h>

#include <fstream>
#include <stdexcept>

#if defined(__SANITIZE_THREAD__)
#define QUORVAL_TEST_WITH_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QUORVAL_TEST_WITH_THREAD_SANITIZER
#endif
#endif

#ifdef QUORVAL_TEST_WITH_THREAD_SANITIZER
// The dynamic loader guards its memory with a lock that the sanitizer does not see. Its reports
// would also map the plug-in again, to read its debug information.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that the sanitizer calls
extern "C" const char* __tsan_default_suppressions()
{
    return "called_from_lib:ld-linux\n";
}
#endif

namespace quorval_test {

std::string fixture_dir()
{
    return QUORVAL_FIXTURE_DIR;
}

std::string fixture_path(const std::string& filename)
{
    const std::string path = fixture_dir() + "/" + filename;
    if (!std::filesystem::is_regular_file(path)) {
        throw std::runtime_error("the fixture " + path + " is missing");
    }
    return path;
}

bool is_mapped(const std::filesystem::path& file)
{
    const std::string path = std::filesystem::canonical(file).string();
    std::ifstream maps("/proc/self/maps");
    if (!maps) {
        throw std::runtime_error("cannot read the map of the process");
    }
    for (std::string line; std::getline(maps, line);) {
        if (line.size() >= path.size() &&
            line.compare(line.size() - path.size(), path.size(), path) == 0) {
            return true;
        }
    }
    return false;
}

std::string platform_error(const std::string& path)
{
    void* const handle = ::dlopen(path.c_str(), RTLD_NOW);
    const char* const error = ::dlerror();
    const std::string text = error != nullptr ? error : "";
    if (handle != nullptr) {
        ::dlclose(handle);
    }
    return text;
}

}  // namespace quorval_test
