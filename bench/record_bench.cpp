// Recording a graph, against plain inserts of the same rows into a database.

#include <quorval/codec.h>
#include <quorval/runtime/graph.h>
#include "harness.h"
#include "numbered_values.h"
#include "record/reader.h"
#include "running.h"

#include <sqlite3.h>

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quorval_bench {

namespace {

constexpr std::size_t kValues = 20'000;
constexpr std::size_t kCodecBytes = 9;  // of a text, before its characters

/// That all threads of this process had a processor.
double process_seconds()
{
    constexpr double kNano = 1e-9;
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + kNano * static_cast<double>(now.tv_nsec);
}

/// A graph that gives values and stops, and its recording.
class Recorded {
public:
    /// @param file  of the recording; empty: there is none
    Recorded(std::size_t size, std::string file) : size_(size), file_(std::move(file))
    {
        std::ofstream(graph_file_) << "format = 1\nblocks.a = { type = \"bench-chain:Burst\", "
                                      "config.size = "
                                   << size << ", config.count = " << kValues << " }\n";
    }

    void prepare()
    {
        graph_.reset();
        std::filesystem::remove(file_);
        Quorval::GraphOptions options = chain_options(graph_file_);
        options.record_file = file_;
        graph_ = std::make_unique<Quorval::Graph>(std::move(options));
    }

    void run() { is_done_ = graph_->run() == Quorval::RunResult::Done; }

    bool is_right() const { return is_done_ && (file_.empty() || is_recorded()); }

private:
    /// Whether the recording has each value, in a wave of its own.
    bool is_recorded() const
    {
        const NumberedValues values(size_);
        Quorval::runtime::RecordingReader reader(file_);
        Quorval::runtime::RecordedWave wave;
        std::string value;
        std::uint64_t number = 0;
        while (reader.read(wave)) {
            if (wave.values.size() != 1) {
                return false;
            }
            Quorval::make_codec<std::string>().decode(wave.values[0].bytes, &value);
            if (values.number_of(value) != ++number) {
                return false;
            }
        }
        return number == kValues && reader.is_whole();
    }

    std::size_t size_;
    std::string graph_file_ = scratch_directory() + "recorded.toml";
    std::string file_;
    std::unique_ptr<Quorval::Graph> graph_;
    bool is_done_ = false;
};

struct CloseDatabase {
    void operator()(sqlite3* database) const { ::sqlite3_close(database); }
};
struct EndStatement {
    void operator()(sqlite3_stmt* statement) const { ::sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, EndStatement>;

/// A new database with the rows of a recording, put into it in one transaction.
class Inserted {
public:
    explicit Inserted(std::size_t size) : values_(size + kCodecBytes) {}

    void prepare()
    {
        database_.reset();
        std::filesystem::remove(file_);
    }

    void run()
    {
        sqlite3* opened = nullptr;
        const int result = ::sqlite3_open(file_.c_str(), &opened);
        database_.reset(opened);
        check(result == SQLITE_OK);
        execute(
            "CREATE TABLE rows(id INTEGER PRIMARY KEY, wave INTEGER, time INTEGER, "
            "rest INTEGER, output INTEGER, early INTEGER, value BLOB, mark INTEGER)");
        execute("BEGIN");
        const Statement insert =
            prepare_statement("INSERT INTO rows VALUES(?, ?, ?, 0, 0, 0, ?, ?)");
        for (std::uint64_t number = 1; number <= kValues; ++number) {
            add_row(*insert, number);
        }
        execute("COMMIT");
    }

    bool is_right() const
    {
        const Statement select = prepare_statement("SELECT value FROM rows ORDER BY id");
        std::uint64_t number = 0;
        while (::sqlite3_step(select.get()) == SQLITE_ROW) {
            const std::string_view value(
                static_cast<const char*>(::sqlite3_column_blob(select.get(), 0)),
                static_cast<std::size_t>(::sqlite3_column_bytes(select.get(), 0)));
            if (values_.number_of(value) != ++number) {
                return false;
            }
        }
        return number == kValues;
    }

private:
    void check(bool is_good) const
    {
        if (!is_good) {
            throw std::runtime_error(::sqlite3_errmsg(database_.get()));
        }
    }

    void execute(const char* sql) const
    {
        check(::sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK);
    }

    Statement prepare_statement(const char* sql) const
    {
        sqlite3_stmt* statement = nullptr;
        check(::sqlite3_prepare_v2(database_.get(), sql, -1, &statement, nullptr) == SQLITE_OK);
        return Statement(statement);
    }

    void add_row(sqlite3_stmt& insert, std::uint64_t number)
    {
        const std::string& value = values_.make(number);
        const auto id = static_cast<std::int64_t>(number);
        ::sqlite3_bind_int64(&insert, 1, id);
        ::sqlite3_bind_int64(&insert, 2, id);
        ::sqlite3_bind_int64(&insert, 3, static_cast<std::int64_t>(1e9 * wall_seconds()));
        ::sqlite3_bind_blob(&insert, 4, value.data(), static_cast<int>(value.size()),
                            SQLITE_STATIC);
        ::sqlite3_bind_int64(&insert, 5, static_cast<std::int64_t>(value.size() + 2));
        check(::sqlite3_step(&insert) == SQLITE_DONE);
        ::sqlite3_reset(&insert);
    }

    NumberedValues values_;
    std::string file_ = scratch_directory() + "inserted";
    std::unique_ptr<sqlite3, CloseDatabase> database_;
};

template <class Made>
Side side_of(const std::shared_ptr<Made>& made, double (*seconds)())
{
    return {[made] { made->run(); }, [made] { return made->is_right(); },
            [made] { made->prepare(); }, seconds};
}

std::string recording_file()
{
    return scratch_directory() + "recording";
}

void add_recording(const std::string& name, std::size_t size, double (*seconds)())
{
    add_time(name + "/quorval", kValues,
             [=] { return side_of(std::make_shared<Recorded>(size, recording_file()), seconds); });
    add_time(name + "/by_hand", kValues,
             [=] { return side_of(std::make_shared<Inserted>(size), seconds); });
}

/// What recording takes of the thread that runs the waves.
void add_wave(std::size_t size)
{
    const std::string name = "record_wave/" + std::to_string(size);
    add_time(name + "/quorval", kValues, [=] {
        return side_of(std::make_shared<Recorded>(size, recording_file()), thread_seconds);
    });
    add_time(name + "/unrecorded", kValues,
             [=] { return side_of(std::make_shared<Recorded>(size, ""), thread_seconds); });
}

const bool is_registered = [] {
    for (const std::size_t size : {64, 1'024}) {
        add_recording("record/" + std::to_string(size), size, wall_seconds);
        add_recording("record_work/" + std::to_string(size), size, process_seconds);
        add_wave(size);
    }
    return true;
}();

}  // namespace

}  // namespace quorval_bench
