// Writes the file of a recording.
#pragma once

#include "record/database.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// An output as a recording knows it.
struct RecordedOutput {
    std::string path;  ///< of the block
    std::string port;
    std::string type;
};

/// What a recording begins with.
struct RecordingHeader {
    std::string graph;
    std::int64_t begin = 0;  ///< ns since 1970
    std::int64_t time = 0;   ///< ns of the monotonic clock, at the same moment
    std::vector<RecordedOutput> outputs;
};

/// Rows in the order in which they are written, and the bytes of their values.
struct Batch {
    static constexpr std::uint32_t kNoOutput = UINT32_MAX;

    struct Row {
        std::uint64_t wave = 0;
        std::int64_t time = 0;
        std::uint64_t rest = 0;  ///< rows of the wave that follow
        std::uint32_t output = kNoOutput;
        bool is_early = false;
        std::size_t size = 0;
    };

    std::vector<Row> rows;
    std::string bytes;

    void clear()
    {
        rows.clear();
        bytes.clear();
    }
    std::size_t size() const { return bytes.size() + rows.size() * sizeof(Row); }
};

/// A file that is made new, and removed again unless it is kept.
class NewFile {
public:
    /// @throws std::system_error  it cannot be made, or is there already: "cannot record into
    ///     '<name>'"
    explicit NewFile(std::string name);
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile();

    void keep() { is_kept_ = true; }

private:
    std::string name_;
    bool is_kept_ = false;
};

/// One file, made new. What goes wrong is a std::runtime_error, unless something else is said.
class RecordingWriter {
public:
    /// @throws std::system_error  as NewFile
    explicit RecordingWriter(const std::string& file);

    /// Comes first. Without it no file is left.
    void begin(const RecordingHeader& header);

    /// One transaction. Where it fails, nothing of the batch is written, and others may follow.
    void write(const Batch& batch);

    /// Marks the recording as whole.
    /// @param waves  in all, those that were left out too
    void finish(std::uint64_t waves);

private:
    /// Where the next row goes.
    struct Place {
        std::uint64_t parts = 0;
        std::size_t part_size = 0;
        std::int64_t rows = 0;
    };

    void begin_part();
    void write(const Batch::Row& row, std::string_view bytes);

    NewFile file_;
    Database database_;
    std::optional<Statement> insert_;  // for the present part
    Place place_;
};

}  // namespace Quorval::runtime
