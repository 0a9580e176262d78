#include "quorval/dlloader.h"

#include "process_map.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Quorval::DlLoader;
using quorval_test::expect_throw;
using quorval_test::fixture_dir;
using quorval_test::fixture_path;
using quorval_test::is_mapped;
using quorval_test::LogLine;
using quorval_test::LogRecorder;
using quorval_test::platform_error;
using quorval_test::read_file;
using quorval_test::ScopedWorkingDirectory;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

static_assert(!std::is_polymorphic_v<DlLoader>);
static_assert(!std::is_copy_constructible_v<DlLoader> && !std::is_move_constructible_v<DlLoader>);
static_assert(!std::is_copy_assignable_v<DlLoader> && !std::is_move_assignable_v<DlLoader>);
static_assert(sizeof(DlLoader) == sizeof(void*) + sizeof(std::string), "handle and path");

LogLine line(const std::string& text)
{
    return {LOGLEVEL_INFO, text, static_cast<int>(text.size())};
}

TEST(DlLoaderTest, LogsLoadingAndUnloading)
{
    const std::string path = fixture_path("fixture_no_entry_point.so");
    const LogRecorder log;

    auto loader = std::make_shared<DlLoader>(path);

    EXPECT_EQ(log.lines(), std::vector<LogLine>{line("DlLoader: Loaded library '" + path + "'.")});
    loader.reset();
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{line("DlLoader: Loaded library '" + path + "'."),
                                    line("DlLoader: Unloaded library '" + path + "'.")}));
}

TEST(DlLoaderTest, KeepsTheSharedObjectMappedWhileItLives)
{
    const std::string path = fixture_path("fixture_good.so");
    ASSERT_FALSE(is_mapped(path));

    auto loader = std::make_shared<DlLoader>(path);
    EXPECT_TRUE(is_mapped(path));

    loader.reset();
    EXPECT_FALSE(is_mapped(path));
}

TEST(DlLoaderTest, CountsSeveralLoadersOfOneFile)
{
    const std::string path = fixture_path("fixture_good.so");
    auto first = std::make_unique<DlLoader>(path);
    auto second = std::make_unique<DlLoader>(path);

    first.reset();
    EXPECT_TRUE(is_mapped(path));

    second.reset();
    EXPECT_FALSE(is_mapped(path));
}

TEST(DlLoaderTest, LogsTheUnloadingBeforeItCloses)
{
    class Looking : public Quorval::LogInstance {
    public:
        Looking(std::string path, bool& was_mapped)
            : path_(std::move(path)), was_mapped_(was_mapped)
        {
        }
        void emit(loglevel /*level*/, const char* text, int /*length*/) override
        {
            if (std::string(text).find("Unloaded") != std::string::npos) {
                was_mapped_ = is_mapped(path_);
            }
        }

    private:
        std::string path_;
        bool& was_mapped_;
    };
    const std::string path = fixture_path("fixture_no_entry_point.so");
    const LogRecorder restores;
    bool was_mapped = false;
    Quorval::loginstance = std::make_unique<Looking>(path, was_mapped);

    std::make_unique<DlLoader>(path).reset();

    EXPECT_TRUE(was_mapped);
    EXPECT_FALSE(is_mapped(path));
}

TEST(DlLoaderTest, FindsSymbols)
{
    DlLoader loader(fixture_path("fixture_no_entry_point.so"));

    void* const address = loader.get_fn_address("quorval_fixture_number");

    ASSERT_NE(address, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)()>(address)(), 42);
}

TEST(DlLoaderTest, GivesNullForAnUnknownSymbolAndLogsNothing)
{
    DlLoader loader(fixture_path("fixture_no_entry_point.so"));
    const LogRecorder log;

    for (const char* name : {"no_such_symbol", "", "lib_register_cpp", "Quorval_fixture_number"}) {
        EXPECT_EQ(loader.get_fn_address(name), nullptr) << name;
    }

    EXPECT_EQ(log.lines(), std::vector<LogLine>{});
}

TEST(DlLoaderTest, LeavesTheErrorOfALookUpToThePlatform)
{
    DlLoader loader(fixture_path("fixture_no_entry_point.so"));

    loader.get_fn_address("no_such_symbol");

    EXPECT_NE(::dlerror(), nullptr);
}

TEST(DlLoaderTest, IsNotDisturbedByTheErrorOfAnEarlierLookUp)
{
    DlLoader first(fixture_path("fixture_no_entry_point.so"));
    first.get_fn_address("no_such_symbol");

    EXPECT_NO_THROW(DlLoader second(fixture_path("fixture_good.so")));
}

TEST(DlLoaderTest, KeepsThePathAsItWasGiven)
{
    const std::string path = fixture_path("fixture_no_entry_point.so");
    const ScopedWorkingDirectory here(fixture_dir());

    EXPECT_EQ(DlLoader(path).get_path(), path);
    EXPECT_EQ(DlLoader("./fixture_no_entry_point.so").get_path(), "./fixture_no_entry_point.so");
    EXPECT_EQ(DlLoader(fixture_dir() + "/.//fixture_no_entry_point.so").get_path(),
              fixture_dir() + "/.//fixture_no_entry_point.so");
}

TEST(DlLoaderTest, OffersNoSymbolsToOthers)
{
    const DlLoader loader(fixture_path("fixture_no_entry_point.so"));

    EXPECT_EQ(::dlsym(RTLD_DEFAULT, "quorval_fixture_number"), nullptr);
}

TEST(DlLoaderFailure, HasTheTextOfThePlatformAndLogsNothing)
{
    const TemporaryDirectory directory;
    const std::string content = read_file(fixture_path("fixture_good.so"));
    std::string foreign = content;
    foreign[18] = '\x08';  // the field of the machine
    foreign[19] = '\0';
    struct {
        const char* file;
        std::string content;
        const char* part_of_text;
    } const cases[] = {
        {"text.so", "This is no shared object, although it is long enough to be one of some kind.",
         "invalid ELF header"},
        {"empty.so", "", "file too short"},
        {"cut_in_header.so", content.substr(0, 32), "file too short"},
        {"cut_behind_header.so", content.substr(0, 100), "cannot read file data"},
        {"foreign.so", foreign, "cannot open shared object file"},
    };

    for (const auto& test : cases) {
        const std::string path = directory.store_path() + test.file;
        write_file(path, test.content);
        const std::string text = platform_error(path);
        EXPECT_NE(text.find(test.part_of_text), std::string::npos) << text;
        const LogRecorder log;

        expect_throw<std::runtime_error>([&] { DlLoader loader(path); }, text);

        EXPECT_EQ(log.lines(), std::vector<LogLine>{}) << path;
        EXPECT_FALSE(is_mapped(path));
    }
}

TEST(DlLoaderFailure, NamesAMissingFile)
{
    const LogRecorder log;

    expect_throw<std::runtime_error>(
        [] { DlLoader loader("/no/such/plugin.so"); },
        "/no/such/plugin.so: cannot open shared object file: No such file or directory");

    EXPECT_EQ(log.lines(), std::vector<LogLine>{});
}

TEST(DlLoaderFailure, NamesADirectory)
{
    const TemporaryDirectory directory;

    expect_throw<std::runtime_error>(
        [&] { DlLoader loader(directory.store_path()); },
        directory.store_path() + ": cannot read file data: Is a directory");
}

TEST(DlLoaderFailure, ResolvesAllSymbolsAtOnce)
{
    const std::string path = fixture_path("fixture_unresolved.so");
    const LogRecorder log;

    expect_throw<std::runtime_error>([&] { DlLoader loader(path); },
                                     path + ": undefined symbol: quorval_fixture_missing_symbol");

    EXPECT_EQ(log.lines(), std::vector<LogLine>{});
    EXPECT_FALSE(is_mapped(path));
}

TEST(DlLoaderFailure, GoesByTheTextOfThePlatformAndNotByTheHandle)
{
    const std::string path = fixture_path("fixture_leaves_dlerror.so");
    const std::string text = platform_error(path);
    ASSERT_NE(text.find("undefined symbol: quorval_fixture_there_is_no_such_symbol"),
              std::string::npos)
        << text;
    ASSERT_FALSE(is_mapped(path));
    const LogRecorder log;

    expect_throw<std::runtime_error>([&] { DlLoader loader(path); }, text);

    EXPECT_EQ(log.lines(), std::vector<LogLine>{});
    EXPECT_FALSE(is_mapped(path));
}

TEST(DlLoaderFailure, LeavesALaterLoadingAlone)
{
    const std::string path = fixture_path("fixture_good.so");
    EXPECT_THROW(DlLoader("/no/such/plugin.so"), std::runtime_error);

    EXPECT_NO_THROW(DlLoader loader(path));
}

}  // namespace
