#include <quorval/pstore.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace Quorval {

namespace {

constexpr const char* kTemporarySuffix = ".tmp";

[[noreturn]] void refuse(const char* reason, const std::string& name)
{
    throw std::runtime_error(reason + name);
}

/// Reports a failed system call.
void check(bool succeeded, const char* failure, const std::string& name = "")
{
    if (!succeeded) {
        const int error = errno;
        throw std::system_error(error, std::system_category(), failure + name);
    }
}

bool get_status(const std::string& name, struct stat& status)
{
    return ::stat(name.c_str(), &status) == 0;
}

/// Makes a missing directory. One that cannot be made shows in the second look.
void check_directory(const std::string& path)
{
    constexpr mode_t kDirectoryMode = 0775;
    struct stat status = {};
    if (!get_status(path, status)) {
        ::mkdir(path.c_str(), kDirectoryMode);
        if (!get_status(path, status)) {
            refuse("Failed to stat directory: ", path);
        }
    }
    if (!S_ISDIR(status.st_mode)) {
        refuse("Failed to verify path is a directory: ", path);
    }
}

/// Whether the file exists.
bool check_file(const std::string& file)
{
    struct stat status = {};
    if (!get_status(file, status)) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        refuse("Failed to verify file is a file: ", file);
    }
    return true;
}

/// Directory and file name are joined as they are: without a "/" at the end of the directory, other
/// files are looked at here than the commit replaces. Every store in use has the "/", and a check
/// that inserted it would remove files of other names than before, so it stays.
/// Held by POFStreamCheck.JoinsDirectoryAndFileNameAsTheyAre.
void check_target(const std::string& path, const std::string& filename)
{
    if (path.empty()) {
        refuse("Failed due to unset path", "");
    }
    if (filename.empty()) {
        refuse("Failed due to unset filename", "");
    }
    if (path.front() != '/') {
        refuse("Failed due to path not being absolute: ", path);
    }
    check_directory(path);

    const std::string file = path + filename;
    check_file(file);
    const std::string temporary = file + kTemporarySuffix;
    if (check_file(temporary) && ::unlink(temporary.c_str()) < 0) {
        refuse("Failed to remove temporary file: ", temporary);
    }
}

/// Writes the content beside the file, then puts it in the place of the file.
///
/// A failure undoes nothing: descriptors stay open and the temporary file stays, where one would
/// expect both to go. Undoing can fail in turn and hide the first error; a retry opens descriptors
/// of its own, and its check removes the file. It stays as long as callers count on that.
/// Held by POFStreamCommit.LeavesDescriptorsOpenAndTheTemporaryFileAfterAFailure.
void commit(const std::string& path, const std::string& filename, std::string_view content)
{
    constexpr mode_t kFileMode = 0600;
    const std::string temporary = filename + kTemporarySuffix;

    const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY);
    check(directory >= 0, "Failed to open directory: ", path);
    const int file = ::openat(directory, temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC, kFileMode);
    check(file >= 0, "Failed to open: ", temporary);

    // A short count is neither tried again nor reported, where one would expect either: the file
    // is then replaced by a cut one. The reader tells most cuts by their short reads; writing on
    // would promise more than one call can hold on a full disk. So it stays.
    // Held by POFStreamCommit.ReplacesTheFileByWhatAShortWriteTook.
    check(::write(file, content.data(), content.size()) >= 0, "Failed to write: ", temporary);
    check(::fsync(file) >= 0, "Failed fsync: ", temporary);
    check(::close(file) >= 0, "Failed close: ", temporary);

    // The step that failed is renameat; the text says linkat. Callers match on the text, so it
    // stays. Held by POFStreamCommit.NamesLinkatWhenTheRenameFails.
    check(::renameat(directory, temporary.c_str(), directory, filename.c_str()) >= 0,
          "Failed on call to linkat");
    // Only with this is the rename itself on the disk.
    check(::fsync(directory) == 0, "Failed on call to fsync");
    check(::close(directory) == 0, "Failed on call to close");
}

}  // namespace

POFStream::POFStream(const std::string& path, const std::string& filename)
    : std::ostream(nullptr), path_(path), filename_(filename), buffer_(std::ios::in | std::ios::out)
{
    open(filename, std::ios::out | std::ios::trunc | std::ios::binary);
}

// The content stays behind and the buffer is not attached, where one would expect both to move: a
// stream that carries data is made in place, and a moved one only says where data would go.
// Held by POFStreamMove.TakesTheTargetAndLeavesTheContent.
POFStream::POFStream(POFStream&& other)
    : std::ostream(nullptr),
      path_(other.path_),
      filename_(other.filename_),
      buffer_(std::ios::in | std::ios::out)
{
    std::ostream::swap(other);
}

POFStream::~POFStream() = default;

void POFStream::open(const std::string& filename, std::ios::openmode mode)
{
    open(filename.c_str(), mode);
}

// The name is checked and then forgotten, and the mode is not looked at: close() replaces the file
// that was named at construction. To store the name would redirect streams that are in use, so it
// stays. Held by POFStreamOpen.ChecksTheNameButKeepsTheTarget.
void POFStream::open(const char* filename, std::ios::openmode /*mode*/)
{
    check_target(path_, std::string(filename));
    rdbuf(&buffer_);
}

void POFStream::close()
{
    check_target(path_, filename_);
    commit(path_, filename_, buffer_.view());
    path_.clear();
    filename_.clear();
}

}  // namespace Quorval
