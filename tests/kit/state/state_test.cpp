#include <quorval/config.h>
#include <quorval/pstore.h>
#include <quorval/state.h>
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Quorval::load_state;
using Quorval::PStore;
using Quorval::save_state;
using quorval_test::expect_throw;
using quorval_test::FileSizeLimit;
using quorval_test::read_file;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

class State : public testing::Test {
protected:
    std::string file() const { return directory_.store_path() + "state"; }

    void write(const std::string& bytes) const
    {
        // Some file systems write a file at once that replaces the content of an old one.
        std::filesystem::remove(file());
        write_file(file(), bytes);
    }

    /// What is wrong with the file, as load_state() tells.
    std::string find_damage()
    {
        const std::string begin = "the state " + file() + " is damaged: ";
        try {
            load_state(store_, "state");
            return "";
        } catch (const std::runtime_error& error) {
            const std::string text = error.what();
            EXPECT_EQ(text.substr(0, begin.size()), begin);
            return text.substr(begin.size());
        }
    }

    const BlockConfiguration state_ = {
        {"gain", 0.5},        {"flags", {true, false}}, {"id", 3},
        {"is_on", true},      {"name", "left"},         {"taps", {0.25, -1.0}},
        {"words", {"a", ""}}, {"x-.y-", {1, 2}}};
    TemporaryDirectory directory_;
    PStore store_{directory_.store_path()};
};

TEST_F(State, IsLoadedAsItWasSaved)
{
    save_state(store_, "state", state_);

    EXPECT_EQ(load_state(store_, "state"), state_);
}

TEST_F(State, MayBeEmpty)
{
    save_state(store_, "state", {});

    EXPECT_EQ(load_state(store_, "state"), BlockConfiguration());
}

TEST_F(State, IsNotThereBeforeItWasSaved)
{
    EXPECT_EQ(load_state(store_, "state"), std::nullopt);
}

TEST_F(State, IsUnreadWhenItIsLoaded)
{
    save_state(store_, "state", {{"gain", 0.5}});

    const auto state = load_state(store_, "state");

    ASSERT_TRUE(state.has_value());
    EXPECT_FALSE(state->is_consumed());
    EXPECT_EQ(state->getDouble("gain"), 0.5);
    EXPECT_TRUE(state->is_consumed());
}

TEST_F(State, LoadsNumbersThatAreNone)
{
    save_state(store_, "state", {{"gain", std::numeric_limits<double>::quiet_NaN()}});

    EXPECT_TRUE(load_state(store_, "state")->getDouble("gain") !=
                load_state(store_, "state")->getDouble("gain"));
}

TEST_F(State, IsAPlainStoreFileWithASeal)
{
    save_state(store_, "state", state_, 7);

    const BlockConfiguration plain = store_.load("state");

    EXPECT_EQ(plain.diff(state_).iterate("")->key(), "-");
    EXPECT_EQ(plain.getDouble("gain"), 0.5);
    EXPECT_EQ(plain.getIntVector("-")[0], 7);
    EXPECT_EQ(plain.getIntVector("-")[1], 8);
}

TEST_F(State, ThatIsCutIsFoundWhereverItIsCut)
{
    save_state(store_, "state", state_);
    const std::string whole = read_file(file());

    for (std::size_t size = 0; size < whole.size(); ++size) {
        write(whole.substr(0, size));
        EXPECT_NE(find_damage(), "") << size << " bytes of " << whole.size();
    }
}

TEST_F(State, ThatLostElementsSaysHowMany)
{
    save_state(store_, "state", state_);
    const std::string whole = read_file(file());
    const std::size_t last = whole.rfind("x-.y-") - 8;

    write(whole.substr(0, last));

    EXPECT_EQ(find_damage(), "it holds 7 of 8 elements");
}

TEST_F(State, WithAWrongBitIsFound)
{
    save_state(store_, "state", state_);
    const std::string whole = read_file(file());
    const std::size_t seal_key = 8;

    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            std::string wrong = whole;
            wrong[at] = static_cast<char>(static_cast<unsigned char>(wrong[at]) ^ (1U << bit));
            if (at == seal_key && wrong[at] == 'm') {
                continue;  // another key, so there is no seal
            }
            write(wrong);
            // Any byte but 0 is true.
            EXPECT_TRUE(!find_damage().empty() || load_state(store_, "state") == state_)
                << "byte " << at << ", bit " << bit;
        }
    }
}

TEST_F(State, ThatHoldsNothingIsDamaged)
{
    write("");

    EXPECT_EQ(find_damage(), "it holds nothing");
}

TEST_F(State, WithASealOfAnotherFormIsDamaged)
{
    for (const std::vector<int>& seal : {std::vector<int>{1, 0}, {0, 0, 0, 0}, {-1, 0, 0, 0}}) {
        store_.store("state", {{"-", seal}});
        EXPECT_EQ(find_damage(), "its seal is wrong");
    }
}

TEST_F(State, WithAnotherValueHasTheWrongChecksum)
{
    save_state(store_, "state", state_);
    BlockConfiguration changed = store_.load("state");
    changed.set("id", 4);
    store_.store("state", changed);

    EXPECT_EQ(find_damage(), "its checksum is wrong");
}

TEST_F(State, ThatCannotBeOpenedIsNotDamaged)
{
    EXPECT_THROW(
        {
            std::filesystem::create_symlink("state", file());  // it leads to itself
            load_state(store_, "state");
        },
        std::ios_base::failure);
    PStore none;
    expect_throw<std::runtime_error>([&] { load_state(none, "state"); },
                                     "PStore path is not configured");
}

TEST_F(State, WithoutASealIsOfVersion0)
{
    store_.store("state", state_);
    int version = -1;

    const auto state = load_state(store_, "state", 2, [&](BlockConfiguration old, int found) {
        version = found;
        old.set("id", 4);
        return old;
    });

    EXPECT_EQ(version, 0);
    EXPECT_EQ(state, state_ + BlockConfiguration({{"id", 4}}));
    EXPECT_EQ(load_state(store_, "state"), state_);
}

TEST_F(State, OfAnOlderVersionIsMigrated)
{
    save_state(store_, "state", {{"gain_db", 20.0}}, 1);

    const auto migrate = [](const BlockConfiguration& old, int version) {
        EXPECT_EQ(version, 1);
        return BlockConfiguration({{"gain", old.getDouble("gain_db") / 2}});
    };

    EXPECT_EQ(load_state(store_, "state", 2, migrate), BlockConfiguration({{"gain", 10.0}}));
}

TEST_F(State, OfThePresentVersionIsNotMigrated)
{
    save_state(store_, "state", state_, 2);

    const auto migrate = [](BlockConfiguration state, int /*version*/) {
        ADD_FAILURE() << "it was migrated";
        return state;
    };

    EXPECT_EQ(load_state(store_, "state", 2, migrate), state_);
}

TEST_F(State, OfAVersionToComeIsRefused)
{
    save_state(store_, "state", state_, 3);

    expect_throw<std::runtime_error>([&] { load_state(store_, "state", 2); },
                                     "the state " + file() + " has the version 3, newer than 2");
}

TEST_F(State, IsRefusedWithAKeyThatWouldHideTheSeal)
{
    save_state(store_, "state", state_);
    for (const char* key : {"", "-"}) {
        BlockConfiguration wrong;
        wrong.set(key, std::vector<int>{1, 2, 3, 4});
        expect_throw<std::invalid_argument>(
            [&] { save_state(store_, "state", wrong); },
            std::string("a state cannot have the key '") + key + "'");
    }
    expect_throw<std::invalid_argument>([&] { save_state(store_, "state", {}, 0); },
                                        "a state has a version of 1 or more");

    EXPECT_EQ(load_state(store_, "state"), state_);
}

TEST_F(State, ThatHasNoRoomIsReportedAndFoundAtTheNextLoad)
{
    {
        const FileSizeLimit full(150);
        expect_throw<std::runtime_error>([&] { save_state(store_, "state", state_); },
                                         "there is no room for the state " + file());
    }
    EXPECT_NE(find_damage(), "");
}

TEST_F(State, IsSealedAgainByTools)
{
    BlockConfiguration config = Quorval::seal_state(state_, 3);
    EXPECT_EQ(Quorval::get_state_version(config), 3);
    EXPECT_EQ(Quorval::find_state_damage(config), "");

    config.set("id", 4);
    EXPECT_EQ(Quorval::find_state_damage(config), "its checksum is wrong");
    config = Quorval::seal_state(config, 3);

    EXPECT_EQ(Quorval::find_state_damage(config), "");
    EXPECT_EQ(Quorval::get_state_version(state_), 0);
    EXPECT_EQ(Quorval::find_state_damage(state_), "");
}

}  // namespace
