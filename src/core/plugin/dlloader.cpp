#include "quorval/dlloader.h"

#include <quorval/log.h>

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace Quorval {

namespace {

void log_event(const char* event, const std::string& path)
{
    ilog(LOGLEVEL_INFO) << "DlLoader: " << event << " library '" << path << "'.";
}

struct Close {
    void operator()(void* handle) const { ::dlclose(handle); }
};

}  // namespace

DlLoader::DlLoader(const std::string& path) : path_(path)
{
    std::unique_ptr<void, Close> handle(::dlopen(path_.c_str(), RTLD_NOW));
    // The text decides, not the handle: code that runs while the object is loaded can leave one.
    if (const char* error = ::dlerror()) {
        throw std::runtime_error(error);
    }
    log_event("Loaded", path_);
    handle_ = handle.release();
}

DlLoader::~DlLoader()
{
    if (handle_ != nullptr) {
        log_event("Unloaded", path_);
        ::dlclose(handle_);
    }
}

void* DlLoader::get_fn_address(const std::string& name)
{
    return ::dlsym(handle_, name.c_str());
}

const std::string& DlLoader::get_path()
{
    return path_;
}

}  // namespace Quorval
