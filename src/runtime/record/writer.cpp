#include "record/writer.h"

#include "record/format.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <system_error>
#include <utility>

namespace Quorval::runtime {

namespace {

/// A name is a file even where it looks like something else to SQLite.
std::string as_file(const std::string& file)
{
    return file.front() == '/' ? file : "./" + file;
}

void run_transaction(Database& database, const std::function<void()>& work)
{
    database.execute("BEGIN");
    try {
        work();
        database.execute("COMMIT");
    } catch (...) {
        sqlite3_exec(database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void write_outputs(const Database& database, const std::vector<RecordedOutput>& outputs)
{
    Statement insert(database, "INSERT INTO outputs VALUES(?, ?, ?, ?)");
    std::int64_t id = 0;
    for (const RecordedOutput& output : outputs) {
        insert.bind(1, id++);
        insert.bind(2, output.path);
        insert.bind(3, output.port);
        insert.bind(4, output.type);
        insert.step();
        insert.reset();
    }
}

}  // namespace

// SQLite would open a file that is there.
NewFile::NewFile(std::string name) : name_(std::move(name))
{
    const int fd = ::open(name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        const int error = errno;
        throw std::system_error(error, std::generic_category(),
                                "cannot record into '" + name_ + "'");
    }
    ::close(fd);
}

NewFile::~NewFile()
{
    if (!is_kept_) {
        ::unlink(name_.c_str());
    }
}

RecordingWriter::RecordingWriter(const std::string& file)
    : file_(file), database_(as_file(file), SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX)
{
}

void RecordingWriter::begin(const RecordingHeader& header)
{
    database_.execute("PRAGMA page_size = " + std::to_string(kPageSize));
    database_.execute("PRAGMA journal_mode = MEMORY");
    // Nobody who reads the file makes the recorder wait.
    database_.execute("PRAGMA locking_mode = EXCLUSIVE");
    run_transaction(database_, [&] {
        database_.execute("PRAGMA application_id = " + std::to_string(kRecordingId));
        database_.execute(kRecordingTable);
        database_.execute(kOutputsTable);
        Statement insert(database_, "INSERT INTO recording VALUES(?, ?, ?, ?, NULL)");
        insert.bind(1, header.graph);
        insert.bind(2, header.begin);
        insert.bind(3, header.time);
        insert.bind(4, static_cast<std::int64_t>(header.outputs.size()));
        insert.step();
        write_outputs(database_, header.outputs);
        begin_part();
    });
    file_.keep();
}

void RecordingWriter::write(const Batch& batch)
{
    const Place before = place_;
    try {
        run_transaction(database_, [&] {
            std::string_view bytes = batch.bytes;
            for (const Batch::Row& row : batch.rows) {
                write(row, bytes.substr(0, row.size));
                bytes.remove_prefix(row.size);
            }
        });
    } catch (...) {
        place_ = before;
        insert_.reset();  // it may have stopped in a row, or its part be gone again
        throw;
    }
}

void RecordingWriter::finish(std::uint64_t waves)
{
    Statement update(database_, "UPDATE recording SET waves = ?");
    update.bind(1, static_cast<std::int64_t>(waves));
    update.step();
}

void RecordingWriter::begin_part()
{
    ++place_.parts;
    place_.part_size = 0;
    database_.execute(part_table(place_.parts));
    database_.execute(part_beginning(place_.parts));
    insert_.reset();
}

void RecordingWriter::write(const Batch::Row& row, std::string_view bytes)
{
    if (place_.part_size >= kPartSize) {
        begin_part();
    }
    if (!insert_) {
        insert_.emplace(database_, "INSERT INTO " + part_name(place_.parts) +
                                       " VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
    }
    enum Column { Id = 1, Wave, Time, Rest, Output, IsEarly, Bytes, Size };
    insert_->bind(Id, ++place_.rows);
    insert_->bind(Wave, static_cast<std::int64_t>(row.wave));
    insert_->bind(Time, row.time);
    insert_->bind(Rest, static_cast<std::int64_t>(row.rest));
    if (row.output == Batch::kNoOutput) {
        insert_->bind_null(Output);
        insert_->bind_null(Bytes);
    } else {
        insert_->bind(Output, static_cast<std::int64_t>(row.output));
        insert_->bind_bytes(Bytes, bytes);
    }
    insert_->bind(IsEarly, std::int64_t{row.is_early ? 1 : 0});
    insert_->bind(Size, static_cast<std::int64_t>(bytes.size()) + 2);
    insert_->step();
    insert_->reset();
    place_.part_size += bytes.size() + kRowSize;
}

}  // namespace Quorval::runtime
