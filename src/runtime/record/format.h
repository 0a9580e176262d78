// How a recording lies in its file.
//
// The file is an SQLite database that only ever grows at its end: pages that were written before
// change in no other way than that they lead to new ones. So what is in front of a place where it
// was cut off can be read, and there is never a second file beside it. For this
//
// - rows are numbered in the order in which they are written, and have no index;
// - the content of a root moves to the end of the file whenever its tree gets another level, so
//   a table begins with rows that make it get the second one, and ends before it would get the
//   third one; then comes the next: `part_1`, `part_2` and so on;
// - the last column of a row tells whether all of it is there: what lies behind the end of the
//   file reads as zeros;
// - a wave counts when its last row is there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Quorval::runtime {

constexpr int kRecordingId = 0x51767231;  // "Qvr1", the application_id of the database
constexpr int kPageSize = 32768;

/// One row; `waves` is null up to the end of the run. Times are in nanoseconds: `begin` since 1970,
/// `time` of the monotonic clock.
constexpr const char* kRecordingTable =
    "CREATE TABLE recording(graph TEXT, begin INTEGER, time INTEGER, outputs INTEGER, "
    "waves INTEGER)";

/// `id` counts from 0.
constexpr const char* kOutputsTable =
    "CREATE TABLE outputs(id INTEGER PRIMARY KEY, path TEXT, port TEXT, type TEXT)";

/// The name of a part, counted from 1.
inline std::string part_name(std::uint64_t part)
{
    return "part_" + std::to_string(part);
}

/// A row for each value; for a wave without any, one whose `output` and `value` are null. `id`
/// counts from 1, over all parts, those of a part's beginning are lower; `rest` is the number of
/// rows of the wave that follow. `early` is 1 for a value that was there before the wave. `mark` is
/// the size of the value and 2.
inline std::string part_table(std::uint64_t part)
{
    return "CREATE TABLE " + part_name(part) +
           "(id INTEGER PRIMARY KEY, wave INTEGER, time INTEGER, rest INTEGER, output INTEGER, "
           "early INTEGER, value BLOB, mark INTEGER)";
}

/// Two rows of this size do not fit into a page.
inline std::string part_beginning(std::uint64_t part)
{
    return "INSERT INTO " + part_name(part) +
           "(id, value) VALUES(-1, zeroblob(16400)), (0, zeroblob(16400))";
}

/// So much is put into a part, values with kRowSize for each row. Its leaf pages, each at least
/// half full, are then less than the 3,000 to which a root of this size leads.
constexpr std::size_t kPartSize = std::size_t{32} << 20U;
constexpr std::size_t kRowSize = 48;

}  // namespace Quorval::runtime
