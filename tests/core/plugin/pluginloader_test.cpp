#include "quorval/pluginloader.h"

#include <quorval/superblock.h>
#include "fixtures/fixture.h"
#include "process_map.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <future>
#include <ios>
#include <memory>
#include <new>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Container;
using Quorval::InitTools;
using Quorval::IRegistry;
using Quorval::PluginLoader;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;
using quorval_test::expect_throw;
using quorval_test::fixture_dir;
using quorval_test::fixture_path;
using quorval_test::is_mapped;
using quorval_test::LogRecorder;
using quorval_test::platform_error;
using quorval_test::read_file;
using quorval_test::ScopedEnvironment;
using quorval_test::ScopedWorkingDirectory;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;
using Texts = std::vector<std::string>;

static_assert(std::is_base_of_v<IRegistry, PluginLoader>);
static_assert(std::is_abstract_v<IRegistry> && std::has_virtual_destructor_v<IRegistry>);
static_assert(!std::is_copy_constructible_v<PluginLoader>);
static_assert(!std::is_move_constructible_v<PluginLoader>);
static_assert(!std::is_copy_assignable_v<PluginLoader> && !std::is_move_assignable_v<PluginLoader>);
static_assert(sizeof(PluginLoader) == 2 * sizeof(void*), "virtual table and record");
static_assert(std::is_same_v<decltype(&lib_register_cpp), int (*)(IRegistry&)>);

constexpr const char* kGood = "fixture_good.so";

std::string loaded(const std::string& path)
{
    return "DlLoader: Loaded library '" + path + "'.";
}

std::string unloaded(const std::string& path)
{
    return "DlLoader: Unloaded library '" + path + "'.";
}

/// Loads the plug-ins among the fixtures.
class PluginTest : public ::testing::Test {
protected:
    std::unique_ptr<PluginLoader> load(const std::string& filename) const
    {
        fixture_path(filename);
        return std::make_unique<PluginLoader>(filename, tools_);
    }

    const InitTools tools_{7};

private:
    const ScopedEnvironment directory_{"QUORVAL_PLUGIN_DIR", fixture_dir()};
};

using PluginLoaderConstruction = PluginTest;
using PluginLoaderFailure = PluginTest;
using PluginLoaderRegistry = PluginTest;
using PluginLoaderCreate = PluginTest;
using PluginLoaderDeathTest = PluginTest;
using PluginLoaderLifetime = PluginTest;
using PluginLoaderThreads = PluginTest;

// --- Construction ---------------------------------------------------------------------------

TEST_F(PluginLoaderConstruction, OpensThePluginUntilTheLoaderGoes)
{
    const std::string path = fixture_path(kGood);
    const LogRecorder log;

    auto loader = load(kGood);

    EXPECT_TRUE(is_mapped(path));
    EXPECT_EQ(log.texts(), Texts{loaded(path)});
    loader.reset();
    EXPECT_FALSE(is_mapped(path));
    EXPECT_EQ(log.texts(), (Texts{loaded(path), "create functions gone", unloaded(path)}));
}

TEST_F(PluginLoaderConstruction, CallsNoCreateFunction)
{
    const LogRecorder log;

    const auto loader = load(kGood);

    EXPECT_EQ(log.texts(), Texts{loaded(fixture_path(kGood))});
}

TEST_F(PluginLoaderConstruction, NeedsTheDirectoryToBeSet)
{
    const ScopedEnvironment unset("QUORVAL_PLUGIN_DIR", std::nullopt);

    for (const std::string filename : {kGood, "./fixture_good.so", "/x", ""}) {
        expect_throw<std::runtime_error>([&] { PluginLoader loader(filename, tools_); },
                                         "QUORVAL_PLUGIN_DIR is not set");
    }
}

TEST_F(PluginLoaderConstruction, RefusesADirectoryInTheFileName)
{
    for (const std::string& filename : std::array<std::string, 6>{
             "./fixture_good.so", "../fixtures/fixture_good.so", fixture_path(kGood),
             "fixtures/fixture_good.so", "/", "fixture_good.so/"}) {
        SCOPED_TRACE(filename);

        expect_throw<std::runtime_error>([&] { PluginLoader loader(filename, tools_); },
                                         "Plugin filename must be without path");
    }
    EXPECT_FALSE(is_mapped(fixture_path(kGood)));
}

TEST_F(PluginLoaderConstruction, JoinsDirectoryAndFileNameWithOneSlash)
{
    const LogRecorder log;

    for (const std::string end : {"", "/", "//", "/."}) {
        const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", fixture_dir() + end);
        load(kGood);
    }

    const std::string base = fixture_dir();
    Texts paths;
    for (const std::string& text : log.texts()) {
        if (text.find("Loaded") != std::string::npos) {
            paths.push_back(text);
        }
    }
    EXPECT_EQ(paths,
              (Texts{loaded(base + "/fixture_good.so"), loaded(base + "/fixture_good.so"),
                     loaded(base + "//fixture_good.so"), loaded(base + "/./fixture_good.so")}));
}

TEST_F(PluginLoaderConstruction, TakesTheDirectoryAsItIs)
{
    const ScopedWorkingDirectory there(std::filesystem::path(fixture_dir()).parent_path());
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", "fixtures");
    const LogRecorder log;

    load(kGood);

    EXPECT_EQ(log.texts(), (Texts{loaded("fixtures/fixture_good.so"), "create functions gone",
                                  unloaded("fixtures/fixture_good.so")}));
}

TEST_F(PluginLoaderConstruction, LeavesTheBareNameToThePlatformWhenTheDirectoryIsEmpty)
{
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", "");
    const LogRecorder log;

    expect_throw<std::runtime_error>([&] { PluginLoader loader("libm.so.6", tools_); },
                                     "Found no C++ register function in plugin libm.so.6");
    expect_throw<std::runtime_error>([&] { PluginLoader loader(kGood, tools_); },
                                     platform_error(kGood));

    EXPECT_EQ(log.texts(), (Texts{loaded("libm.so.6"), unloaded("libm.so.6")}));
}

TEST_F(PluginLoaderConstruction, ReadsTheDirectoryOnceOnly)
{
    const auto loader = load(kGood);
    const ScopedEnvironment unset("QUORVAL_PLUGIN_DIR", std::nullopt);

    EXPECT_NO_THROW(loader->create("Recorder", {}, "a"));
}

TEST_F(PluginLoaderConstruction, LetsAPluginGoOnAfterARefusal)
{
    const LogRecorder log;

    const auto loader = load("fixture_catches.so");

    EXPECT_EQ(log.texts(), (Texts{loaded(fixture_path("fixture_catches.so")),
                                  "Try to register block Gain twice.",
                                  "PluginLoader cannot load plugins that register types."}));
    EXPECT_EQ(std::get<0>(loader->create("Gain", {}, "x"))->get_name(), "first");
}

// --- Failures of construction ---------------------------------------------------------------

TEST_F(PluginLoaderFailure, ClosesAPluginThatFailsAgain)
{
    struct {
        const char* file;
        std::string text;
        bool has_create_functions;
    } const cases[] = {
        {"fixture_no_entry_point.so",
         "Found no C++ register function in plugin fixture_no_entry_point.so", false},
        {"fixture_returns_minus_one.so",
         "lib_register_cpp failed for plugin fixture_returns_minus_one.so", true},
        {"fixture_returns_256.so", "lib_register_cpp failed for plugin fixture_returns_256.so",
         true},
        {"fixture_registers_twice.so", "Try to register block Gain twice.", false},
        {"fixture_registers_type.so", "PluginLoader cannot load plugins that register types.",
         false},
        {"fixture_throws.so", "no licence for the plug-in today, and this text is a long one",
         true},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.file);
        const std::string path = fixture_path(test.file);
        const LogRecorder log;

        expect_throw<std::runtime_error>([&] { PluginLoader loader(test.file, tools_); },
                                         test.text);

        Texts expected = {loaded(path)};
        if (test.has_create_functions) {
            expected.emplace_back("create functions gone");
        }
        expected.push_back(unloaded(path));
        EXPECT_EQ(log.texts(), expected);
        EXPECT_FALSE(is_mapped(path));
    }
}

TEST_F(PluginLoaderFailure, PassesTheTextOfThePlatformOn)
{
    const TemporaryDirectory directory;
    const ScopedEnvironment elsewhere("QUORVAL_PLUGIN_DIR", directory.path().string());
    const std::string content = read_file(fixture_path(kGood));
    std::string foreign = content;
    foreign.replace(18, 2, "\x08\0", 2);  // the field of the machine
    write_file(directory.path() / "text.so", "not a shared object, and not even a short text file");
    write_file(directory.path() / "empty.so", "");
    write_file(directory.path() / "cut.so", content.substr(0, 100));
    write_file(directory.path() / "foreign.so", foreign);
    const LogRecorder log;

    for (const std::string filename :
         {"text.so", "empty.so", "cut.so", "foreign.so", "missing.so", ""}) {
        const std::string text = platform_error(directory.store_path() + filename);
        ASSERT_EQ(text.rfind(directory.store_path() + filename, 0), 0U) << text;

        expect_throw<std::runtime_error>([&] { PluginLoader loader(filename, tools_); }, text);
    }

    EXPECT_EQ(log.texts(), Texts{});
}

// Headers that promise more than the file holds are believed: what is missing is found when it is
// touched. This is why a plug-in is replaced by a rename, and never written in place.
TEST_F(PluginLoaderDeathTest, DiesInThePlatformOfAPluginThatIsCutBehindItsHeaders)
{
    constexpr std::size_t kKept = 4096;
    const TemporaryDirectory directory;
    const ScopedEnvironment elsewhere("QUORVAL_PLUGIN_DIR", directory.path().string());
    write_file(directory.path() / "cut.so", read_file(fixture_path(kGood)).substr(0, kKept));

    EXPECT_EXIT(
        {
            ::signal(SIGBUS, SIG_DFL);  // a sanitizer has a handler of its own
            PluginLoader loader("cut.so", tools_);
        },
        ::testing::KilledBySignal(SIGBUS), "");
}

TEST_F(PluginLoaderFailure, NamesAMissingSymbol)
{
    const std::string path = fixture_path("fixture_unresolved.so");

    expect_throw<std::runtime_error>([&] { load("fixture_unresolved.so"); },
                                     path + ": undefined symbol: quorval_fixture_missing_symbol");

    EXPECT_FALSE(is_mapped(path));
}

TEST_F(PluginLoaderFailure, ClosesAPluginThatLeavesAnErrorOfThePlatform)
{
    const std::string path = fixture_path("fixture_leaves_dlerror.so");
    const LogRecorder log;

    expect_throw<std::runtime_error>([&] { load("fixture_leaves_dlerror.so"); },
                                     platform_error(path));

    EXPECT_EQ(log.texts(), Texts{});
    EXPECT_FALSE(is_mapped(path));
}

TEST_F(PluginLoaderFailure, PassesOnWhatIsNoExceptionOfTheStandard)
{
    const std::string path = fixture_path("fixture_throws_a_number.so");
    const LogRecorder log;
    int caught = 0;

    try {
        load("fixture_throws_a_number.so");
    } catch (const int number) {
        caught = number;
    }

    EXPECT_EQ(caught, 42);
    EXPECT_EQ(log.texts(), (Texts{loaded(path), "create functions gone", unloaded(path)}));
    EXPECT_FALSE(is_mapped(path));
}

TEST_F(PluginLoaderFailure, LeavesALaterLoadingAlone)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_THROW(load("fixture_throws.so"), std::runtime_error);
        EXPECT_NO_THROW(load(kGood)->create("Recorder", {}, "a"));
    }
}

TEST_F(PluginLoaderFailure, LetsTheExceptionOutliveThePlugin)
{
    std::exception_ptr error;
    try {
        load("fixture_throws.so");
    } catch (...) {
        error = std::current_exception();
    }
    ASSERT_FALSE(is_mapped(fixture_path("fixture_throws.so")));

    expect_throw<std::runtime_error>(
        [&] { std::rethrow_exception(error); },
        "no licence for the plug-in today, and this text is a long one");
}

TEST_F(PluginLoaderFailure, LetsExceptionsWithSharedCodeOutliveThePlugin)
{
    const std::pair<const char*, const std::type_info&> cases[] = {
        {"bad_alloc", typeid(std::bad_alloc)},
        {"bad_cast", typeid(std::bad_cast)},
        {"bad_function_call", typeid(std::bad_function_call)},
        {"bad_weak_ptr", typeid(std::bad_weak_ptr)},
        {"logic_error", typeid(std::logic_error)},
        {"out_of_range", typeid(std::out_of_range)},
        {"runtime_error", typeid(std::runtime_error)},
        {"system_error", typeid(std::system_error)},
        {"failure", typeid(std::ios_base::failure)},
        {"filesystem_error", typeid(std::filesystem::filesystem_error)},
        {"regex_error", typeid(std::regex_error)},
        {"future_error", typeid(std::future_error)},
    };

    for (const auto& [name, type] : cases) {
        SCOPED_TRACE(name);
        const ScopedEnvironment exception("QUORVAL_TEST_EXCEPTION", name);
        try {
            load("fixture_throws_by_name.so");
            ADD_FAILURE() << "threw nothing";
        } catch (const std::exception& error) {
            EXPECT_FALSE(is_mapped(fixture_path("fixture_throws_by_name.so")));
            EXPECT_EQ(typeid(error), type);
            EXPECT_NE(error.what(), std::string());
        }
    }
}

// Four exceptions of the standard library exist in headers alone: their code goes with the plug-in.
TEST_F(PluginLoaderDeathTest, EndsTheProcessWhenAnExceptionGoesWithThePlugin)
{
    for (const char* name :
         {"bad_optional_access", "bad_variant_access", "bad_any_cast", "nested"}) {
        SCOPED_TRACE(name);
        const ScopedEnvironment exception("QUORVAL_TEST_EXCEPTION", name);

        EXPECT_DEATH(
            {
                try {
                    load("fixture_throws_by_name.so");
                } catch (const std::exception& error) {
                    std::_Exit(error.what() == std::string() ? 1 : 0);
                }
                std::_Exit(0);
            },
            "");
    }
}

// --- Registry -------------------------------------------------------------------------------

/// A create function that counts its copies.
class CopiedFunction {
public:
    explicit CopiedFunction(int& copies) : copies_(&copies) {}
    CopiedFunction(const CopiedFunction& other) : copies_(other.copies_) { ++*copies_; }
    CopiedFunction(CopiedFunction&& other) noexcept = default;
    CopiedFunction& operator=(const CopiedFunction&) = delete;
    ~CopiedFunction() = default;

    std::unique_ptr<Container> operator()(const std::string& name, const BlockConfiguration&,
                                          const InitTools&) const
    {
        return std::make_unique<Block>(name);
    }

private:
    int* copies_;
};

std::unique_ptr<Container> make_block(const std::string& name, const BlockConfiguration& /*config*/,
                                      const InitTools& /*tools*/)
{
    return std::make_unique<Block>(name);
}

TEST_F(PluginLoaderRegistry, TakesFurtherTypesLater)
{
    const auto loader = load(kGood);

    loader->register_block_create_fn("Later", make_block);
    loader->register_block_create_fn("", make_block);

    EXPECT_EQ(std::get<0>(loader->create("Later", {}, "a"))->get_name(), "a");
    EXPECT_EQ(std::get<0>(loader->create("", {}, "b"))->get_name(), "b");
}

TEST_F(PluginLoaderRegistry, KeepsTheFirstFunctionOfAType)
{
    const auto loader = load(kGood);
    const LogRecorder log;

    for (const std::string type : {"Recorder", "Empty"}) {
        expect_throw<std::runtime_error>(
            [&] { loader->register_block_create_fn(type, make_block); },
            "Try to register block " + type + " twice.");
    }

    loader->create("Recorder", {}, "a");
    EXPECT_EQ(log.texts(), (Texts{"create a", "setup a", "destroy a"}));
    EXPECT_THROW(loader->create("Empty", {}, "a"), std::bad_function_call);
}

TEST_F(PluginLoaderRegistry, MovesTheFunctionInAndCopiesItOnceToCreate)
{
    const auto loader = load(kGood);
    int copies = 0;

    loader->register_block_create_fn("Counted", CopiedFunction(copies));
    EXPECT_EQ(copies, 0);

    loader->create("Counted", {}, "a");
    EXPECT_EQ(copies, 1);
}

TEST_F(PluginLoaderRegistry, LetsACreateFunctionRegister)
{
    const auto loader = load(kGood);
    EXPECT_THROW(loader->create("Added", {}, "a"), std::runtime_error);

    loader->create("Adder", {}, "a");

    EXPECT_EQ(std::get<0>(loader->create("Added", {}, "b"))->get_name(), "b");
    expect_throw<std::runtime_error>([&] { loader->create("Adder", {}, "a"); },
                                     "Try to register block Added twice.");
}

TEST_F(PluginLoaderRegistry, NeverTakesDataTypes)
{
    const auto loader = load(kGood);

    for (const std::string name : {"sample", "", "Recorder"}) {
        expect_throw<std::runtime_error>([&] { loader->register_type(name); },
                                         "PluginLoader cannot load plugins that register types.");
    }

    EXPECT_THROW(loader->create("sample", {}, "a"), std::runtime_error);
}

// --- Creating -------------------------------------------------------------------------------

TEST_F(PluginLoaderCreate, CreatesAndSetsUp)
{
    const auto loader = load(kGood);
    const LogRecorder log;

    const auto [block, returned] = loader->create("Recorder", {{"number", 4}}, "a");

    EXPECT_EQ(log.texts(), (Texts{"create a", "setup a"}));
    EXPECT_EQ(block->get_name(), "a");
    EXPECT_EQ(returned, (BlockConfiguration{{"doubled", 8}}));
    EXPECT_FALSE(returned.is_consumed());
}

TEST_F(PluginLoaderCreate, MarksWhatIsReadInTheCallersConfiguration)
{
    const auto loader = load(kGood);
    const BlockConfiguration config{{"number", 4}};

    loader->create("Recorder", config, "a");

    EXPECT_TRUE(config.is_consumed());
}

/// A block that notes what it is given.
class Noting : public Block {
public:
    explicit Noting(const std::string& name, Texts& names) : Block(name), names_(names) {}

    BlockConfiguration setup(const BlockConfiguration& config) override
    {
        set_up_with = &config;
        return {{"set", 1}};
    }

    void set_name(std::string name) override
    {
        names_.push_back(name);
        Block::set_name(std::move(name));
    }

    const BlockConfiguration* set_up_with = nullptr;

private:
    Texts& names_;
};

TEST_F(PluginLoaderCreate, HandsTheCallersConfigurationAndToolsOn)
{
    const auto loader = load(kGood);
    const BlockConfiguration* seen_config = nullptr;
    const InitTools* seen_tools = nullptr;
    std::string seen_name;
    Texts names;
    loader->register_block_create_fn("Noting",
                                     [&](std::string name, const auto& config, const auto& tools) {
                                         seen_config = &config;
                                         seen_tools = &tools;
                                         seen_name = name;
                                         return std::make_unique<Noting>(name, names);
                                     });
    const BlockConfiguration config{{"a", 1}};

    const auto [block, returned] = loader->create("Noting", config, "given");

    EXPECT_EQ(seen_config, &config);
    EXPECT_EQ(seen_tools, &tools_);
    EXPECT_EQ(seen_name, "given");
    EXPECT_EQ(dynamic_cast<Noting&>(*block).set_up_with, &config);
    EXPECT_EQ(returned, (BlockConfiguration{{"set", 1}}));
    EXPECT_EQ(names, Texts{});
}

TEST_F(PluginLoaderCreate, GeneratesANameFromTypeAndAddressWhenNoneIsGiven)
{
    const auto loader = load(kGood);

    const UniqueDlPtr<Container> block = std::get<0>(loader->create("Recorder", {}, ""));

    std::ostringstream expected;
    expected << "Recorder_" << std::hex << static_cast<const void*>(block.get());
    EXPECT_EQ(block->get_name(), expected.str());
    EXPECT_EQ(block->get_name().rfind("Recorder_0x", 0), 0U);
}

TEST_F(PluginLoaderCreate, SetsTheGeneratedNameOnceAndAfterSetup)
{
    const auto loader = load(kGood);
    Texts names;
    loader->register_block_create_fn("Noting", [&](std::string name, const auto&, const auto&) {
        return std::make_unique<Noting>(name, names);
    });
    const LogRecorder log;

    const UniqueDlPtr<Container> block = std::get<0>(loader->create("Noting", {}, ""));
    loader->create("Recorder", {}, "");

    EXPECT_EQ(names, Texts{block->get_name()});
    ASSERT_GE(log.texts().size(), 2U);
    EXPECT_EQ(log.texts()[0], "create ");
    EXPECT_EQ(log.texts()[1], "setup ");
}

TEST_F(PluginLoaderCreate, ReplacesANameOfTheCreateFunctionWhenNoneIsGiven)
{
    const auto loader = load(kGood);
    loader->register_block_create_fn("Named", [](std::string, const auto&, const auto&) {
        return std::make_unique<Block>("named by its function");
    });

    EXPECT_EQ(std::get<0>(loader->create("Named", {}, ""))->get_name().rfind("Named_0x", 0), 0U);
    EXPECT_EQ(std::get<0>(loader->create("Named", {}, "x"))->get_name(), "named by its function");
}

TEST_F(PluginLoaderCreate, LeavesAGivenNameAsTheCreateFunctionSetIt)
{
    const auto loader = load(kGood);

    EXPECT_EQ(std::get<0>(loader->create("Renamed", {}, "banana"))->get_name(), "banana-made");
    EXPECT_EQ(std::get<0>(loader->create("Recorder", {}, " "))->get_name(), " ");
}

TEST_F(PluginLoaderCreate, CreatesSuperblocksToo)
{
    const auto loader = load(kGood);
    const LogRecorder log;

    {
        const auto [graph, returned] = loader->create("Graph", {}, "graph");
        EXPECT_EQ(graph->get_blocks().at(0)->get_name(), "inner");
        EXPECT_EQ(returned, BlockConfiguration());
    }

    EXPECT_EQ(log.texts(), (Texts{"create inner", "destroy inner"}));
}

TEST_F(PluginLoaderCreate, RefusesAnUnknownTypeAndCallsNothing)
{
    const auto loader = load(kGood);
    const LogRecorder log;
    const BlockConfiguration config{{"number", 1}};

    for (const std::string type : {"", "recorder", "Recorder ", "Recorde"}) {
        expect_throw<std::runtime_error>(
            [&] { loader->create(type, config, "a"); },
            "Failed to find Block definition in PluginLoader for " + type);
    }

    EXPECT_EQ(log.texts(), Texts{});
    EXPECT_FALSE(config.is_consumed());
}

TEST_F(PluginLoaderCreate, RefusesAnEmptyFunction)
{
    const auto loader = load(kGood);

    expect_throw<std::bad_function_call>([&] { loader->create("Empty", {}, "a"); },
                                         std::bad_function_call().what());
}

TEST_F(PluginLoaderCreate, RefusesAFunctionThatReturnsNoBlock)
{
    const auto loader = load(kGood);

    for (const std::string name : {"a", ""}) {
        expect_throw<std::runtime_error>([&] { loader->create("Null", {}, name); },
                                         "Create function returned no block for Null");
    }
}

TEST_F(PluginLoaderCreate, PassesExceptionsOfTheCreateFunctionOn)
{
    auto loader = load(kGood);

    expect_throw<std::runtime_error>([&] { loader->create("ThrowsInCreate", {}, "a"); },
                                     "cannot create a with 7");

    loader.reset();
    EXPECT_FALSE(is_mapped(fixture_path(kGood)));
}

TEST_F(PluginLoaderCreate, DestroysABlockThatCannotBeFinished)
{
    struct {
        const char* type;
        std::string name;
        std::string text;
        Texts events;
    } const cases[] = {
        {"ThrowsInConstructor", "a", "cannot be constructed", {"create a", "destroy a"}},
        {"ThrowsAfterMaking", "a", "cannot keep a", {"create a", "destroy a"}},
        {"ThrowsInSetup", "a", "cannot be set up", {"create a", "setup a", "destroy a"}},
        {"ThrowsInSetName", "", "cannot be named", {"create ", "setup ", "destroy "}},
        // One exception is on its way while another is thrown and caught.
        {"CatchesInDestructor",
         "a",
         "cannot be set up",
         {"create a", "cannot be destroyed", "destroy a"}},
    };

    for (const auto& test : cases) {
        SCOPED_TRACE(test.type);
        auto loader = load(kGood);
        const LogRecorder log;

        expect_throw<std::runtime_error>(
            [&] {
                loader->create(test.type, {{"fails", true}}, test.name);
            },
            test.text);

        EXPECT_EQ(log.texts(), test.events);
        loader.reset();
        EXPECT_FALSE(is_mapped(fixture_path(kGood)));
    }
}

TEST_F(PluginLoaderCreate, LetsItsExceptionsOutliveThePlugin)
{
    for (const char* type : {"ThrowsInCreate", "ThrowsInConstructor", "ThrowsInSetup"}) {
        auto loader = load(kGood);
        std::exception_ptr error;
        try {
            loader->create(type, {}, "a");
        } catch (...) {
            error = std::current_exception();
        }

        loader.reset();

        EXPECT_FALSE(is_mapped(fixture_path(kGood)));
        EXPECT_THROW(std::rethrow_exception(error), std::runtime_error) << type;
    }
}

TEST_F(PluginLoaderCreate, GivesWhatASuperblockTakesAsItIs)
{
    const auto loader = load(kGood);
    Superblock superblock("graph");

    Container& added = superblock.add_block(loader->create("Recorder", {}, "a"));

    EXPECT_EQ(&superblock.get_block("a"), &added);
}

// --- Lifetimes ------------------------------------------------------------------------------

TEST_F(PluginLoaderLifetime, LetsBlocksOutliveTheLoader)
{
    const std::string path = fixture_path(kGood);
    auto loader = load(kGood);
    UniqueDlPtr<Container> first = std::get<0>(loader->create("Recorder", {}, "a"));
    UniqueDlPtr<Container> second = std::get<0>(loader->create("Token", {}, "b"));
    const LogRecorder log;

    loader.reset();
    EXPECT_TRUE(is_mapped(path));
    first = {};
    EXPECT_TRUE(is_mapped(path));
    EXPECT_EQ(second->setup({}), (BlockConfiguration{{"doubled", 42}}));
    second = {};

    EXPECT_FALSE(is_mapped(path));
    EXPECT_EQ(log.texts(), (Texts{"create functions gone", "destroy a", "setup b", "destroy b",
                                  unloaded(path)}));
}

TEST_F(PluginLoaderLifetime, LetsTheLastBlockThrowAndCatchInItsDestructor)
{
    const std::string path = fixture_path(kGood);
    UniqueDlPtr<Container> block = std::get<0>(load(kGood)->create("CatchesInDestructor", {}, "a"));
    const LogRecorder log;

    block = {};

    EXPECT_EQ(log.texts(), (Texts{"cannot be destroyed", "destroy a", unloaded(path)}));
    EXPECT_FALSE(is_mapped(path));
}

TEST_F(PluginLoaderDeathTest, EndsTheProcessWhenADestructorThrows)
{
    EXPECT_EXIT(load(kGood)->create("ThrowsInDestructor", {}, "a"),
                ::testing::KilledBySignal(SIGABRT), "cannot be destroyed");
}

TEST_F(PluginLoaderLifetime, LetsTheLoaderOutliveItsBlocks)
{
    const std::string path = fixture_path(kGood);
    auto loader = load(kGood);
    UniqueDlPtr<Container> block = std::get<0>(loader->create("Recorder", {}, "a"));
    const LogRecorder log;

    block = {};
    EXPECT_TRUE(is_mapped(path));
    loader.reset();

    EXPECT_FALSE(is_mapped(path));
    EXPECT_EQ(log.texts(), (Texts{"destroy a", "create functions gone", unloaded(path)}));
}

TEST_F(PluginLoaderLifetime, HoldsInEveryOrderOfDestruction)
{
    enum { kLoader, kGraph, kBlock };
    const std::string path = fixture_path(kGood);
    std::array<int, 3> order = {kLoader, kGraph, kBlock};

    do {
        SCOPED_TRACE(::testing::PrintToString(order));
        ASSERT_FALSE(is_mapped(path));
        auto loader = load(kGood);
        auto graph = std::make_unique<Superblock>("graph");
        auto& inner = static_cast<Superblock&>(
            graph->add_block({nullptr, std::make_unique<Superblock>("inner")}));
        graph->add_block(loader->create("Recorder", {}, "member"));
        inner.add_block(loader->create("Graph", {}, "nested"));
        auto block = loader->create("Token", {}, "");
        const LogRecorder log;

        for (const int step : order) {
            EXPECT_TRUE(is_mapped(path));
            switch (step) {
                case kLoader:
                    loader.reset();
                    break;
                case kGraph:
                    graph.reset();
                    break;
                default:
                    std::get<0>(block) = {};
                    break;
            }
        }

        EXPECT_FALSE(is_mapped(path));
        EXPECT_EQ(log.texts().back(), unloaded(path));
        EXPECT_EQ(log.texts().size(), 5U);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(PluginLoaderLifetime, ReleasesTheShareOfARefusedBlock)
{
    const std::string path = fixture_path(kGood);
    Superblock superblock("graph");
    superblock.add_block({nullptr, std::make_unique<Block>("a")});
    auto loader = load(kGood);
    auto created = loader->create("Recorder", {}, "a");
    loader.reset();
    const LogRecorder log;

    expect_throw<std::runtime_error>(
        [&] { superblock.add_block(std::move(created)); },
        "Failed to add block: a block with the same name already exists: a");

    EXPECT_EQ(log.texts(), (Texts{"destroy a", unloaded(path)}));
    EXPECT_FALSE(is_mapped(path));
}

TEST_F(PluginLoaderLifetime, KeepsSeveralPluginsApart)
{
    auto first = load(kGood);
    auto second = load("fixture_other.so");
    auto superblock = std::make_unique<Superblock>("graph");
    superblock->add_block(first->create("Recorder", {}, "a"));
    superblock->add_block(second->create("Recorder", {}, "b"));

    first.reset();
    second.reset();
    EXPECT_TRUE(is_mapped(fixture_path(kGood)));
    EXPECT_TRUE(is_mapped(fixture_path("fixture_other.so")));

    superblock.reset();
    EXPECT_FALSE(is_mapped(fixture_path(kGood)));
    EXPECT_FALSE(is_mapped(fixture_path("fixture_other.so")));
}

TEST_F(PluginLoaderLifetime, SharesOneFileBetweenLoaders)
{
    const std::string path = fixture_path(kGood);
    auto first = load(kGood);
    auto second = load(kGood);
    UniqueDlPtr<Container> block = std::get<0>(first->create("Recorder", {}, "a"));

    second.reset();
    first.reset();
    EXPECT_TRUE(is_mapped(path));

    block = {};
    EXPECT_FALSE(is_mapped(path));
}

TEST_F(PluginLoaderLifetime, KeepsAPluginWhoseFileIsReplacedByARenameUntilItIsUnloaded)
{
    const TemporaryDirectory directory;
    const ScopedEnvironment elsewhere("QUORVAL_PLUGIN_DIR", directory.path().string());
    const std::filesystem::path file = directory.path() / "plugin.so";
    const std::filesystem::path next = directory.path() / "plugin.so.next";
    write_file(file, read_file(fixture_path(kGood)));
    write_file(next, read_file(fixture_path("fixture_catches.so")));
    auto loader = std::make_unique<PluginLoader>("plugin.so", tools_);
    UniqueDlPtr<Container> block = std::get<0>(loader->create("Recorder", {}, "a"));

    std::filesystem::rename(next, file);
    EXPECT_EQ(block->setup({}), (BlockConfiguration{{"doubled", 42}}));
    // The platform goes by the path of what is loaded.
    loader = std::make_unique<PluginLoader>("plugin.so", tools_);
    EXPECT_EQ(std::get<0>(loader->create("Renamed", {}, "b"))->get_name(), "b-made");
    loader.reset();
    block = {};
    loader = std::make_unique<PluginLoader>("plugin.so", tools_);

    EXPECT_EQ(std::get<0>(loader->create("Gain", {}, "c"))->get_name(), "first");
}

TEST_F(PluginLoaderLifetime, UnloadsAfterSharedPointersAndStaticsInInlineFunctionsWereUsed)
{
    auto loader = load(kGood);

    loader->create("Renamed", {}, "banana");
    loader->create("Token", {}, "a");
    loader.reset();

    EXPECT_FALSE(is_mapped(fixture_path(kGood)));
}

TEST_F(PluginLoaderLifetime, LoadsAndUnloadsAgainAndAgain)
{
    const std::string path = fixture_path(kGood);

    for (int i = 0; i < 50; ++i) {
        load(kGood)->create("Graph", {}, "");
        ASSERT_FALSE(is_mapped(path)) << i;
    }
}

// --- Threads --------------------------------------------------------------------------------

void run_on_threads(const std::function<void()>& work)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(work);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(PluginLoaderThreads, MayCreateBlocksOfOnePlugin)
{
    auto loader = load(kGood);

    run_on_threads([&loader] {
        for (int i = 0; i < 50; ++i) {
            const BlockConfiguration config{{"number", i}};
            const auto [block, returned] = loader->create("Token", config, "");
            ASSERT_EQ(returned.getInt("doubled"), 2 * i);
        }
    });

    loader.reset();
    EXPECT_FALSE(is_mapped(fixture_path(kGood)));
}

TEST_F(PluginLoaderThreads, MayLetGoOfTheLastBlock)
{
    auto loader = load(kGood);
    std::vector<UniqueDlPtr<Container>> blocks;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        blocks.push_back(std::get<0>(loader->create("Recorder", {}, "")));
    }
    loader.reset();

    for (auto& block : blocks) {
        threads.emplace_back([&block] { block = {}; });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_FALSE(is_mapped(fixture_path(kGood)));
}

TEST_F(PluginLoaderThreads, MayEachHaveLoadersOfTheirOwn)
{
    run_on_threads([this] {
        for (int i = 0; i < 20; ++i) {
            load(kGood)->create("Graph", {}, "");
            EXPECT_THROW(load("fixture_throws.so"), std::runtime_error);
        }
    });

    EXPECT_FALSE(is_mapped(fixture_path(kGood)));
    EXPECT_FALSE(is_mapped(fixture_path("fixture_throws.so")));
}

}  // namespace
