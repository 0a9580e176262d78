#include "quorval/fdevent.h"

#include "fake_updater.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Quorval::FDEvent;
using quorval_test::expect_throw;
using quorval_test::FakeUpdater;
using Calls = std::vector<std::string>;

constexpr FDEvent::EventMask kReadable{true, false};
constexpr FDEvent::EventMask kWritable{false, true};

static_assert(sizeof(FDEvent::EventMask) == 2);
static_assert(std::is_aggregate_v<FDEvent::EventMask>);
static_assert(std::is_trivially_copyable_v<FDEvent::EventMask>);
static_assert(!std::is_copy_constructible_v<FDEvent> && !std::is_copy_assignable_v<FDEvent>);
static_assert(std::is_move_constructible_v<FDEvent> && std::is_move_assignable_v<FDEvent>);
static_assert(std::is_polymorphic_v<FDEvent::IFDEventUpdater>);
static_assert(!std::has_virtual_destructor_v<FDEvent::IFDEventUpdater>);
static_assert(!std::is_destructible_v<FDEvent::IFDEventUpdater>);

void ignore(bool /*readable*/, bool /*writable*/) {}

TEST(EventMask, HoldsReadableThenWritableInterest)
{
    const FDEvent::EventMask mask{true, false};

    EXPECT_TRUE(mask.readable);
    EXPECT_FALSE(mask.writable);
    EXPECT_EQ(reinterpret_cast<const char*>(&mask.writable) -
                  reinterpret_cast<const char*>(&mask.readable),
              1);
}

TEST(EventMask, ComparesBothFlags)
{
    const FDEvent::EventMask masks[] = {{false, false}, {false, true}, {true, false}, {true, true}};

    for (const auto& left : masks) {
        for (const auto& right : masks) {
            EXPECT_EQ(left == right, &left == &right);
            EXPECT_EQ(left != right, &left != &right);
        }
    }
}

TEST(FDEventConstruction, StoresTheValuesAndCallsNothing)
{
    FakeUpdater updater;
    std::vector<std::pair<bool, bool>> seen;

    const FDEvent event(
        7, kWritable,
        [&seen](bool readable, bool writable) { seen.emplace_back(readable, writable); }, updater);
    event.get_callback()(true, false);
    event.get_callback()(false, true);

    EXPECT_EQ(event.get_fd(), 7);
    EXPECT_EQ(event.get_mask(), kWritable);
    EXPECT_EQ(seen, (std::vector<std::pair<bool, bool>>{{true, false}, {false, true}}));
    EXPECT_EQ(updater.calls, Calls{});
}

TEST(FDEventConstruction, HandsOutTheStoredCallbackItself)
{
    FakeUpdater updater;
    const FDEvent event(7, kReadable, ignore, updater);

    static_assert(
        std::is_same_v<decltype(event.get_callback()), const std::function<void(bool, bool)>&>);
    EXPECT_EQ(&event.get_callback(), &event.get_callback());
    EXPECT_NE(event.get_callback().target<void (*)(bool, bool)>(), nullptr);
}

TEST(FDEventConstruction, TakesAnEmptyCallback)
{
    FakeUpdater updater;

    const FDEvent event(7, kReadable, nullptr, updater);

    EXPECT_FALSE(event.get_callback());
}

TEST(FDEventDestruction, RemovesTheRegistrationBeforeTheCallbackGoes)
{
    FakeUpdater updater;
    auto token = std::make_shared<int>();
    long owners_at_remove = 0;
    updater.on_remove = [&](FDEvent& /*event*/) { owners_at_remove = token.use_count(); };
    std::optional<FDEvent> event(
        std::in_place, 7, kReadable, [token](bool, bool) {}, updater);

    event.reset();

    EXPECT_EQ(updater.calls, Calls{"remove 7 r-"});
    EXPECT_EQ(owners_at_remove, 2);
    EXPECT_EQ(token.use_count(), 1);
}

TEST(FDEventMove, TakesTheValuesAndTellsNobody)
{
    FakeUpdater updater;
    auto token = std::make_shared<int>();
    FDEvent source(
        7, kReadable, [token](bool, bool) {}, updater);

    const FDEvent event(std::move(source));

    EXPECT_EQ(event.get_fd(), 7);
    EXPECT_EQ(event.get_mask(), kReadable);
    EXPECT_TRUE(event.get_callback());
    EXPECT_EQ(token.use_count(), 2);
    EXPECT_EQ(source.get_fd(), -1);
    EXPECT_EQ(updater.calls, Calls{});
}

TEST(FDEventMove, StillRemovesTheMovedFromObject)
{
    FakeUpdater updater;

    {
        FDEvent source(7, kReadable, ignore, updater);
        const FDEvent event(std::move(source));
    }

    EXPECT_EQ(updater.calls, (Calls{"remove 7 r-", "remove -1 r-"}));
}

TEST(FDEventMove, AssignsTheValuesAndTheUpdater)
{
    FakeUpdater first;
    FakeUpdater second;
    auto old_token = std::make_shared<int>();
    auto new_token = std::make_shared<int>();
    {
        FDEvent event(
            7, kReadable, [old_token](bool, bool) {}, first);
        FDEvent source(
            8, kWritable, [new_token](bool, bool) {}, second);

        FDEvent& result = (event = std::move(source));

        EXPECT_EQ(&result, &event);
        EXPECT_EQ(event.get_fd(), 8);
        EXPECT_EQ(event.get_mask(), kWritable);
        EXPECT_EQ(source.get_fd(), -1);
        EXPECT_EQ(old_token.use_count(), 1);
        EXPECT_EQ(new_token.use_count(), 2);
        EXPECT_EQ(first.calls, Calls{});
        EXPECT_EQ(second.calls, Calls{});
    }
    EXPECT_EQ(first.calls, Calls{});
    EXPECT_EQ(second.calls, (Calls{"remove -1 -w", "remove 8 -w"}));
}

TEST(FDEventMove, LeavesAnObjectThatIsAssignedToItself)
{
    FakeUpdater updater;
    FDEvent event(7, kReadable, ignore, updater);
    FDEvent& alias = event;

    event = std::move(alias);

    EXPECT_EQ(event.get_fd(), 7);
    EXPECT_EQ(event.get_mask(), kReadable);
    EXPECT_TRUE(event.get_callback());
}

TEST(FDEventMove, LeavesAMovedFromObjectUsable)
{
    FakeUpdater updater;
    FDEvent source(7, kReadable, ignore, updater);
    const FDEvent taken(std::move(source));

    source.change_fd(9);
    source.change_mask(kWritable);

    EXPECT_EQ(source.get_fd(), 9);
    EXPECT_EQ(source.get_mask(), kWritable);
    EXPECT_FALSE(source.get_callback());
    EXPECT_EQ(updater.calls, (Calls{"update_fd -1 r- -> 9", "update_mask 9 r- -> -w"}));
}

TEST(FDEventChange, PassesANewMaskOnWhileItHoldsTheOldOne)
{
    FakeUpdater updater;
    FDEvent event(7, kReadable, ignore, updater);

    event.change_mask(kWritable);

    EXPECT_EQ(updater.calls, Calls{"update_mask 7 r- -> -w"});
    EXPECT_EQ(event.get_mask(), kWritable);
}

TEST(FDEventChange, PassesAnEqualMaskOnToo)
{
    FakeUpdater updater;
    FDEvent event(7, kReadable, ignore, updater);

    event.change_mask(kReadable);

    EXPECT_EQ(updater.calls, Calls{"update_mask 7 r- -> r-"});
}

TEST(FDEventChange, KeepsTheMaskWhenTheUpdaterThrows)
{
    FakeUpdater updater;
    FDEvent event(7, kReadable, ignore, updater);
    updater.refuses = true;

    expect_throw<std::logic_error>([&] { event.change_mask(kWritable); }, "no room");

    EXPECT_EQ(event.get_mask(), kReadable);
}

TEST(FDEventChange, PassesANewDescriptorOnWhileItHoldsTheOldOne)
{
    FakeUpdater updater;
    FDEvent event(7, kReadable, ignore, updater);

    event.change_fd(0);
    event.change_fd(INT_MAX);

    EXPECT_EQ(updater.calls, (Calls{"update_fd 7 r- -> 0", "update_fd 0 r- -> 2147483647"}));
    EXPECT_EQ(event.get_fd(), INT_MAX);
}

TEST(FDEventChange, KeepsTheDescriptorWhenTheUpdaterThrows)
{
    FakeUpdater updater;
    FDEvent event(7, kReadable, ignore, updater);
    updater.refuses = true;

    expect_throw<std::logic_error>([&] { event.change_fd(8); }, "no room");

    EXPECT_EQ(event.get_fd(), 7);
}

TEST(FDEventChange, RefusesANegativeDescriptor)
{
    FakeUpdater updater;
    FDEvent event(7, kReadable, ignore, updater);

    for (const int fd : {-1, -5, INT_MIN}) {
        expect_throw<std::runtime_error>([&] { event.change_fd(fd); },
                                         "FDEvent: invalid fd " + std::to_string(fd));
    }

    EXPECT_EQ(event.get_fd(), 7);
    EXPECT_EQ(updater.calls, Calls{});
}

}  // namespace
