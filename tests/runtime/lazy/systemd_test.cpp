#include "control/handles.h"
#include "runtime/control/fake_bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using ::testing::ElementsAre;

namespace {

struct Numbers {
    std::int32_t one = 1;
    std::int32_t two = 2;
    std::int32_t three = 3;
};

// NOLINTNEXTLINE(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)
const sd_bus_vtable kTable[] = {SD_BUS_VTABLE_START(0),
                                SD_BUS_PROPERTY("One", "i", nullptr, offsetof(Numbers, one),
                                                SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
                                SD_BUS_PROPERTY("Two", "i", nullptr, offsetof(Numbers, two),
                                                SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
                                SD_BUS_PROPERTY("Three", "i", nullptr, offsetof(Numbers, three),
                                                SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
                                SD_BUS_VTABLE_END};

TEST(Systemd, TellsOfThePropertiesThatAreNamed)
{
    quorval_test::FakeBus other_end;
    std::vector<std::string> signals;
    other_end.on("PropertiesChanged", [&signals](sd_bus_message* signal) {
        signals.push_back(quorval_test::read_values(signal));
        return 0;
    });
    Numbers numbers;
    BusHandle bus;
    ASSERT_EQ(open_bus(Bus::User, bus), 0);
    ASSERT_GE(
        sd_bus_add_object_vtable(bus.get(), nullptr, "/object", "test.Object", kTable, &numbers),
        0);
    const auto emit = [&bus](auto... names) {
        return sd_bus_emit_properties_changed(bus.get(), "/object", "test.Object", names...,
                                              nullptr);
    };

    EXPECT_GE(emit(static_cast<const char*>(nullptr)), 0);
    EXPECT_GE(emit("Two"), 0);
    EXPECT_GE(emit("Three", "One"), 0);
    bus.reset();
    other_end.stop();

    EXPECT_THAT(signals, ElementsAre("test.Object ((Two (2))) ()",
                                     "test.Object ((Three (3)) (One (1))) ()"));
}

}  // namespace
