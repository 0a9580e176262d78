// The store directory in which a block keeps its state, and the streams on the files in it.
#pragma once

#include <quorval/config.h>
#include <quorval/export.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>

namespace Quorval {

/// An output stream that gathers its content in memory and replaces the file in close(). A reader,
/// and a machine that lost its power, finds the content of before or the one that was written to
/// the disk, never a mix. One thread at a time.
///
/// **The new file can be cut without a report**: close() writes with one call and does not look at
/// how much of the content that took. On a disk that is nearly full, past RLIMIT_FSIZE, and beyond
/// 2 GiB, the file is replaced by the beginning of the content. Who has to know compares the size
/// of the file with that of the content, or loads what was stored; docs/store-files.md says how.
///
/// The target is checked at construction, by open() and by close(). The check makes a missing
/// directory (one level, mode 0775; its parent is not synced) and removes a temporary file that an
/// earlier attempt left, also for a stream that is never closed. It throws std::runtime_error:
/// - the directory is empty: "Failed due to unset path"
/// - the file name is empty: "Failed due to unset filename"
/// - the directory does not begin with "/": "Failed due to path not being absolute: <path>"
/// - the directory is missing and cannot be made: "Failed to stat directory: <path>"
/// - it is no directory: "Failed to verify path is a directory: <path>"
/// - the file or the temporary file is no regular file: "Failed to verify file is a file: <file>"
/// - a left temporary file cannot be removed: "Failed to remove temporary file: <file>"
///
/// The temporary file is that of all streams on the same file. While one of them is in close(), no
/// other may be closed, opened or made: its check removes the temporary file. Nobody else may have
/// the right to write into the directory: a link in the place of the temporary file that leads to
/// no file is followed.
class QUORVAL_EXPORT POFStream : public std::ostream {
public:
    /// Checks the target, with the exceptions of the check.
    /// @param path      the directory, absolute, with a "/" at its end: the check joins the two
    ///                  names as they are
    /// @param filename  the name of the file in that directory
    POFStream(const std::string& path, const std::string& filename);

    /// Takes the names of the target and the state of the stream alone: what was written into
    /// `other` stays there. The new stream has no buffer: write nothing to it before open().
    /// `other` has badbit set: text that is written to it before open() vanishes, and close()
    /// succeeds without it. Make a stream that is to carry data in place.
    POFStream(POFStream&& other);
    POFStream(const POFStream&) = delete;
    POFStream& operator=(const POFStream&) = delete;
    POFStream& operator=(POFStream&&) = delete;

    /// Discards what was not closed; an existing file stays as it is.
    ~POFStream() override;

    /// Checks `filename` as a target, with the exceptions of the check, then attaches the buffer
    /// and clears the state of the stream. close() still replaces the file that was named at
    /// construction; `mode` has no effect.
    void open(const std::string& filename, std::ios::openmode mode);
    /// @throws std::logic_error  `filename` is null:
    ///     "basic_string: construction from null is not valid"
    void open(const char* filename, std::ios::openmode mode);

    /// Replaces the file by what was written since construction, or by its beginning where there is
    /// no room for all, without a report. The new file has the mode 0600. It is written beside the
    /// old one, synced, renamed, and the directory is synced; the old file stays until the rename.
    /// The state of the stream is not looked at: text that was written while it was not good is
    /// missing. After success the stream has no target any more, so a second close()
    /// fails; the buffer keeps its content.
    ///
    /// A failed close() can be tried again. It leaves the descriptors that it had opened open, and
    /// its temporary file lies in the directory until the next check.
    /// @throws std::runtime_error  the check refuses the target
    /// @throws std::system_error   a system call failed; code() holds its errno: "Failed to open
    ///     directory: <path>", "Failed to open: <file>.tmp", "Failed to write: <file>.tmp",
    ///     "Failed fsync: <file>.tmp", "Failed close: <file>.tmp", "Failed on call to linkat" (the
    ///     rename), "Failed on call to fsync", "Failed on call to close"
    void close();

private:
    std::string path_;
    std::string filename_;
    std::stringbuf buffer_;
};

/// A file input stream whose opening throws instead of failing silently. It is open from the start
/// until close(), or until another stream is made from it. One thread at a time.
class QUORVAL_EXPORT PIFStream : public std::ifstream {
public:
    /// Opens `filename` in the directory `path` for binary reading.
    /// @throws std::ios_base::failure  the file cannot be opened
    PIFStream(const std::filesystem::path& path, const std::string& filename);

    /// Takes the open file over; `other` is left closed.
    PIFStream(PIFStream&& other);
    PIFStream(const PIFStream&) = delete;
    PIFStream& operator=(const PIFStream&) = delete;
    PIFStream& operator=(PIFStream&&) = delete;

    /// Closes the file. Never throws.
    ~PIFStream() override;

    /// Opens `file` for reading and clears the state of the stream. The exception mask of the
    /// caller stays as it was, also when the call throws.
    /// @throws std::ios_base::failure  the file cannot be opened, or the stream is open already
    void open(const std::filesystem::path& file, std::ios::openmode mode);

private:
    std::filesystem::path path_;
    std::string filename_;
};

/// Names a directory and reads and atomically replaces configurations in it. A value: copyable,
/// holds no open file. One thread at a time.
class QUORVAL_EXPORT PStore {
public:
    /// A store without a path: every access to a file throws.
    PStore();
    /// @param path  the directory, used as it is given; for writing it has to be absolute and to
    ///              end in "/"
    PStore(const std::string& path);

    void set_path(const std::string& path);
    /// The directory; empty when none is set.
    std::string get_path();

    /// Opens the file `name` for reading.
    /// @throws std::runtime_error      no path is set: "PStore path is not configured"
    /// @throws std::ios_base::failure  the file cannot be opened
    PIFStream ifstream(const std::string& name);

    /// Makes a stream that replaces the file `name` when it is closed.
    /// @throws std::runtime_error  no path is set: "PStore path is not configured"; or the target
    ///     is refused, with the texts of POFStream
    POFStream ofstream(const std::string& name);

    /// Reads the configuration stored under `name`.
    /// @throws std::runtime_error      no path is set: "PStore path is not configured"
    /// @throws std::ios_base::failure  the file cannot be opened
    /// @throws what operator>>() of a configuration throws for damaged content
    BlockConfiguration load(const std::string& name);

    /// Replaces the file `name` by the binary form of `config`. The old file stays until the new
    /// one is synced. A disk that is nearly full cuts the new one without a report, see POFStream.
    /// @throws std::runtime_error  no path is set: "PStore path is not configured"; or the target
    ///     is refused, with the texts of POFStream
    /// @throws std::system_error   a system call failed, with the texts of POFStream::close()
    void store(const std::string& name, const BlockConfiguration& config);

private:
    std::string path_;
};

}  // namespace Quorval
