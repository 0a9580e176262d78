#include <quorval/config.h>
#include <quorval/pstore.h>
#include "support/support.h"

#include <cereal/cereal.hpp>

#include <filesystem>
#include <ios>
#include <iterator>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

using Quorval::BlockConfiguration;
using Quorval::PStore;
using quorval_test::expect_throw;
using quorval_test::open_descriptors;
using quorval_test::read_file;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

namespace fs = std::filesystem;

namespace {

BlockConfiguration make_configuration()
{
    BlockConfiguration config;
    config.set("int", -1);
    config.set("bool", true);
    config.set("double", 0.1);
    config.set("string", "text");
    config.set("ints", std::vector<int>{1, 2});
    config.set("doubles", std::vector<double>{0.5, -0.25});
    config.set("strings", std::vector<std::string>{"a", "", "b"});
    config.set("bools", std::vector<bool>{true, false, true});
    return config;
}

class PStoreTest : public testing::Test {
protected:
    const TemporaryDirectory directory_;
    const std::string path_ = directory_.store_path();
    PStore store_{path_};
    const BlockConfiguration config_ = make_configuration();
};

using PStoreLoad = PStoreTest;
using PStoreStore = PStoreTest;
using PStoreStreams = PStoreTest;

}  // namespace

static_assert(std::is_copy_constructible_v<PStore> && std::is_copy_assignable_v<PStore>);
static_assert(std::is_nothrow_move_constructible_v<PStore>);
static_assert(std::is_convertible_v<std::string, PStore>);

TEST(PStorePath, IsEmptyAtFirst)
{
    EXPECT_EQ(PStore().get_path(), "");
}

TEST(PStorePath, IsKeptAsItIsGiven)
{
    for (const std::string path : {"", "/", "relative", "/a/../b//", " ", "/ä\n"}) {
        PStore store(path);
        EXPECT_EQ(store.get_path(), path);

        store.set_path("/other/");
        EXPECT_EQ(store.get_path(), "/other/");
        store.set_path(path);
        EXPECT_EQ(store.get_path(), path);
    }
}

TEST(PStorePath, IsGivenAsACopy)
{
    PStore store("/a/");

    store.get_path() += "b";

    EXPECT_EQ(store.get_path(), "/a/");
}

TEST(PStorePath, CanBeSetToItself)
{
    PStore store("/a/");

    store.set_path(store.get_path());

    EXPECT_EQ(store.get_path(), "/a/");
}

TEST(PStorePath, IsCopiedWithTheStore)
{
    PStore store("/a/");
    PStore copy(store);
    copy.set_path("/b/");

    PStore assigned;
    assigned = store;

    EXPECT_EQ(store.get_path(), "/a/");
    EXPECT_EQ(copy.get_path(), "/b/");
    EXPECT_EQ(assigned.get_path(), "/a/");
}

TEST(PStorePath, WithoutOneEveryOperationIsRefused)
{
    PStore cleared("/a/");
    cleared.set_path("");
    for (PStore store : {PStore(), PStore(""), cleared}) {
        const std::string text = "PStore path is not configured";

        expect_throw<std::runtime_error>([&] { store.ifstream("state"); }, text);
        expect_throw<std::runtime_error>([&] { store.ofstream("state"); }, text);
        expect_throw<std::runtime_error>([&] { store.load("state"); }, text);
        expect_throw<std::runtime_error>([&] { store.store("state", {}); }, text);
        expect_throw<std::runtime_error>([&] { store.ofstream(""); }, text);
    }
}

TEST_F(PStoreStore, KeepsKeysTypesAndValues)
{
    store_.store("state", config_);

    EXPECT_EQ(store_.load("state"), config_);
    EXPECT_EQ(store_.load("state").getTypeName("double"), "double");
}

TEST_F(PStoreStore, KeepsNoMarksAndChangesNone)
{
    BlockConfiguration config;
    config.set("read", 1);
    EXPECT_EQ(config.getInt("read"), 1);
    store_.store("state", config);
    EXPECT_TRUE(config.is_consumed());
    config.set("unread", 1);

    store_.store("other", config);

    EXPECT_FALSE(config.is_consumed());
    EXPECT_FALSE(store_.load("state").is_consumed());
}

TEST_F(PStoreStore, OfAnEmptyConfigurationMakesAnEmptyFile)
{
    store_.store("state", {});

    EXPECT_EQ(read_file(path_ + "state"), "");
    EXPECT_EQ(store_.load("state"), BlockConfiguration());
}

TEST_F(PStoreStore, WritesTheBinaryForm)
{
    BlockConfiguration config;
    config.set("gain", 0.5);

    store_.store("state", config);

    const std::string expected("\4\0\0\0\0\0\0\0gain\6\0\0\0\0\0\0\0double\0\0\0\0\0\0\xe0\x3f",
                               34);
    EXPECT_EQ(read_file(path_ + "state"), expected);
}

TEST_F(PStoreStore, ReplacesWhatWasStored)
{
    store_.store("state", config_);
    BlockConfiguration other;
    other.set("x", 1);

    store_.store("state", other);

    EXPECT_EQ(store_.load("state"), other);
}

TEST_F(PStoreStore, KeepsFilesOfOtherNames)
{
    BlockConfiguration other;
    other.set("x", 1);
    store_.store("state", config_);

    store_.store("other", other);

    EXPECT_EQ(store_.load("state"), config_);
    EXPECT_EQ(store_.load("other"), other);
}

TEST_F(PStoreStore, MakesAMissingDirectoryAndLeavesNothingElse)
{
    PStore store(path_ + "new/");

    store.store("state", config_);

    EXPECT_EQ(store.load("state"), config_);
    const fs::directory_iterator entries(path_ + "new");
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

TEST_F(PStoreStore, LeavesNoDescriptorOpen)
{
    const std::vector<int> before = open_descriptors();

    store_.store("state", config_);
    store_.load("state");

    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PStoreStore, PassesOnWhatTheCheckRefusesAndLeavesTheOldFile)
{
    store_.store("state", config_);
    fs::create_directory(path_ + "state.tmp");

    expect_throw<std::runtime_error>([&] { store_.store("state", {}); },
                                     "Failed to verify file is a file: " + path_ + "state.tmp");

    EXPECT_EQ(store_.load("state"), config_);
    fs::remove(path_ + "state.tmp");
    store_.store("state", {});
    EXPECT_EQ(store_.load("state"), BlockConfiguration());
}

TEST_F(PStoreStore, RefusesNamesAndPathsThatAStreamRefuses)
{
    PStore relative("relative/");

    expect_throw<std::runtime_error>([&] { store_.store("", config_); },
                                     "Failed due to unset filename");
    expect_throw<std::runtime_error>([&] { relative.store("state", config_); },
                                     "Failed due to path not being absolute: relative/");

    EXPECT_FALSE(fs::exists("relative"));
}

TEST_F(PStoreStore, LosesAFileThatIsNamedAsATemporaryOne)
{
    store_.store("state.tmp", config_);

    store_.store("state", {});

    EXPECT_THROW(store_.load("state.tmp"), std::ios_base::failure);
}

TEST_F(PStoreStore, TakesAnAbsoluteNameWithoutThePathAndSoDoesLoad)
{
    const TemporaryDirectory other;
    const std::string name = other.store_path() + "state";

    store_.store(name, config_);

    EXPECT_EQ(store_.load(name), config_);
    EXPECT_TRUE(fs::exists(name));
    EXPECT_TRUE(fs::is_empty(directory_.path()));
}

TEST_F(PStoreStore, TakesANameUpToItsFirstZeroAndSoDoesLoad)
{
    const std::string name("state\0x", 7);

    store_.store(name, config_);

    EXPECT_EQ(store_.load("state"), config_);
    EXPECT_EQ(store_.load(name), config_);
}

TEST_F(PStoreStore, LeavesAReaderThatIsAtWorkTheOldContent)
{
    store_.store("state", config_);
    Quorval::PIFStream in = store_.ifstream("state");

    store_.store("state", {});

    BlockConfiguration found;
    in >> found;
    EXPECT_EQ(found, config_);
    EXPECT_EQ(store_.load("state"), BlockConfiguration());
}

TEST_F(PStoreStore, TakesWhatIsLoadedFromTheSameFile)
{
    store_.store("state", config_);

    store_.store("state", store_.load("state"));

    EXPECT_EQ(store_.load("state"), config_);
}

TEST_F(PStoreLoad, ThrowsForANameThatWasNeverStored)
{
    EXPECT_THROW(store_.load("state"), std::ios_base::failure);

    EXPECT_FALSE(fs::exists(path_ + "state"));
}

TEST_F(PStoreLoad, ReadsWithAndWithoutASlashAtTheEndOfThePath)
{
    store_.store("state", config_);
    PStore store(directory_.path());

    EXPECT_EQ(store.load("state"), config_);
}

TEST_F(PStoreLoad, PassesOnWhatTheReaderThrows)
{
    store_.store("state", config_);
    const std::string content = read_file(path_ + "state");
    write_file(path_ + "cut", content.substr(0, content.size() - 1));
    write_file(path_ + "unknown", std::string("\1\0\0\0\0\0\0\0k\5\0\0\0\0\0\0\0float", 22));
    const std::vector<int> before = open_descriptors();

    // The last element is the vector "strings".
    expect_throw<cereal::Exception>([&] { store_.load("cut"); },
                                    "Failed to read 1 bytes from input stream! Read 0");
    expect_throw<std::runtime_error>([&] { store_.load("unknown"); },
                                     "The parameter k has an unknown type: float");

    EXPECT_EQ(open_descriptors(), before);
}

// The element that is last in the order of keys tells a whole file from a cut one.
TEST_F(PStoreLoad, OfACutFileThrowsOrMissesTheLastElement)
{
    store_.store("state", config_);
    const std::string content = read_file(path_ + "state");
    std::size_t shorter = 0;
    std::size_t refused = 0;

    for (std::size_t size = 0; size < content.size(); ++size) {
        SCOPED_TRACE(size);
        write_file(path_ + "cut", content.substr(0, size));
        try {
            const BlockConfiguration found = store_.load("cut");
            EXPECT_EQ(found.diff(config_), BlockConfiguration());
            EXPECT_THROW(found.getType("strings"), std::invalid_argument);
            ++shorter;
        } catch (const cereal::Exception&) {
            ++refused;
        }
    }

    EXPECT_GT(shorter, 8U * 16) << "at least both lengths of each record";
    EXPECT_GT(refused, 0U);
}

TEST_F(PStoreLoad, TakesBytesThatWereChangedForTheirValues)
{
    store_.store("state", {{"k", 1}});
    std::string content = read_file(path_ + "state");
    content.at(content.size() - sizeof(int)) = 3;
    write_file(path_ + "state", content);

    EXPECT_EQ(store_.load("state").getInt("k"), 3);
}

// A header that cannot be read is the end of the data, whatever the reason.
TEST_F(PStoreLoad, FindsNoElementsInADirectory)
{
    fs::create_directory(path_ + "state");

    EXPECT_EQ(store_.load("state"), BlockConfiguration());
}

TEST_F(PStoreLoad, DoesNotTouchTheFile)
{
    store_.store("state", config_);
    const std::string content = read_file(path_ + "state");

    store_.load("state");

    EXPECT_EQ(read_file(path_ + "state"), content);
}

TEST_F(PStoreStreams, WriteAndReadAFile)
{
    Quorval::POFStream out = store_.ofstream("notes");
    out << "some notes";
    out.close();

    Quorval::PIFStream in = store_.ifstream("notes");
    std::string word;
    in >> word;

    EXPECT_EQ(word, "some");
    EXPECT_EQ(in.exceptions(), std::ios::goodbit);
    EXPECT_EQ(read_file(path_ + "notes"), "some notes");
}

TEST_F(PStoreStreams, OutputMakesTheDirectoryAndRemovesALeftTemporaryFile)
{
    PStore store(path_ + "new/");
    write_file(path_ + "notes.tmp", "left");

    const Quorval::POFStream made = store.ofstream("notes");
    const Quorval::POFStream removed = store_.ofstream("notes");

    EXPECT_TRUE(fs::is_directory(path_ + "new"));
    EXPECT_FALSE(fs::exists(path_ + "notes.tmp"));
}

TEST_F(PStoreStreams, OutputIsNotBoundToTheStore)
{
    Quorval::POFStream out = [this] {
        PStore store(path_);
        return store.ofstream("notes");
    }();
    out << "kept";

    out.close();

    EXPECT_EQ(read_file(path_ + "notes"), "kept");
}

TEST_F(PStoreStreams, InputThrowsForAMissingFileAndMakesNoDirectory)
{
    PStore store(path_ + "new/");

    EXPECT_THROW(store.ifstream("state"), std::ios_base::failure);

    EXPECT_FALSE(fs::exists(path_ + "new"));
}

TEST_F(PStoreStreams, InputTakesARelativePath)
{
    store_.store("state", config_);
    const fs::path relative = fs::relative(directory_.path());
    PStore store(relative.string());

    EXPECT_EQ(store.load("state"), config_);
}
