// Reads the file of a recording, which may be cut off or come from anywhere.
#pragma once

#include "record/database.h"
#include "record/writer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quorval::runtime {

struct RecordedValue {
    std::uint32_t output = 0;  ///< among those of the header
    bool is_early = false;     ///< it was there before the wave
    std::string bytes;
};

struct RecordedWave {
    std::uint64_t number = 0;  ///< from 1; numbers are left out where waves are missing
    std::int64_t time = 0;     ///< ns of the monotonic clock
    std::vector<RecordedValue> values;
};

/// Reads wave by wave. The file is not changed, nor is anything beside it looked at.
class RecordingReader {
public:
    /// @throws RecordingError  "'<file>' is no recording", or "'<file>' cannot be read: <reason>"
    explicit RecordingReader(const std::string& file);

    const RecordingHeader& header() const { return header_; }

    /// The next wave that is wholly there.
    /// @return false at the end, and where the file is cut off or damaged
    /// @throws RecordingError  "'<file>' cannot be read: <reason>"
    bool read(RecordedWave& wave);

    /// The number of the last wave that was read, 0 before the first.
    std::uint64_t last_wave() const { return last_wave_; }

    /// After the last wave: whether it is that of the run.
    bool is_whole() const { return waves_ == last_wave_; }

private:
    void read_header();
    void read_outputs(std::int64_t count);
    bool has_table(const std::string& name, const std::string& sql) const;
    bool next_row();
    bool read_rows(RecordedWave& wave);
    bool take_row(RecordedWave& wave, std::int64_t rest);

    std::string file_;
    Database database_;
    RecordingHeader header_;
    std::optional<std::uint64_t> waves_;  // of the whole run; none: the run did not end
    std::optional<Statement> rows_;       // of the present part
    std::uint64_t parts_ = 0;
    std::int64_t last_row_ = 0;
    std::uint64_t last_wave_ = 0;
    std::int64_t last_time_ = 0;
    bool is_over_ = false;
};

}  // namespace Quorval::runtime
