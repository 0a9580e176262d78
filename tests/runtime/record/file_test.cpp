// The file of a recording: what is written, what is read of it, cut off or broken.
#include <quorval/runtime/recording.h>
#include "record/format.h"
#include "record/reader.h"
#include "record/writer.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

using Quorval::read_recording;
using Quorval::RecordingError;
using Quorval::RecordingInfo;
using Quorval::runtime::Batch;
using Quorval::runtime::Database;
using Quorval::runtime::RecordedWave;
using Quorval::runtime::RecordingHeader;
using Quorval::runtime::RecordingReader;
using Quorval::runtime::RecordingWriter;
using Quorval::runtime::Statement;
using quorval_test::expect_throw;
using quorval_test::FileSizeLimit;
using quorval_test::NoStandardInput;
using quorval_test::open_descriptors;
using quorval_test::read_file;
using quorval_test::ScopedWorkingDirectory;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

constexpr std::int64_t kBegin = 1'700'000'000'000'000'000;

RecordingHeader header()
{
    return {"loudness", kBegin, 1000, {{"a", "out", "string"}, {"b/c", "level", "double"}}};
}

/// One wave with a value of each size, of the first output.
Batch wave(std::uint64_t number, const std::vector<std::size_t>& sizes)
{
    Batch batch;
    std::size_t rest = sizes.size();
    for (const std::size_t size : sizes) {
        batch.rows.push_back(
            {number, 1000 + static_cast<std::int64_t>(number), --rest, 0, rest == 0, size});
        batch.bytes += std::string(size, static_cast<char>('a' + number % 26));
    }
    if (sizes.empty()) {
        batch.rows.push_back(
            {number, 1000 + static_cast<std::int64_t>(number), 0, Batch::kNoOutput, false, 0});
    }
    return batch;
}

class RecordingFile : public testing::Test {
protected:
    std::string path(const std::string& name) const { return directory_.path() / name; }

    /// A whole recording of waves with values of these sizes.
    void write(const std::vector<std::vector<std::size_t>>& waves) const
    {
        RecordingWriter writer(path("r"));
        writer.begin(header());
        std::uint64_t number = 0;
        for (const auto& sizes : waves) {
            writer.write(wave(++number, sizes));
        }
        writer.finish(number);
    }

    /// Changes a recording by SQL.
    void change(const std::string& sql) const
    {
        Database database(path("r"), SQLITE_OPEN_READWRITE);
        database.execute(sql);
    }

    void expect_no_recording(const std::string& name) const
    {
        expect_throw<RecordingError>([&] { read_recording(path(name)); },
                                     "'" + path(name) + "' is no recording");
    }

    /// How many waves can be read.
    std::uint64_t count_waves() const { return read_recording(path("r")).waves; }

private:
    TemporaryDirectory directory_;
};

TEST_F(RecordingFile, GivesBackWhatWasWritten)
{
    write({{3, 1}, {}, {100'000}});

    RecordingReader reader(path("r"));
    EXPECT_EQ(reader.header().graph, "loudness");
    EXPECT_EQ(reader.header().outputs.at(1).path, "b/c");
    EXPECT_EQ(reader.header().outputs.at(1).port, "level");
    RecordedWave wave;
    ASSERT_TRUE(reader.read(wave));
    EXPECT_EQ(wave.number, 1U);
    EXPECT_EQ(wave.time, 1001);
    ASSERT_EQ(wave.values.size(), 2U);
    EXPECT_EQ(wave.values[0].bytes, "bbb");
    EXPECT_FALSE(wave.values[0].is_early);
    EXPECT_EQ(wave.values[1].bytes, "b");
    EXPECT_TRUE(wave.values[1].is_early);
    ASSERT_TRUE(reader.read(wave));
    EXPECT_TRUE(wave.values.empty());
    ASSERT_TRUE(reader.read(wave));
    EXPECT_EQ(wave.values.at(0).bytes, std::string(100'000, 'd'));
    EXPECT_FALSE(reader.read(wave));
    EXPECT_TRUE(reader.is_whole());
}

TEST_F(RecordingFile, IsDescribed)
{
    write({{3, 1}, {}, {5}});

    const RecordingInfo info = read_recording(path("r"));

    EXPECT_EQ(info.graph, "loudness");
    EXPECT_EQ(info.begin.time_since_epoch(), std::chrono::nanoseconds(kBegin));
    EXPECT_EQ(info.duration, std::chrono::nanoseconds(3));
    EXPECT_EQ(info.waves, 3U);
    EXPECT_EQ(info.missing_waves, 0U);
    EXPECT_TRUE(info.is_whole);
    ASSERT_EQ(info.outputs.size(), 2U);
    EXPECT_EQ(info.outputs[0].values, 3U);
    EXPECT_EQ(info.outputs[0].bytes, 9U);
    EXPECT_EQ(info.outputs[1].type, "double");
    EXPECT_EQ(info.outputs[1].values, 0U);
}

TEST_F(RecordingFile, TellsOfMissingWaves)
{
    {
        RecordingWriter writer(path("r"));
        writer.begin(header());
        writer.write(wave(2, {1}));
        writer.write(wave(5, {1}));
        writer.finish(5);
    }

    const RecordingInfo info = read_recording(path("r"));

    EXPECT_EQ(info.waves, 2U);
    EXPECT_EQ(info.missing_waves, 3U);
    EXPECT_TRUE(info.is_whole);
}

TEST_F(RecordingFile, TakesTheCurrentDirectoryAndNamesOfItsOwnKind)
{
    const ScopedWorkingDirectory there(path(""));
    for (const std::string name : {":memory:", "a?b#c%20", "file:x"}) {
        SCOPED_TRACE(name);
        {
            RecordingWriter writer(name);
            writer.begin(header());
            writer.write(wave(1, {1}));
        }
        EXPECT_EQ(read_recording(name).waves, 1U);
        EXPECT_TRUE(std::filesystem::exists(path(name)));
    }
}

TEST_F(RecordingFile, IsRefusedWhereSomethingIs)
{
    write_file(path("r"), "mine");

    try {
        const RecordingWriter writer(path("r"));
        ADD_FAILURE() << "threw nothing";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EEXIST);
        EXPECT_EQ(error.what(), "cannot record into '" + path("r") + "': File exists");
    }
    EXPECT_EQ(read_file(path("r")), "mine");
}

TEST_F(RecordingFile, HasNothingBesideItWhileItIsWritten)
{
    RecordingWriter writer(path("r"));
    writer.begin(header());
    writer.write(wave(1, {100}));

    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("")), {}), 1);
    EXPECT_EQ(count_waves(), 1U);
    EXPECT_FALSE(read_recording(path("r")).is_whole);
}

/// The first waves of a recording that was cut off after `size` bytes.
void expect_prefix(const std::string& file, std::uint64_t waves)
{
    RecordingReader reader(file);
    RecordedWave read;
    std::uint64_t number = 0;
    while (reader.read(read)) {
        ASSERT_EQ(read.number, ++number);
        ASSERT_EQ(read.values.size(), 2U);
        for (const auto& value : read.values) {
            ASSERT_EQ(value.bytes,
                      std::string(value.bytes.size(), static_cast<char>('a' + number % 26)));
        }
    }
    EXPECT_EQ(number, waves);
}

TEST_F(RecordingFile, IsReadableUpToTheTransactionBeforeTheCut)
{
    // The size of the file after each transaction: what is in front of it can be read.
    std::vector<std::uintmax_t> sizes;
    {
        RecordingWriter writer(path("w"));
        writer.begin(header());
        for (std::uint64_t number = 1; number <= 60; ++number) {
            writer.write(wave(number, {number * 997 % 9000, number % 7 == 0 ? 90'000U : 10U}));
            sizes.push_back(std::filesystem::file_size(path("w")));
        }
        writer.finish(60);
    }
    const std::string whole = read_file(path("w"));
    const auto full = [&](std::size_t size) {
        return static_cast<std::uint64_t>(std::upper_bound(sizes.begin(), sizes.end(), size) -
                                          sizes.begin());
    };
    const std::size_t first = sizes.front();
    for (std::size_t size = first; size < whole.size(); size += 7'919) {
        SCOPED_TRACE(size);
        write_file(path("r"), whole.substr(0, size));
        const std::uint64_t waves = count_waves();
        EXPECT_GE(waves, full(size));
        expect_prefix(path("r"), waves);
    }
    EXPECT_EQ(full(whole.size()), 60U);
}

TEST_F(RecordingFile, IsReadableWhereverALongOneIsCut)
{
    std::vector<std::uintmax_t> sizes;
    {
        RecordingWriter writer(path("r"));
        writer.begin(header());
        for (std::uint64_t number = 1; number <= 90; ++number) {
            writer.write(wave(number, {1'000'000, 10}));
            sizes.push_back(std::filesystem::file_size(path("r")));
        }
    }
    for (int number = 90; number > 0; number -= 7) {
        SCOPED_TRACE(number);
        const auto waves = static_cast<std::uint64_t>(number);
        std::filesystem::resize_file(path("r"), sizes[waves - 1]);
        EXPECT_EQ(count_waves(), waves);
    }
}

TEST_F(RecordingFile, GoesOnInAnotherPartBehind32Mebibytes)
{
    write(std::vector<std::vector<std::size_t>>(40, {std::size_t{1} << 20U}));

    const Database database(path("r"), SQLITE_OPEN_READONLY);
    const auto rows = [&database](const std::string& part) {
        Statement count(database, "SELECT count(*) FROM " + part + " WHERE id > 0");
        count.step();
        return count.integer(0);
    };
    EXPECT_EQ(rows("part_1"), 32);
    EXPECT_EQ(rows("part_2"), 8);
}

TEST_F(RecordingFile, IsNoRecordingBeforeItsHeaderIsThere)
{
    write({{1}});
    const std::string whole = read_file(path("r"));
    for (const std::size_t size : {std::size_t{0}, std::size_t{99}, std::size_t{32768},
                                   std::size_t{50'000}, std::size_t{65536}}) {
        SCOPED_TRACE(size);
        write_file(path("r"), whole.substr(0, size));
        expect_no_recording("r");
    }
}

TEST_F(RecordingFile, HasToBeARegularFile)
{
    expect_throw<RecordingError>(
        [&] { read_recording(path("none")); },
        "'" + path("none") + "' cannot be read: No such file or directory");
    expect_throw<RecordingError>([] { read_recording("/dev/zero"); },
                                 "'/dev/zero' cannot be read: not a regular file");
}

TEST_F(RecordingFile, IsNoRecordingWhenItIsAnythingElse)
{
    write_file(path("text"), "format = 1\n");
    expect_no_recording("text");
    for (const std::string sql : {
             "PRAGMA application_id = 1",
             "DROP TABLE outputs",
             "DELETE FROM outputs WHERE id = 0",
             "DELETE FROM recording",
             "UPDATE recording SET time = -1",
             "UPDATE recording SET begin = 'x'",
             "UPDATE recording SET time = 'x'",
             "UPDATE recording SET outputs = 'x'",
             "UPDATE outputs SET id = id + 1 WHERE id = 1",
             "UPDATE recording SET outputs = 9223372036854775807",
             "ALTER TABLE part_1 ADD COLUMN more INTEGER",
             "DROP TABLE part_1; CREATE VIEW part_1(id, wave, time, rest, output, early, value, "
             "mark) AS WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n) "
             "SELECT x, x, x, 0, NULL, 0, NULL, 2 FROM n",
         }) {
        SCOPED_TRACE(sql);
        std::filesystem::remove(path("r"));
        write({{1}});
        change(sql);
        expect_no_recording("r");
    }
}

TEST_F(RecordingFile, EndsWhereARowIsWrong)
{
    for (const std::string sql : {
             "UPDATE part_1 SET output = 2 WHERE id = 3",
             "UPDATE part_1 SET output = -1 WHERE id = 3",
             "UPDATE part_1 SET wave = 1 WHERE id = 3",
             "UPDATE part_1 SET wave = 'x' WHERE id = 3",
             "UPDATE part_1 SET wave = 2 WHERE id = 3",
             "UPDATE part_1 SET time = 1 WHERE id = 3",
             "UPDATE part_1 SET time = 1001 WHERE id = 3",
             "UPDATE part_1 SET rest = 9223372036854775807 WHERE id = 3",
             "UPDATE part_1 SET rest = -1 WHERE id = 3",
             "UPDATE part_1 SET mark = 7 WHERE id = 3",
             "UPDATE part_1 SET value = NULL WHERE id = 3",
             "UPDATE part_1 SET id = 9 WHERE id = 3",
             "DELETE FROM part_1 WHERE id = 3",
         }) {
        SCOPED_TRACE(sql);
        std::filesystem::remove(path("r"));
        write({{1}, {1}, {1}, {1}});
        change(sql);
        EXPECT_EQ(count_waves(), 2U);
    }
}

TEST_F(RecordingFile, EndsBeforeAWaveOfWhichARowIsWrong)
{
    for (const std::string sql : {
             "UPDATE part_1 SET wave = 3 WHERE id = 4",
             "UPDATE part_1 SET time = 1003 WHERE id = 4",
             "UPDATE part_1 SET rest = 1 WHERE id = 4",
             "UPDATE part_1 SET mark = 4 WHERE id = 4",
             "DELETE FROM part_1 WHERE id = 4",
             "DELETE FROM part_1 WHERE id >= 4",
             "UPDATE part_1 SET rest = 2 WHERE id = 3",
         }) {
        SCOPED_TRACE(sql);
        std::filesystem::remove(path("r"));
        write({{1, 1}, {1, 1}, {1, 1}});
        change(sql);
        EXPECT_EQ(count_waves(), 1U);
    }
}

TEST_F(RecordingFile, MayHaveWavesAtTheSameTimeFromTheBeginningOfTimeOn)
{
    write({{1}, {1}, {1}});
    change("UPDATE part_1 SET time = 0; UPDATE recording SET time = 0");
    EXPECT_EQ(count_waves(), 3U);

    change("UPDATE recording SET time = 1");
    EXPECT_EQ(count_waves(), 0U);
}

TEST_F(RecordingFile, HasPagesOfItsSizeAndMarksWhatIsEarly)
{
    write({{1, 1}, {}});

    const Database database(path("r"), SQLITE_OPEN_READONLY);
    Statement size(database, "PRAGMA page_size");
    ASSERT_TRUE(size.step());
    EXPECT_EQ(size.integer(0), 32768);
    Statement early(database, "SELECT group_concat(early) FROM part_1 WHERE id > 0");
    ASSERT_TRUE(early.step());
    EXPECT_EQ(early.bytes(0), "0,1,0");
}

TEST_F(RecordingFile, GoesOnInAnotherPartAsSoonAsOneIsFull)
{
    constexpr std::size_t kRow = 48;
    constexpr std::size_t kFits = (std::size_t{1} << 20U) - kRow;  // 32 of them fill a part
    const auto rows = [this](std::size_t last) {
        std::filesystem::remove(path("r"));
        std::vector<std::vector<std::size_t>> waves(31, {kFits});
        waves.insert(waves.end(), {{last}, {1}, {1}});
        write(waves);
        const Database database(path("r"), SQLITE_OPEN_READONLY);
        Statement count(database, "SELECT count(*) FROM part_1 WHERE id > 0");
        count.step();
        return count.integer(0);
    };

    EXPECT_EQ(rows(kFits), 32);
    EXPECT_EQ(rows(kFits - 1), 33);
}

TEST_F(RecordingFile, CannotBeReadWhereSqliteRefusesToOpenIt)
{
    write({{1}});
    // SQLite opens no path of more than 512 bytes.
    const std::string folder =
        path(std::string(200, 'd') + "/" + std::string(200, 'e') + "/" + std::string(200, 'f'));
    const std::string file = folder + "/r";
    std::filesystem::create_directories(folder);
    std::filesystem::copy_file(path("r"), file);

    expect_throw<RecordingError>([&] { read_recording(file); },
                                 "'" + file + "' cannot be read: unable to open database file");
}

/// The memory of SQLite has a limit while this lives.
class MemoryLimit {
public:
    explicit MemoryLimit(std::int64_t bytes) { set_(bytes); }
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;
    ~MemoryLimit() { set_(0); }

private:
    using Set = std::int64_t(std::int64_t);

    Set* set_ = reinterpret_cast<Set*>(
        ::dlsym(::dlopen("libsqlite3.so.0", RTLD_NOW), "sqlite3_hard_heap_limit64"));
};

TEST_F(RecordingFile, IsNotTakenForCutOffWhereMemoryIsShort)
{
    write({{10}, {1'000'000}, {10}});
    const MemoryLimit limit(500'000);

    RecordingReader reader(path("r"));
    RecordedWave wave;
    EXPECT_TRUE(reader.read(wave));
    expect_throw<RecordingError>([&] { reader.read(wave); },
                                 "'" + path("r") + "' cannot be read: out of memory");
}

TEST_F(RecordingFile, IsNotTakenForAnotherFileWhereMemoryIsShort)
{
    write({{10}});
    constexpr std::int64_t kMost = 300'000;
    int refused = 0;
    for (std::int64_t bytes = 1; bytes < kMost; bytes += 500) {
        const MemoryLimit limit(bytes);
        try {
            const RecordingReader reader(path("r"));
        } catch (const RecordingError& error) {
            EXPECT_EQ(error.what(), "'" + path("r") + "' cannot be read: out of memory") << bytes;
            ++refused;
        }
    }
    EXPECT_GT(refused, 5);
    EXPECT_EQ(count_waves(), 1U);
}

TEST_F(RecordingFile, IsLockedWhileItIsWritten)
{
    RecordingWriter writer(path("r"));
    writer.begin(header());

    expect_throw<std::runtime_error>([&] { change("SELECT * FROM recording"); },
                                     "database is locked");
}

TEST_F(RecordingFile, TakesWavesAfterATransactionThatFailed)
{
    struct Case {
        std::string where;
        std::size_t before;
        std::size_t failing;
    };
    for (const auto& [where, before, failing] :
         std::vector<Case>{{"at its end", 10, 1'000'000},
                           {"in a row", 10, 10'000'000},
                           {"with a new part", Quorval::runtime::kPartSize, 1'000'000}}) {
        SCOPED_TRACE(where);
        std::filesystem::remove(path("r"));
        RecordingWriter writer(path("r"));
        writer.begin(header());
        writer.write(wave(1, {before}));
        {
            const FileSizeLimit limit(std::filesystem::file_size(path("r")));
            expect_throw<std::runtime_error>(
                [&size = failing, &writer] { writer.write(wave(2, {size})); }, "disk I/O error");
        }

        EXPECT_NO_THROW(writer.write(wave(3, {10})));

        EXPECT_EQ(count_waves(), 2U);
    }
}

TEST_F(RecordingFile, MayBeReadAndWrittenByAllAsFarAsTheUserWants)
{
    const std::vector<int> before = open_descriptors();
    const mode_t mask = ::umask(0);
    {
        const RecordingWriter writer(path("r"));
        const auto mode = std::filesystem::status(path("r")).permissions();
        EXPECT_EQ(static_cast<unsigned>(mode), 0666U);
    }
    ::umask(mask);

    EXPECT_FALSE(std::filesystem::exists(path("r")));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(RecordingFile, IsMadeWhereStandardInputIsClosed)
{
    const NoStandardInput none;

    EXPECT_NO_THROW(write({{1}}));

    EXPECT_EQ(count_waves(), 1U);
}

TEST_F(RecordingFile, BearsAnyByteBeingAnother)
{
    write({{100, 200}, {3000}, {5}, {40'000}});
    const std::string whole = read_file(path("r"));
    for (std::size_t at = 0; at < whole.size(); at += 331) {
        SCOPED_TRACE(at);
        std::string broken = whole;
        broken[at] = static_cast<char>(broken[at] ^ 0x55);
        write_file(path("r"), broken);
        try {
            EXPECT_LE(count_waves(), 4U);
        } catch (const RecordingError& error) {
            EXPECT_EQ(error.what(), "'" + path("r") + "' is no recording");
        }
    }
}

TEST(RecordDatabase, TellsWhatSqliteRefuses)
{
    expect_throw<std::runtime_error>([] { Database("/missing/r", SQLITE_OPEN_READWRITE); },
                                     "unable to open database file");
    Database database(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    expect_throw<std::runtime_error>([&] { database.execute("MAKE"); },
                                     "near \"MAKE\": syntax error");
    expect_throw<std::runtime_error>([&] { const Statement row(database, "MAKE"); },
                                     "near \"MAKE\": syntax error");
    database.execute("CREATE TABLE t(a UNIQUE); INSERT INTO t VALUES(1)");
    Statement insert(database, "INSERT INTO t VALUES(?)");
    insert.bind(1, std::int64_t{1});
    expect_throw<std::runtime_error>([&] { insert.step(); }, "UNIQUE constraint failed: t.a");
    insert.reset();
    for (int way = 0; way < 4; ++way) {
        expect_throw<std::runtime_error>(
            [&] {
                if (way == 0) {
                    insert.bind(2, std::int64_t{1});
                } else if (way == 1) {
                    insert.bind(2, "x");
                } else if (way == 2) {
                    insert.bind_bytes(2, "x");
                } else {
                    insert.bind_null(2);
                }
            },
            "column index out of range");
    }
}

}  // namespace
