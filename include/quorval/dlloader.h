// Shared objects that are loaded at run time, and pointers that keep them loaded.
#pragma once

#include <quorval/export.h>

#include <memory>
#include <string>
#include <utility>

namespace Quorval {

/// Holds a shared object open. Held through a std::shared_ptr by all that was made by its code;
/// closed on whatever thread drops the last share.
class QUORVAL_EXPORT DlLoader {
public:
    /// Opens the shared object at `path`, with all symbols resolved at once and none offered to
    /// objects that are loaded later, and logs it at LOGLEVEL_INFO.
    /// @throws std::runtime_error  it cannot be opened; the text is that of dlerror(3)
    explicit DlLoader(const std::string& path);
    DlLoader(const DlLoader&) = delete;
    DlLoader& operator=(const DlLoader&) = delete;
    /// Logs at LOGLEVEL_INFO and closes the shared object.
    ~DlLoader();

    /// The address of a symbol, null when there is none. Valid while the object is open.
    void* get_fn_address(const std::string& name);

    /// The path as it was given.
    const std::string& get_path();

private:
    void* handle_ = nullptr;
    std::string path_;
};

/// Owns an object together with a share of the shared object that holds its code, and destroys
/// the object before it lets go of the code. Move-only.
template <class T>
class UniqueDlPtr {
public:
    /// Holds nothing.
    UniqueDlPtr() = default;
    /// @param lib  may be null for an object whose code cannot be unloaded
    UniqueDlPtr(std::shared_ptr<DlLoader> lib, std::unique_ptr<T> obj)
        : lib_(std::move(lib)), obj_(std::move(obj))
    {
    }

    UniqueDlPtr(UniqueDlPtr&& other) noexcept = default;
    /// Destroys the object that is replaced, then lets go of its code; `other` is left empty. It
    /// may lie in the object that is replaced: `first = std::move(first->next)`.
    UniqueDlPtr& operator=(UniqueDlPtr&& other) noexcept
    {
        // Goes at the end, with what is replaced.
        UniqueDlPtr taken(std::move(other));
        lib_.swap(taken.lib_);
        obj_.swap(taken.obj_);
        return *this;
    }
    UniqueDlPtr(const UniqueDlPtr&) = delete;
    UniqueDlPtr& operator=(const UniqueDlPtr&) = delete;
    ~UniqueDlPtr() = default;

    /// The object, null when there is none. Stays owned by this pointer.
    T* get() const noexcept { return obj_.get(); }
    T* operator->() const noexcept { return obj_.get(); }
    T& operator*() const { return *obj_; }
    explicit operator bool() const noexcept { return obj_ != nullptr; }

private:
    // In this order: members are destroyed from the last to the first, so the object goes before
    // its code.
    std::shared_ptr<DlLoader> lib_;
    std::unique_ptr<T> obj_;
};

}  // namespace Quorval
