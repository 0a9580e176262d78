#include <quorval/config.h>
#include <quorval/pstore.h>
#include "faults/faults.h"
#include "store/path.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace quorval_test;
using Quorval::BlockConfiguration;
using Quorval::PIFStream;
using Quorval::POFStream;
using Quorval::PStore;

const char* const kOld = "a-file-that-is-there-already";
const char* const kNew = "a-file-that-is-not-there-yet";
const char* const kDirectory = "a-directory-in-the-store";

/// A store with a file and a directory in it.
struct Store {
    TemporaryDirectory directory;
    PStore store{directory.store_path()};

    Store()
    {
        store.store(kOld, {{"the-content-of-the-old-file", 1}});
        std::filesystem::create_directory(directory.path() / kDirectory);
    }
};

std::unique_ptr<Store> prepare_store()
{
    return std::make_unique<Store>();
}

/// The names and contents of all files.
std::string describe_store(Store& object)
{
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(object.directory.path())) {
        files[entry.path().filename().string()] =
            entry.is_directory() ? "(a directory)" : read_file(entry.path());
    }
    std::string text;
    for (const auto& [name, content] : files) {
        text += name + "=" + content + "|";
    }
    return text;
}

struct Operation {
    const char* name;
    void (*act)(Store& object);
};

void expect_clean_failures(const std::vector<Operation>& operations)
{
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        EXPECT_GT(fail_each_allocation(prepare_store, operation.act, describe_store), 0U);
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

TEST(StoreOutOfMemory, KeepsTheOldFileAndNoDescriptorWhenAConfigurationCannotBeStored)
{
    static const BlockConfiguration config = make_sample();
    expect_clean_failures({
        {"a new file", [](Store& object) { object.store.store(kNew, config); }},
        {"an old file", [](Store& object) { object.store.store(kOld, config); }},
        {"an unset path",
         [](Store&) { refuse<std::runtime_error>([] { PStore().store(kNew, config); }); }},
        {"a relative path",
         [](Store&) {
             refuse<std::runtime_error>([] { PStore("a/relative/path/").store(kNew, config); });
         }},
        {"a name that is a directory",
         [](Store& object) {
             refuse<std::runtime_error>([&] { object.store.store(kDirectory, config); });
         }},
    });
}

TEST(StoreOutOfMemory, LosesNothingWhenAFileCannotBeRead)
{
    expect_clean_failures({
        {"ifstream", [](Store& object) { object.store.ifstream(kOld); }},
        {"a missing file",
         [](Store& object) {
             refuse<std::ios_base::failure>([&] { object.store.ifstream(kNew); });
         }},
        {"an unset path",
         [](Store&) { refuse<std::runtime_error>([] { PStore().ifstream("a"); }); }},
        {"a stream", [](Store& object) { PIFStream in(object.directory.path(), kOld); }},
        {"a moved stream",
         [](Store& object) {
             PIFStream in(object.directory.path(), kOld);
             PIFStream moved(std::move(in));
         }},
        {"a path with a slash at its end",
         [](Store& object) { PIFStream in(object.directory.store_path(), kOld); }},
    });
}

TEST(StoreOutOfMemory, LosesNothingWhenAStreamCannotBeMade)
{
    expect_clean_failures({
        {"a store", [](Store& object) { PStore copy(object.directory.store_path()); }},
        {"a copy of a store", [](Store& object) { PStore copy(object.store); }},
        {"get_path", [](Store& object) { object.store.get_path(); }},
        {"set_path",
         [](Store&) {
             PStore store;
             store.set_path("/a/path/that/is/not/short/");
         }},
        {"ofstream", [](Store& object) { object.store.ofstream(kNew); }},
        {"a moved stream",
         [](Store& object) {
             POFStream out(object.directory.store_path(), kNew);
             POFStream moved(std::move(out));
         }},
        {"open",
         [](Store& object) {
             POFStream out(object.directory.store_path(), kNew);
             out.open("another-file-with-a-long-name", std::ios::out);
         }},
        {"open with a string",
         [](Store& object) {
             POFStream out(object.directory.store_path(), kNew);
             out.open(std::string("another-file-with-a-long-name"), std::ios::out);
         }},
        {"open without a name",
         [](Store& object) {
             POFStream out(object.directory.store_path(), kNew);
             refuse<std::logic_error>(
                 [&] { out.open(static_cast<const char*>(nullptr), std::ios::out); });
         }},
        {"a directory that cannot be made",
         [](Store& object) {
             refuse<std::runtime_error>(
                 [&] { POFStream(object.directory.store_path() + "not/there/", kNew); });
         }},
        {"a directory that is a file",
         [](Store& object) {
             refuse<std::runtime_error>(
                 [&] { POFStream(object.directory.store_path() + kOld, kNew); });
         }},
    });
}

TEST(StoreOutOfMemory, CanBeClosedAgainAfterAFailedClose)
{
    struct Open : Store {
        POFStream out{directory.store_path(), kNew};

        Open() { out << "the new content, which is not short"; }
    };
    const auto prepare = [] { return std::make_unique<Open>(); };
    const auto prepare_closed = [&prepare] {
        auto object = prepare();
        object->out.close();
        return object;
    };
    const auto look = [](Open& object) { return describe_store(object); };

    EXPECT_GT(fail_each_allocation(
                  prepare, [](Open& object) { object.out.close(); }, look),
              0U);
    EXPECT_GT(
        fail_each_allocation(
            prepare_closed,
            [](Open& object) { refuse<std::runtime_error>([&] { object.out.close(); }); }, look),
        0U);
}

TEST(StoreOutOfMemory, LeavesAClosedInputStreamClosedWhenItCannotBeOpened)
{
    struct Closed : Store {
        PIFStream in{directory.path(), kOld};

        Closed() { in.close(); }
    };
    const auto prepare = [] { return std::make_unique<Closed>(); };
    const auto act = [](Closed& object) {
        object.in.open(object.directory.path() / kOld, std::ios::binary);
    };
    const auto look = [](Closed& object) {
        return std::string(object.in.is_open() ? "open" : "closed") +
               std::to_string(object.in.exceptions());
    };

    EXPECT_GT(fail_each_allocation(prepare, act, look), 0U);
}

TEST(StoreOutOfMemory, LoadsAConfigurationOrAShorterOneOrNone)
{
    const Store object;
    const BlockConfiguration sample = make_sample();
    PStore store = object.store;
    store.store(kNew, sample);
    std::size_t shorter = 0;

    run_with_each_failure([&](std::size_t nth, Mode mode) {
        BlockConfiguration loaded;
        const Outcome outcome = try_without_memory(nth, mode, [&] { loaded = store.load(kNew); });

        EXPECT_EQ(loaded.diff(sample), BlockConfiguration());
        // The end of the data is found by an exception, whose text may fail without a loss.
        EXPECT_TRUE(loaded == sample || outcome.has_failed);
        EXPECT_EQ(store.load(kNew), sample);
        // A failure in the header of a record ends the reading without an exception.
        shorter += !outcome.threw && loaded != sample ? 1 : 0;
        return outcome.has_failed;
    });

    EXPECT_GT(shorter, 0U);
}

// The standard library's own operator crashes in these runs when the directory ends in a slash.
TEST(JoinPath, FailsCleanlyWhereverMemoryRunsOut)
{
    for (const std::string directory :
         {"/a/directory/of/many/characters/", "/a/directory/of/many/characters", ""}) {
        SCOPED_TRACE(directory);
        EXPECT_GT(fail_each_allocation([&directory] {
                      Quorval::join_path(directory, "a-file-name-of-many-characters");
                  }),
                  0U);
    }
}

TEST(JoinPath, JoinsAsTheStandardLibraryDoes)
{
    for (const std::string directory : {"", "/", "a", "a/", "/a", "/a/", "/a//", ".", ".."}) {
        for (const std::string file : {"", "b", "/b", "b/", "../b", "b/c", "//b", "."}) {
            EXPECT_EQ(Quorval::join_path(directory, file),
                      (std::filesystem::path(directory) / file).string())
                << "'" << directory << "' and '" << file << "'";
        }
    }
}

}  // namespace
