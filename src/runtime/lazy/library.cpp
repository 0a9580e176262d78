#include "lazy/library.h"

#include <dlfcn.h>

#include <stdexcept>

namespace Quorval::runtime {

Library::Library(const char* name) : name_(name), handle_(::dlopen(name, RTLD_NOW | RTLD_LOCAL))
{
    if (handle_ == nullptr) {
        const char* text = ::dlerror();  // NOLINT(concurrency-mt-unsafe): it is one of the thread
        throw std::runtime_error(name_ + " cannot be loaded: " + (text != nullptr ? text : ""));
    }
}

void* Library::find_symbol(const char* symbol) const
{
    void* const found = ::dlsym(handle_, symbol);
    if (found == nullptr) {
        throw std::runtime_error(name_ + " has no " + symbol);
    }
    return found;
}

}  // namespace Quorval::runtime
