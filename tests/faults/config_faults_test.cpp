#include <quorval/config.h>
#include <quorval/pstore.h>
#include "config/value.h"
#include "faults/faults.h"

#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace quorval_test;
using Quorval::BlockConfiguration;
using Quorval::POFStream;

using KeyValue = BlockConfiguration::KeyValue;
using Accessor = BlockConfiguration::SubtreeIterator::Accessor;

const std::string kText = "a text that is too long to be kept in place";

const char* const kKey = "inputs.0.a-new-element-with-a-long-key";

std::unique_ptr<BlockConfiguration> prepare_sample()
{
    return std::make_unique<BlockConfiguration>(make_sample());
}

/// What is merged into the sample, or compared with it.
BlockConfiguration make_other()
{
    BlockConfiguration other;
    other.set("inputs.0.amplification-factor", 0.75);
    other.set("inputs.0.human-readable-name", "another name, and not a short one either");
    other.set("inputs.1.channel-names", std::vector<std::string>{kText, kText});
    other.set("inputs.2.first-of-a-further-entry", std::vector<int>{1, 2, 3});
    other.set("outputs.0.human-readable-name", kText);
    other.getDouble("inputs.0.amplification-factor");
    return other;
}

struct Operation {
    const char* name;
    void (*act)(BlockConfiguration& config);
};

/// Expects each operation to fail cleanly at each of its allocations, of which it has at least one.
void expect_clean_failures(const std::vector<Operation>& operations)
{
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        EXPECT_GT(fail_each_allocation(prepare_sample, operation.act, describe), 0U);
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

TEST(ConfigurationOutOfMemory, LeavesTheConfigurationAsItWasWhenASetterFails)
{
    expect_clean_failures({
        {"int", [](auto& config) { config.set(kKey, 1); }},
        {"bool", [](auto& config) { config.set(kKey, true); }},
        {"double", [](auto& config) { config.set(kKey, 1.5); }},
        {"string", [](auto& config) { config.set(kKey, kText); }},
        {"pointer", [](auto& config) { config.set(kKey, kText.c_str()); }},
        {"IntVector", [](auto& config) { config.set(kKey, std::vector<int>{1}); }},
        {"DoubleVector", [](auto& config) { config.set(kKey, std::vector<double>{1}); }},
        {"StringVector",
         [](auto& config) {
             config.set(kKey, std::vector<std::string>{kText, kText});
         }},
        {"BoolVector", [](auto& config) { config.set(kKey, std::vector<bool>{true}); }},
        {"over another type",
         [](auto& config) { config.set("inputs.0.sampling-frequency", kText); }},
        {"over a string", [](auto& config) { config.set("inputs.0.human-readable-name", kText); }},
        {"the first one", [](auto& config) { config.set("a-key-in-front-of-all-others", kText); }},
        {"under an invalid key",
         [](auto& config) { refuse<std::runtime_error>([&] { config.set("in valid", kText); }); }},
        {"null",
         [](auto& config) {
             refuse<std::logic_error>([&] { config.set(kKey, static_cast<const char*>(nullptr)); });
         }},
    });
}

TEST(ConfigurationOutOfMemory, LeavesAnElementUnreadWhenItsCopyFails)
{
    expect_clean_failures({
        {"getInt", [](auto& config) { config.getInt("inputs.0.sampling-frequency"); }},
        {"getBool", [](auto& config) { config.getBool("inputs.0.is-enabled-at-start"); }},
        {"getDouble", [](auto& config) { config.getDouble("inputs.0.amplification-factor"); }},
        {"getFloat", [](auto& config) { config.getFloat("inputs.0.amplification-factor"); }},
        {"getString", [](auto& config) { config.getString("inputs.0.human-readable-name"); }},
        {"getIntVector", [](auto& config) { config.getIntVector("inputs.1.channel-numbers"); }},
        {"getDoubleVector",
         [](auto& config) { config.getDoubleVector("inputs.1.filter-coefficients"); }},
        {"getDoubleVector of ints",
         [](auto& config) { config.getDoubleVector("inputs.1.channel-numbers"); }},
        {"getFloatVector",
         [](auto& config) { config.getFloatVector("inputs.1.filter-coefficients"); }},
        {"getFloatVector of ints",
         [](auto& config) { config.getFloatVector("inputs.1.channel-numbers"); }},
        {"getStringVector", [](auto& config) { config.getStringVector("inputs.1.channel-names"); }},
        {"getBoolVector", [](auto& config) { config.getBoolVector("inputs.1.channel-is-muted"); }},
    });
}

TEST(ConfigurationOutOfMemory, LeavesTheConfigurationAsItWasWhenAGetterWithADefaultFails)
{
    expect_clean_failures({
        {"getInt", [](auto& config) { config.getInt("inputs.0.sampling-frequency", 1); }},
        {"getBool", [](auto& config) { config.getBool("inputs.0.is-enabled-at-start", true); }},
        {"getDouble", [](auto& config) { config.getDouble("inputs.0.amplification-factor", 1.0); }},
        {"getFloat", [](auto& config) { config.getFloat("inputs.0.amplification-factor", 1.0F); }},
        {"getString present",
         [](auto& config) { config.getString("inputs.0.human-readable-name", kText); }},
        {"getIntVector present",
         [](auto& config) { config.getIntVector("inputs.1.channel-numbers", {}); }},
        {"getDoubleVector present",
         [](auto& config) { config.getDoubleVector("inputs.1.channel-numbers", {}); }},
        {"getFloatVector present",
         [](auto& config) { config.getFloatVector("inputs.1.filter-coefficients", {}); }},
        {"getStringVector present",
         [](auto& config) { config.getStringVector("inputs.1.channel-names", {}); }},
        {"getBoolVector present",
         [](auto& config) { config.getBoolVector("inputs.1.channel-is-muted", {}); }},
        {"getString absent", [](auto& config) { config.getString(kKey, kText); }},
        {"getIntVector absent",
         [](auto& config) { config.getIntVector(kKey, std::vector<int>{1}); }},
        {"getDoubleVector absent",
         [](auto& config) { config.getDoubleVector(kKey, std::vector<double>{1}); }},
        {"getFloatVector absent",
         [](auto& config) { config.getFloatVector(kKey, std::vector<float>{1}); }},
        {"getStringVector absent",
         [](auto& config) { config.getStringVector(kKey, std::vector<std::string>{kText}); }},
        {"getBoolVector absent",
         [](auto& config) { config.getBoolVector(kKey, std::vector<bool>{true}); }},
    });
}

TEST(ConfigurationOutOfMemory, LeavesTheConfigurationAsItWasWhenARefusalCannotBeWorded)
{
    expect_clean_failures({
        {"getInt of a missing key",
         [](auto& config) { refuse<std::out_of_range>([&] { config.getInt(kKey); }); }},
        {"getInt of another type",
         [](auto& config) {
             refuse<std::runtime_error>([&] { config.getInt("inputs.0.human-readable-name"); });
         }},
        {"getFloatVector of another type",
         [](auto& config) {
             refuse<std::runtime_error>(
                 [&] { config.getFloatVector("inputs.0.sampling-frequency", {}); });
         }},
        {"getType of a missing key",
         [](auto& config) { refuse<std::invalid_argument>([&] { config.getType(kKey); }); }},
        {"getTypeName of a missing key",
         [](auto& config) { refuse<std::invalid_argument>([&] { config.getTypeName(kKey); }); }},
    });
}

TEST(ConfigurationOutOfMemory, LeavesTheConfigurationAsItWasWhenItIsTakenApart)
{
    expect_clean_failures({
        {"getSubtree", [](auto& config) { config.getSubtree("inputs.1"); }},
        {"iterate", [](auto& config) { config.iterate("inputs"); }},
        {"iterate_subtree", [](auto& config) { config.iterate_subtree("the.name.of.a.subtree"); }},
        {"a walk over children",
         [](auto& config) {
             for (const Accessor& child : config.iterate_subtree("inputs")) {
                 child.full_key();
             }
         }},
        {"an internal iterator",
         [](auto& config) {
             BlockConfiguration::SubtreeIterator::InternalIterator it(config, "inputs");
             it.current_path();
             it.advance();
             it.config();
             it.is_end();
         }},
        {"the path of an ended iterator",
         [](auto& config) {
             BlockConfiguration::SubtreeIterator::InternalIterator it(config, "a.missing.prefix");
             refuse<std::runtime_error>([&] { it.current_path(); });
         }},
        {"the configuration of an iterator without one",
         [](auto&) {
             const BlockConfiguration::SubtreeIterator::InternalIterator it;
             refuse<std::runtime_error>([&] { it.config(); });
         }},
        {"the child behind the last one",
         [](auto& config) {
             const auto children = config.iterate_subtree("inputs");
             refuse<std::runtime_error>([&] { *children.end(); });
         }},
        {"an iterator beyond its end",
         [](auto& config) {
             const auto it = config.iterate("none");
             refuse<std::runtime_error>([&] { it->advance(); });
         }},
        {"the key of an ended iterator",
         [](auto& config) {
             const auto it = config.iterate("none");
             refuse<std::runtime_error>([&] { it->key(); });
         }},
        {"the element of an ended iterator",
         [](auto& config) {
             const auto it = config.iterate("none");
             refuse<std::runtime_error>([&] { it->getString(); });
         }},
        {"references to elements",
         [](auto& config) { config.iterate("inputs.1.channel-names")->getStringVector(); }},
    });
}

TEST(ConfigurationOutOfMemory, LeavesTheConfigurationAsItWasWhenAnAccessorFails)
{
    expect_clean_failures({
        {"its making",
         [](auto& config) { Accessor(config, "inputs.0.and-more-than-fits", 7).full_key(); }},
        {"prefix",
         [](auto& config) { Accessor(config, "inputs-with-a-long-name.0", 24).prefix(); }},
        {"key", [](auto& config) { Accessor(config, "p.a-component-with-a-long-name", 2).key(); }},
        {"index", [](auto& config) { Accessor(config, "p.12345678901234567890123", 2).index(); }},
        {"path", [](auto& config) { Accessor(config, "inputs.0", 7).path("sampling-frequency"); }},
        {"getInt",
         [](auto& config) { Accessor(config, "inputs.0", 7).getInt("sampling-frequency"); }},
        {"getBool",
         [](auto& config) { Accessor(config, "inputs.0", 7).getBool("is-enabled-at-start"); }},
        {"getDouble",
         [](auto& config) { Accessor(config, "inputs.0", 7).getDouble("amplification-factor"); }},
        {"getFloat",
         [](auto& config) { Accessor(config, "inputs.0", 7).getFloat("amplification-factor"); }},
        {"getString",
         [](auto& config) { Accessor(config, "inputs.0", 7).getString("human-readable-name"); }},
        {"getIntVector",
         [](auto& config) { Accessor(config, "inputs.1", 7).getIntVector("channel-numbers"); }},
        {"getDoubleVector",
         [](auto& config) {
             Accessor(config, "inputs.1", 7).getDoubleVector("filter-coefficients");
         }},
        {"getFloatVector",
         [](auto& config) {
             Accessor(config, "inputs.1", 7).getFloatVector("filter-coefficients");
         }},
        {"getStringVector",
         [](auto& config) { Accessor(config, "inputs.1", 7).getStringVector("channel-names"); }},
        {"getBoolVector",
         [](auto& config) { Accessor(config, "inputs.1", 7).getBoolVector("channel-is-muted"); }},
        {"getInt with a default",
         [](auto& config) { Accessor(config, "inputs.0", 7).getInt("sampling-frequency", 1); }},
        {"getBool with a default",
         [](auto& config) {
             Accessor(config, "inputs.0", 7).getBool("is-enabled-at-start", true);
         }},
        {"getDouble with a default",
         [](auto& config) {
             Accessor(config, "inputs.0", 7).getDouble("amplification-factor", 1.0);
         }},
        {"getFloat with a default",
         [](auto& config) {
             Accessor(config, "inputs.0", 7).getFloat("amplification-factor", 1.0F);
         }},
        {"getString with a default",
         [](auto& config) { Accessor(config, "inputs.0", 7).getString("missing-name", kText); }},
        {"getIntVector with a default",
         [](auto& config) { Accessor(config, "inputs.0", 7).getIntVector("missing-name", {1}); }},
        {"getDoubleVector with a default",
         [](auto& config) {
             Accessor(config, "inputs.0", 7).getDoubleVector("missing-name", {1});
         }},
        {"getFloatVector with a default",
         [](auto& config) { Accessor(config, "inputs.0", 7).getFloatVector("missing-name", {1}); }},
        {"getStringVector with a default",
         [](auto& config) {
             Accessor(config, "inputs.0", 7).getStringVector("missing-name", {kText, kText});
         }},
        {"getBoolVector with a default",
         [](auto& config) {
             Accessor(config, "inputs.0", 7).getBoolVector("missing-name", {true});
         }},
        {"getType",
         [](auto& config) { Accessor(config, "inputs.0", 7).getType("sampling-frequency"); }},
        {"getSubtree",
         [](auto& config) { Accessor(config, "inputs", 0).getSubtree("0-with-a-long-name"); }},
        {"iterate_subtree",
         [](auto& config) { Accessor(config, "inputs", 0).iterate_subtree("0-with-a-long-name"); }},
    });
}

TEST(ConfigurationOutOfMemory, LeavesTheConfigurationAsItWasWhenAWholeOneIsMade)
{
    expect_clean_failures({
        {"an empty one", [](auto&) { BlockConfiguration(); }},
        {"copy", [](auto& config) { BlockConfiguration copy(config); }},
        {"an element in a moved-from one",
         [](auto& config) {
             BlockConfiguration moved(std::move(config));
             try {
                 config.set("k", 1);
             } catch (const std::bad_alloc&) {
                 config = std::move(moved);
                 throw;
             }
         }},
        {"assignment", [](auto& config) { config = make_other(); }},
        {"copying assignment",
         [](auto& config) {
             const BlockConfiguration other = make_other();
             config = other;
         }},
        {"sum", [](auto& config) { config = config + make_other(); }},
        {"diff", [](auto& config) { config = config.diff(make_other()); }},
        {"rebase", [](auto& config) { config.rebase("a-prefix-with-a-long-name"); }},
    });
}

TEST(ConfigurationOutOfMemory, MergesAPartAtMost)
{
    const BlockConfiguration other = make_other();
    const BlockConfiguration sample = make_sample();
    const BlockConfiguration merged = sample + other;
    const std::string expected = describe(merged);

    const std::size_t failures = run_with_each_failure([&](std::size_t nth, Mode mode) {
        BlockConfiguration config = sample;
        const bool has_failed = runs_out_of_memory(nth, mode, [&] { config += other; });

        // Each element is that of before or that of the sum, and none is missing.
        EXPECT_EQ(sample.diff(config).diff(sample), BlockConfiguration());
        EXPECT_EQ(config.diff(sample).diff(merged), BlockConfiguration());
        config += other;
        EXPECT_EQ(describe(config), expected);
        return has_failed;
    });

    EXPECT_GT(failures, 20U);
}

TEST(ConfigurationOutOfMemory, NeverFailsWhereNothingHasToBeAllocated)
{
    const std::vector<Operation> operations = {
        {"is_consumed", [](auto& config) { config.is_consumed(); }},
        {"==", [](auto& config) { static_cast<void>(config == config); }},
        {"!=", [](auto& config) { static_cast<void>(config != config); }},
        {"delete_element", [](auto& config) { config.delete_element("0"); }},
        {"getType",
         [](auto& config) {
             static const std::string key = "inputs.0.sampling-frequency";
             config.getType(key);
             config.getTypeName(key);
         }},
        {"load and save",
         [](auto& config) {
             std::ifstream in;
             std::ofstream out;
             config.load(in);
             config.save(out);
         }},
        {"move",
         [](auto& config) {
             BlockConfiguration other(std::move(config));
             config = std::move(other);
         }},
        {"assignment to itself", [](auto& config) { config = *&config; }},
        {"merging into itself", [](auto& config) { config += *&config; }},
    };

    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        EXPECT_EQ(fail_each_allocation(prepare_sample, operation.act, describe), 0U);
    }
}

// What makes them fast takes memory, which they can do without.
TEST(ConfigurationOutOfMemory, LooksUpWithoutTheTableThatIsMadeThen)
{
    BlockConfiguration config;
    for (int number = 100; number < 300; ++number) {
        config.set(std::to_string(number), number);
    }
    for (int round = 0; round < 2; ++round) {
        const FailingAllocation failing(1, Mode::FromThenOn);
        for (int number = 100; number < 300; ++number) {
            EXPECT_EQ(config.getInt(std::to_string(number)), number);
            EXPECT_EQ(config.getDouble(std::to_string(number), 0.5), number);
        }
        EXPECT_EQ(config.getInt("099", 7), 7);
        EXPECT_EQ(config.getInt("1505", 7), 7);
        EXPECT_EQ(config.getInt("300", 7), 7);
        EXPECT_EQ(config.getType("150"), BlockConfiguration::Type::Int);
        EXPECT_TRUE(FailingAllocation::has_failed());
    }
    EXPECT_EQ(allocations_of([&] { config.getInt("150"); }), 1U);
    EXPECT_EQ(allocations_of([&] { config.getInt("151"); }), 0U);
}

// Sizes at which the storage has to grow, and keys in front of all, among them and behind.
TEST(ConfigurationOutOfMemory, SetsNothingWhereTheStorageCannotGrow)
{
    for (const int count : {0, 1, 8, 32, 64, 128}) {
        for (const char* key : {"a-rather-long-key-in-front", "k103-a-rather-long-key", "z"}) {
            SCOPED_TRACE(std::to_string(count) + " and " + key);
            const auto prepare = [count] {
                auto config = std::make_unique<BlockConfiguration>();
                for (int number = 100; number < 100 + count; ++number) {
                    config->set("k" + std::to_string(number), number);
                }
                return config;
            };
            const std::string text = key;
            const auto act = [&text](BlockConfiguration& config) { config.set(text, 1); };
            EXPECT_GT(fail_each_allocation(prepare, act, describe), 0U);
        }
    }
}

TEST(ConfigurationOutOfMemory, IsNotMadeWhenItsLiteralFails)
{
    const std::size_t failures = fail_each_allocation([] {
        BlockConfiguration config{
            {"an-int-with-a-rather-long-key", 1},
            {"a-bool-with-a-rather-long-key", true},
            {"a-double-with-a-rather-long-key", 0.5},
            {"a-string-with-a-rather-long-key", "a text that is too long to be kept in place"},
            {"another-string-with-a-long-key", kText},
            {"ints-with-a-rather-long-key", {1, 2, 3}},
            {"bools-with-a-rather-long-key", {true, false}},
            {"doubles-with-a-rather-long-key", {0.5, 1.5}},
            {"strings-with-a-rather-long-key", {"a text that is too long to be kept", "b"}},
            {"more-strings-with-a-long-key", {kText, kText}},
            {"vector-of-ints-with-a-long-key", std::vector<int>{1}},
            {"vector-of-bools-with-a-long-key", std::vector<bool>{true}},
            {"vector-of-doubles-with-a-long-key", std::vector<double>{0.5}},
            {"vector-of-strings-with-a-long-key", std::vector<std::string>{kText}},
            {"vector-of-pointers-with-a-long-key", std::vector<const char*>{kText.c_str()}},
            {"a-subtree-with-a-rather-long-key", {{"member-with-a-rather-long-key", kText}}},
            {"a-list-with-a-rather-long-key",
             {{{"member-with-a-rather-long-key", 1}}, {{"member-with-a-rather-long-key", 2}}}},
        };
        // A walk: a look-up could do without the memory that fails.
        const auto last = config.iterate("a-list-with-a-rather-long-key.1");
        EXPECT_EQ(last->getInt(), 2);
    });

    EXPECT_GT(failures, 100U);
}

TEST(ConfigurationOutOfMemory, LosesNothingWhenALiteralIsRefused)
{
    const char* const null = nullptr;
    const std::string key = "a-key-of-more-than-a-few-characters";
    const std::vector<std::function<void()>> literals = {
        [&] { refuse<std::logic_error>([&] { KeyValue(key, null); }); },
        [&] { refuse<std::logic_error>([&] {
                  KeyValue(key, {kText.c_str(), null});
              }); },
        [&] { refuse<std::logic_error>([&] { KeyValue(null, 1); }); },
        [&] {
            refuse<std::runtime_error>([&] { BlockConfiguration{{key, kText}, {"in valid", 1}}; });
        },
    };

    for (std::size_t at = 0; at < literals.size(); ++at) {
        SCOPED_TRACE(at);
        EXPECT_GT(fail_each_allocation(literals[at]), 0U);
    }
}

TEST(ConfigurationOutOfMemory, StoresTheFirstMembersOfASubtreeWhole)
{
    const std::string first = "a-first-member-with-a-long-key";
    const std::string second = "a-second-member-with-a-long-key";
    const KeyValue literals[] = {
        {"a-subtree-with-a-long-key", {{first, kText}, {second, kText}}},
        {"a-list-with-a-rather-long-key", {{{first, kText}}, {{second, kText}}}},
    };
    for (const KeyValue& literal : literals) {
        BlockConfiguration whole = make_sample();
        KeyValue::set_recursively(whole, "", literal);
        const std::string expected = describe(whole);
        std::size_t parts = 0;

        run_with_each_failure([&](std::size_t nth, Mode mode) {
            BlockConfiguration config = make_sample();
            const bool has_failed = runs_out_of_memory(
                nth, mode, [&] { KeyValue::set_recursively(config, "", literal); });

            EXPECT_EQ(make_sample().diff(config), BlockConfiguration());
            EXPECT_EQ(config.diff(whole), BlockConfiguration());
            parts += has_failed && config != make_sample() ? 1 : 0;
            KeyValue::set_recursively(config, "", literal);
            EXPECT_EQ(describe(config), expected);
            return has_failed;
        });

        EXPECT_GT(parts, 0U);
    }
}

// The mark comes before the copy, as it comes before the check of the type.
TEST(ConfigurationOutOfMemory, ConsumesAnElementOfWhichAWalkCannotCopyTheFloats)
{
    const std::string key = "inputs.1.filter-coefficients";

    const std::size_t failures = run_with_each_failure([&](std::size_t nth, Mode mode) {
        BlockConfiguration config{{key, {0.25, -1.5}}};
        std::unique_ptr<BlockConfiguration::Iterator> it = config.iterate(key);
        const bool has_failed = runs_out_of_memory(nth, mode, [&] { it->getFloatVector(); });

        EXPECT_TRUE(config.is_consumed());
        EXPECT_EQ(it->getFloatVector(), (std::vector<float>{0.25F, -1.5F}));
        return has_failed;
    });

    EXPECT_EQ(failures, 2U);
}

TEST(ConfigurationOutOfMemory, StoresALeafWholeOrNotAtAll)
{
    const KeyValue leaf("a-leaf-with-a-rather-long-key", std::vector<std::string>{kText, kText});
    const auto act = [&leaf](BlockConfiguration& config) {
        KeyValue::set_recursively(config, "a-prefix-with-a-long-name.", leaf);
    };

    EXPECT_GT(fail_each_allocation(prepare_sample, act, describe), 0U);
}

TEST(ConfigurationOutOfMemory, KeepsTheTextOfAStreamWholeOrMarksTheStreamBad)
{
    const BlockConfiguration config = make_sample();
    std::ostringstream whole;
    whole << config;
    const std::string before = describe(config);

    const std::size_t failures = run_with_each_failure([&](std::size_t nth, Mode mode) {
        std::ostringstream text;
        const Outcome outcome = try_without_memory(nth, mode, [&] { text << config; });

        EXPECT_EQ(outcome.threw || !text, outcome.has_failed);
        EXPECT_EQ(text.str() == whole.str(), !outcome.has_failed);
        EXPECT_EQ(describe(config), before);
        return outcome.has_failed;
    });

    EXPECT_GT(failures, 0U);
}

/// The bytes that a configuration is written as.
std::string to_bytes(const BlockConfiguration& config)
{
    const TemporaryDirectory directory;
    Quorval::PStore store(directory.store_path());
    store.store("bytes", config);
    return read_file(directory.path() / "bytes");
}

TEST(ConfigurationOutOfMemory, ReadsWholeElementsAndEndsQuietlyInAHeader)
{
    const BlockConfiguration sample = make_sample();
    const std::string bytes = to_bytes(sample);
    std::size_t thrown = 0;
    std::size_t quiet = 0;

    run_with_each_failure([&](std::size_t nth, Mode mode) {
        std::istringstream in(bytes);
        BlockConfiguration config;
        const Outcome outcome = try_without_memory(nth, mode, [&] { in >> config; });

        EXPECT_EQ(config.diff(sample), BlockConfiguration());
        // The end of the data is found by an exception, whose text may fail without a loss.
        EXPECT_TRUE(config == sample || outcome.has_failed);
        // What is read once more is read whole.
        std::istringstream again(bytes);
        again >> config;
        EXPECT_EQ(config, sample);
        thrown += outcome.threw ? 1 : 0;
        quiet += outcome.has_failed && !outcome.threw ? 1 : 0;
        return outcome.has_failed;
    });

    EXPECT_GT(thrown, 0U);
    EXPECT_GT(quiet, 0U);
}

TEST(ConfigurationOutOfMemory, StaysAsItWasWhenItsBytesCannotBeGathered)
{
    const TemporaryDirectory directory;
    const auto act = [&directory](BlockConfiguration& config) {
        POFStream out(directory.store_path(), "never-closed");
        out << config;
    };

    EXPECT_GT(fail_each_allocation(prepare_sample, act, describe), 0U);
}

TEST(ConfigurationOutOfMemory, PrintsToStandardOutputWithoutHarm)
{
    struct Printed {
        std::unique_ptr<BlockConfiguration> config = prepare_sample();
        std::ostringstream text;
        std::streambuf* before = std::cout.rdbuf(text.rdbuf());

        ~Printed()
        {
            std::cout.rdbuf(before);
            std::cout.clear();
        }
    };
    const std::string before = describe(make_sample());
    std::ostringstream whole;
    whole << make_sample() << std::endl;

    const std::size_t failures = run_with_each_failure([&](std::size_t nth, Mode mode) {
        Printed printed;
        const Outcome outcome = try_without_memory(nth, mode, [&] { printed.config->print(); });

        const std::string text = printed.text.str();
        EXPECT_EQ(text == whole.str(), !outcome.has_failed);
        EXPECT_EQ(text, whole.str().substr(0, text.size()));
        EXPECT_EQ(describe(*printed.config), before);
        return outcome.has_failed;
    });

    EXPECT_GT(failures, 0U);
}

// A variant that is assigned to could be left without a value.
TEST(CopyValue, LeavesTheValueThatIsReplacedWhenTheCopyFails)
{
    using Quorval::content_if;
    const Quorval::Value text = Quorval::make_value(kText);
    const Quorval::Value texts = Quorval::make_value(std::vector<std::string>{kText, kText});

    struct Row {
        const Quorval::Value& source;
        std::size_t allocations;
    };
    for (const Row& row : {Row{text, 1}, Row{texts, 2}}) {
        for (std::size_t nth = 1; nth <= row.allocations; ++nth) {
            SCOPED_TRACE(nth);
            const long live = live_allocations();
            {
                Quorval::Value target = 5;
                const bool has_failed = runs_out_of_memory(
                    nth, Mode::Once, [&] { target = Quorval::copy_value(row.source); });

                EXPECT_TRUE(has_failed);
                ASSERT_FALSE(target.valueless_by_exception());
                ASSERT_NE(content_if<int>(target), nullptr);
                EXPECT_EQ(*content_if<int>(target), 5);
            }
            EXPECT_EQ(live_allocations(), live);
        }
    }
}

TEST(CopyValue, CopiesEveryAlternative)
{
    const Quorval::Value values[] = {
        Quorval::make_value(1),
        Quorval::make_value(true),
        Quorval::make_value(0.5),
        Quorval::make_value(kText),
        Quorval::make_value(std::vector<int>{1, 2}),
        Quorval::make_value(std::vector<double>{0.5}),
        Quorval::make_value(std::vector<std::string>{kText}),
        Quorval::make_value(std::vector<bool>{true, false}),
    };

    for (std::size_t index = 0; index < std::size(values); ++index) {
        SCOPED_TRACE(index);
        const Quorval::Value copy = Quorval::copy_value(values[index]);
        EXPECT_EQ(copy.index(), index);
    }
}

}  // namespace
