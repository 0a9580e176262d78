#include <quorval/pstore.h>
#include "store/path.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace Quorval {

namespace {

/// Puts the exception mask of a caller back in place. Does so before it complains about the state
/// of the stream, which is of no interest here.
void restore_exceptions(std::ios& stream, std::ios::iostate mask)
{
    try {
        stream.exceptions(mask);
    } catch (const std::ios_base::failure&) {
        // The state that the caller is told of already.
    }
}

}  // namespace

PIFStream::PIFStream(const std::filesystem::path& path, const std::string& filename)
    : path_(path), filename_(filename)
{
    open(join_path(path_.native(), filename_), std::ios::in | std::ios::binary);
}

PIFStream::PIFStream(PIFStream&& other) : path_(other.path_), filename_(other.filename_)
{
    std::ifstream::swap(other);
}

PIFStream::~PIFStream() = default;

void PIFStream::open(const std::filesystem::path& file, std::ios::openmode mode)
{
    const std::ios::iostate mask = exceptions();
    const bool was_open = is_open();
    clear();
    try {
        exceptions(std::ios::badbit | std::ios::failbit);
        if (rdbuf()->open(file.c_str(), mode | std::ios::in) == nullptr) {
            setstate(std::ios::failbit);
        }
    } catch (...) {
        // Without memory for its buffer, the standard library leaves the file open.
        if (!was_open) {
            rdbuf()->close();
        }
        restore_exceptions(*this, mask);
        throw;
    }
    restore_exceptions(*this, mask);
}

}  // namespace Quorval
