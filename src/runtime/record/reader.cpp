#include "record/reader.h"

#include <quorval/runtime/recording.h>
#include "record/format.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>

namespace Quorval::runtime {

namespace {

// The columns of a part.
enum Column : int { kId, kWave, kTime, kRest, kOutput, kEarly, kValue, kMark };

[[noreturn]] void throw_no_recording(const std::string& file)
{
    throw RecordingError("'" + file + "' is no recording");
}

[[noreturn]] void throw_unreadable(const std::string& file, const std::string& reason)
{
    throw RecordingError("'" + file + "' cannot be read: " + reason);
}

/// Nothing but a regular file, whose opening could wait.
std::int64_t size_of_file(const std::string& file)
{
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) {
        throw_unreadable(file, std::generic_category().message(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw_unreadable(file, "not a regular file");
    }
    return status.st_size;
}

/// Without locks, and without looking for a journal that somebody else may have put beside it.
std::string uri_of(const std::string& file)
{
    constexpr const char* kDigits = "0123456789ABCDEF";
    constexpr unsigned kLowHalf = 0xF;
    std::string uri = "file://";
    for (const char letter : std::filesystem::absolute(file).string()) {
        const auto byte = static_cast<unsigned char>(letter);
        if (std::isalnum(byte) != 0 || letter == '/') {
            uri += letter;
        } else {
            uri += {'%', kDigits[byte >> 4U], kDigits[byte & kLowHalf]};
        }
    }
    return uri + "?immutable=1";
}

Database open(const std::string& file)
{
    const std::int64_t size = size_of_file(file);
    try {
        Database database(uri_of(file),
                          SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX);
        // Nothing in the file is larger than the file.
        constexpr std::int64_t kLeast = 1'000'000;
        sqlite3_limit(database.get(), SQLITE_LIMIT_LENGTH,
                      static_cast<int>(
                          std::clamp<std::int64_t>(size, kLeast, std::numeric_limits<int>::max())));
        database.execute("PRAGMA trusted_schema = OFF");
        // The size of a file that was cut off is not the one that its header tells.
        database.execute("PRAGMA writable_schema = ON");
        return database;
    } catch (const std::runtime_error& error) {
        throw_unreadable(file, error.what());
    }
}

}  // namespace

RecordingReader::RecordingReader(const std::string& file) : file_(file), database_(open(file))
{
    try {
        read_header();
    } catch (const NoMemory& error) {
        throw_unreadable(file, error.what());
    } catch (const std::runtime_error&) {
        throw_no_recording(file);
    }
}

void RecordingReader::read_header()
{
    Statement id(database_, "PRAGMA application_id");
    if (!id.step() || id.integer(0) != kRecordingId || !has_table("recording", kRecordingTable) ||
        !has_table("outputs", kOutputsTable) || !has_table(part_name(1), part_table(1))) {
        throw std::runtime_error("its tables are others");
    }
    Statement row(database_, "SELECT graph, begin, time, outputs, waves FROM recording");
    if (!row.step() || !row.is_integer(1) || !row.is_integer(2) || !row.is_integer(3) ||
        row.integer(2) < 0) {
        throw std::runtime_error("its header is another");
    }
    header_.graph = row.bytes(0);
    header_.begin = row.integer(1);
    header_.time = row.integer(2);
    last_time_ = header_.time;
    if (row.is_integer(4)) {
        waves_ = static_cast<std::uint64_t>(row.integer(4));
    }
    read_outputs(row.integer(3));
}

void RecordingReader::read_outputs(std::int64_t count)
{
    Statement row(database_, "SELECT id, path, port, type FROM outputs ORDER BY id");
    for (std::int64_t id = 0; id < count; ++id) {
        if (!row.step() || row.integer(0) != id) {
            throw std::runtime_error("an output is missing");
        }
        header_.outputs.push_back(
            {std::string(row.bytes(1)), std::string(row.bytes(2)), std::string(row.bytes(3))});
    }
}

/// Whether there is a table that was made in just this way, and no view that does anything else.
bool RecordingReader::has_table(const std::string& name, const std::string& sql) const
{
    Statement row(database_, "SELECT sql FROM sqlite_schema WHERE type = 'table' AND name = ?");
    row.bind(1, name);
    return row.step() && row.bytes(0) == sql;
}

bool RecordingReader::read(RecordedWave& wave)
{
    wave.values.clear();
    try {
        is_over_ = is_over_ || !read_rows(wave);
    } catch (const NoMemory& error) {
        throw_unreadable(file_, error.what());
    } catch (const std::runtime_error&) {
        is_over_ = true;  // it was cut off here
    }
    if (!is_over_) {
        last_wave_ = wave.number;
        last_time_ = wave.time;
    }
    return !is_over_;
}

/// The next row, of the next part where this one ends.
bool RecordingReader::next_row()
{
    while (!rows_ || !rows_->step()) {
        ++parts_;
        if (!has_table(part_name(parts_), part_table(parts_))) {
            return false;
        }
        rows_.emplace(database_,
                      "SELECT * FROM " + part_name(parts_) + " WHERE id > 0 ORDER BY id");
    }
    return rows_->is_integer(kId) && rows_->integer(kId) == ++last_row_;
}

bool RecordingReader::read_rows(RecordedWave& wave)
{
    if (!next_row() || rows_->integer(kWave) <= static_cast<std::int64_t>(last_wave_) ||
        rows_->integer(kTime) < last_time_) {
        return false;
    }
    wave.number = static_cast<std::uint64_t>(rows_->integer(kWave));
    wave.time = rows_->integer(kTime);
    std::int64_t rest = rows_->integer(kRest);
    while (take_row(wave, rest)) {
        if (rest == 0) {
            return true;
        }
        --rest;
        if (!next_row()) {
            return false;
        }
    }
    return false;
}

/// @return whether the row is one of this wave, and all of it is there
bool RecordingReader::take_row(RecordedWave& wave, std::int64_t rest)
{
    const std::string_view bytes = rows_->bytes(kValue);
    if (rows_->integer(kWave) != static_cast<std::int64_t>(wave.number) ||
        rows_->integer(kTime) != wave.time || rows_->integer(kRest) != rest ||
        rows_->integer(kMark) != static_cast<std::int64_t>(bytes.size()) + 2) {
        return false;
    }
    if (rows_->is_null(kOutput)) {
        return true;
    }
    const std::int64_t output = rows_->integer(kOutput);
    if (output < 0 || output >= static_cast<std::int64_t>(header_.outputs.size())) {
        return false;
    }
    wave.values.push_back(
        {static_cast<std::uint32_t>(output), rows_->integer(kEarly) != 0, std::string(bytes)});
    return true;
}

}  // namespace Quorval::runtime
