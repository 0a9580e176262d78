#include <quorval/block.h>
#include <quorval/datatype.h>
#include <quorval/fdevent.h>
#include <quorval/port.h>
#include <quorval/pstore.h>
#include "faults/faults.h"

#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Quorval {

// The application's to define: here it holds nothing.
struct RuntimeTools {};

}  // namespace Quorval

namespace {

using namespace quorval_test;
using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Datatype;
using Quorval::EventPort;
using Quorval::FDEvent;
using Quorval::FdPort;
using Quorval::InPort;
using Quorval::InPortInternal;
using Quorval::OutPort;
using Quorval::OutPortInternal;

constexpr FDEvent::EventMask kReadable = {true, false};

const char* const kType = "a-type-name-of-more-than-a-few-characters";
const std::string kOutput = "first-output-with-a-long-name";
const char* const kFreeName = "a-free-port-name-of-many-characters";

// Nothing reads them: a block records where they are.
const sd_bus_vtable kTable[1] = {};
const sd_bus_vtable kOtherTable[1] = {};

class Updater final : public FDEvent::IFDEventUpdater {
public:
    void update_fd(FDEvent& /*event*/, int /*new_fd*/) override {}
    void update_mask(FDEvent& /*event*/, FDEvent::EventMask /*new_mask*/) override {}
    void remove(FDEvent& /*event*/) override {}
};

std::unique_ptr<Block> prepare_block()
{
    auto block = std::make_unique<Block>("a-block-name-of-more-than-a-few-characters",
                                         BlockConfiguration{{"pstore_path", "/a/store/path/"}});
    for (const std::string name : {"first", "second"}) {
        block->add_inport(std::make_unique<InPortInternal>(name + "-input-with-a-long-name",
                                                           Datatype(kType), true));
        block->add_outport(
            std::make_unique<OutPortInternal>(name + "-output-with-a-long-name", Datatype(kType)));
        block->make_fdport(name + "-fdport-with-a-long-name", STDIN_FILENO, kReadable);
    }
    block->add_dbus("/an/object/path/that/is/long", "an.interface.name.that.is.long", kTable,
                    nullptr);
    return block;
}

std::string describe_block(Block& block)
{
    std::ostringstream text;
    text << block.get_name() << '|' << block.pstore().get_path();
    for (const char* const name : {"first-input-with-a-long-name", kFreeName}) {
        const auto inputs = block.get_inports_info();
        text << '|' << inputs.size() << inputs.count(name);
    }
    for (const auto& [name, type] : block.get_outports_info()) {
        text << '|' << name << ':' << type.get_name();
    }
    for (const std::string& name : block.get_fdport_names()) {
        text << '|' << name << (block.get_fdport(name)->is_triggered() ? '!' : ' ');
    }
    for (const Quorval::DBusMeta* meta : block.get_dbus_meta()) {
        text << '|' << meta->path << ' ' << meta->interface << ' ' << meta->vtable;
    }
    return text.str();
}

struct Operation {
    const char* name;
    void (*act)(Block& block);
};

void expect_clean_failures(const std::vector<Operation>& operations)
{
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        EXPECT_GT(fail_each_allocation(prepare_block, operation.act, describe_block), 0U);
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

TEST(BlockOutOfMemory, IsNotMadeWhenItsConstructionFails)
{
    EXPECT_GT(fail_each_allocation([] { Block("a-block-name-of-more-than-a-few-characters"); }),
              0U);
    const BlockConfiguration config = make_sample();
    EXPECT_GT(fail_each_allocation([&config] { Block("a-name-that-is-too-long", config); }), 0U);
    const BlockConfiguration wrong{{"pstore_path", 5}};
    EXPECT_GT(fail_each_allocation([&wrong] {
                  refuse<std::runtime_error>([&] { Block("a-name-that-is-too-long", wrong); });
              }),
              0U);
}

TEST(BlockOutOfMemory, StaysAsItWasWhenAPortCannotBeAdded)
{
    expect_clean_failures({
        {"add_inport",
         [](Block& block) {
             block.add_inport(std::make_unique<InPortInternal>(kFreeName, Datatype(kType), true));
         }},
        {"add_outport",
         [](Block& block) {
             block.add_outport(std::make_unique<OutPortInternal>(kFreeName, Datatype(kType)));
         }},
        {"add_fdport",
         [](Block& block) {
             block.add_fdport(std::make_unique<FdPort>(kFreeName, Datatype(kType), STDIN_FILENO,
                                                       kReadable, true));
         }},
        {"make_fdport",
         [](Block& block) { block.make_fdport(kFreeName, STDIN_FILENO, kReadable); }},
        {"make_eventport", [](Block& block) { block.make_eventport(kFreeName); }},
        {"a typed output",
         [](Block& block) {
             block.add_outport(std::make_unique<OutPort<std::string>>(kFreeName, Datatype(kType)));
         }},
        {"a typed input",
         [](Block& block) {
             block.add_inport(std::make_unique<InPort<std::string>>(kFreeName, Datatype(kType)));
         }},
        {"an input whose name is taken",
         [](Block& block) {
             refuse<std::runtime_error>([&] {
                 block.add_inport(std::make_unique<InPortInternal>("first-input-with-a-long-name",
                                                                   Datatype(kType), true));
             });
         }},
        {"an event port whose name is taken",
         [](Block& block) {
             refuse<std::runtime_error>(
                 [&] { block.make_eventport("first-fdport-with-a-long-name"); });
         }},
        {"no port at all",
         [](Block& block) { refuse<std::invalid_argument>([&] { block.add_outport(nullptr); }); }},
        {"a negative descriptor",
         [](Block& block) {
             refuse<std::runtime_error>([&] { block.make_fdport(kFreeName, -1, kReadable); });
         }},
    });
}

// Where standard input is closed, the system gives its number to the next descriptor.
TEST(BlockOutOfMemory, ClosesTheDescriptorOfAnEventPortEvenIfItIsZero)
{
    const int input = ::dup(STDIN_FILENO);
    Block block("block");
    const std::string name = kFreeName;
    ::close(STDIN_FILENO);

    const Outcome outcome = try_without_memory(1, Mode::Once, [&] { block.make_eventport(name); });
    const bool is_open = ::fcntl(STDIN_FILENO, F_GETFD) != -1;
    ::dup2(input, STDIN_FILENO);
    ::close(input);

    EXPECT_TRUE(outcome.threw);
    EXPECT_FALSE(is_open);
}

TEST(BlockOutOfMemory, StaysAsItWasWhenALookUpFails)
{
    expect_clean_failures({
        {"get_inport", [](Block& block) { block.get_inport("first-input-with-a-long-name"); }},
        {"get_blocks", [](Block& block) { block.get_blocks(); }},
        {"get_inports_info", [](Block& block) { block.get_inports_info(); }},
        {"get_outports_info", [](Block& block) { block.get_outports_info(); }},
        {"get_fdports_info", [](Block& block) { block.get_fdports_info(); }},
        {"get_fdports", [](Block& block) { block.get_fdports(); }},
        {"get_fdport_names", [](Block& block) { block.get_fdport_names(); }},
        {"get_dbus_meta", [](Block& block) { block.get_dbus_meta(); }},
        {"a missing input",
         [](Block& block) { refuse<std::out_of_range>([&] { block.get_inport(kFreeName); }); }},
        {"a missing output",
         [](Block& block) { refuse<std::out_of_range>([&] { block.get_outport(kFreeName); }); }},
        {"a missing descriptor port",
         [](Block& block) { refuse<std::out_of_range>([&] { block.get_fdport(kFreeName); }); }},
        {"missing tools",
         [](Block& block) { refuse<std::runtime_error>([&] { block.get_tools(); }); }},
        {"setup", [](Block& block) { block.setup(BlockConfiguration()); }},
    });
}

TEST(BlockOutOfMemory, StaysAsItWasWhenAChangeFails)
{
    expect_clean_failures({
        {"set_name", [](Block& block) { block.set_name("a-new-name-of-many-characters"); }},
        {"set_tools",
         [](Block& block) { block.set_tools(std::make_shared<Quorval::RuntimeTools>()); }},
        {"pstore", [](Block& block) { block.pstore().set_path("/quite/another/store/path/"); }},
        {"add_dbus",
         [](Block& block) {
             block.add_dbus("/another/object/path/that/is/long", "another.interface.that.is.long",
                            kOtherTable, nullptr);
         }},
        {"add_dbus in place of another",
         [](Block& block) {
             block.add_dbus("/another/object/path/that/is/long", "another.interface.that.is.long",
                            kTable, nullptr);
         }},
        {"add_dbus without a table",
         [](Block& block) {
             refuse<std::runtime_error>([&] { block.add_dbus("/", "a", nullptr, nullptr); });
         }},
        {"override_config of nothing",
         [](Block& block) { block.override_config(BlockConfiguration()); }},
    });
}

TEST(BlockOutOfMemory, NeverFailsInTheCycle)
{
    const std::vector<Operation> operations = {
        {"get_outport", [](Block& block) { block.get_outport(kOutput); }},
        {"get_connections", [](Block& block) { block.get_connections(); }},
        {"get_fdport",
         [](Block& block) {
             static const std::string name = "first-fdport-with-a-long-name";
             block.get_fdport(name)->reset(true);
         }},
        {"get_name", [](Block& block) { block.get_name(); }},
        {"has_triggered_port", [](Block& block) { block.has_triggered_port(); }},
        {"has_external_port", [](Block& block) { block.has_external_port(); }},
        {"has_external_trigger", [](Block& block) { block.has_external_trigger(); }},
        {"reset_inports", [](Block& block) { block.reset_inports(true); }},
        {"reset_fdports", [](Block& block) { block.reset_fdports(true); }},
        {"start, run, stop",
         [](Block& block) {
             block.start();
             block.run();
             block.stop();
         }},
    };

    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        EXPECT_EQ(fail_each_allocation(prepare_block, operation.act, describe_block), 0U);
    }
}

TEST(BlockOutOfMemory, EndsTheProcessInTheWarningAloneWhenItIsReconfigured)
{
    const auto act = [] {
        Block block("a-block-name-of-more-than-a-few-characters", make_sample());
        block.override_config({{"an-element-that-nobody-reads", "and a text that is long"}});
    };

    for (const Mode mode : kModes) {
        const Endings endings = fail_each_allocation_in_child(mode, act);

        EXPECT_EQ(endings.terminated, 1U) << name_of(mode);
        EXPECT_GT(endings.ran_out, 0U) << name_of(mode);
    }
}

TEST(PortsOutOfMemory, AreNotMadeWhenTheirConstructionFails)
{
    const Datatype type(kType);
    struct Construction {
        const char* name;
        void (*act)(const Datatype& type);
    };
    const std::vector<Construction> constructions = {
        {"output", [](const Datatype& t) { OutPortInternal(kFreeName, t); }},
        {"input", [](const Datatype& t) { InPortInternal(kFreeName, t, true); }},
        {"descriptor port",
         [](const Datatype& t) { FdPort(kFreeName, t, STDIN_FILENO, kReadable, true); }},
        {"refused descriptor port",
         [](const Datatype& t) {
             refuse<std::runtime_error>([&] { FdPort(kFreeName, t, -1, kReadable, true); });
         }},
        {"event port", [](const Datatype&) { EventPort(kFreeName, true, STDIN_FILENO); }},
        {"typed output", [](const Datatype& t) { OutPort<int>(kFreeName, t); }},
        {"typed input", [](const Datatype& t) { InPort<int>(kFreeName, t); }},
        {"typed input without data",
         [](const Datatype& t) {
             const InPort<int> port(kFreeName, t);
             refuse<std::runtime_error>([&] { port.value(); });
         }},
        {"a copied type", [](const Datatype& t) { Datatype copy(t); }},
        {"a type", [](const Datatype&) { Datatype made("/prefix/a-path-that-is-long/image"); }},
        {"a refused type",
         [](const Datatype&) {
             refuse<std::runtime_error>([] { Datatype("/prefix/nothing-behind-that"); });
         }},
        {"another refused type",
         [](const Datatype&) {
             refuse<std::runtime_error>([] { Datatype("Upper Case, And Much Of It"); });
         }},
    };

    for (const Construction& construction : constructions) {
        SCOPED_TRACE(construction.name);
        EXPECT_GT(fail_each_allocation([&] { construction.act(type); }), 0U);
    }
}

TEST(PortsOutOfMemory, NeverFailInTheCycle)
{
    struct Ports {
        OutPort<std::string> source{kFreeName, Datatype(kType)};
        InPort<std::string> target{kFreeName, Datatype(kType)};
        EventPort event{kFreeName, true, ::eventfd(0, 0)};
        std::string next = "a text that is too long to be kept in place";
    };
    const auto prepare = [] { return std::make_unique<Ports>(); };
    const auto act = [](Ports& ports) {
        ports.source.write(std::move(ports.next));
        ports.target.update(ports.source);
        ports.target.get_connectable()->reset(false);
        ports.source.reset(true);
        ports.event.fire();
        ports.event.trigger(true, false);
        ports.event.reset(false);
        ports.event.set_eventmask({true, true});
    };
    const auto look = [](Ports& ports) {
        return ports.target.get() == nullptr ? "nothing yet" : ports.target.value();
    };

    EXPECT_EQ(fail_each_allocation(prepare, act, look), 0U);
}

TEST(PortsOutOfMemory, PublishNothingWhenAValueCannotBeCopied)
{
    const auto prepare = [] {
        auto port = std::make_unique<OutPort<std::string>>(kFreeName, Datatype(kType));
        port->value() = "before";
        return port;
    };
    const auto act = [](OutPort<std::string>& port) {
        static const std::string text = "a text that is too long to be kept in place";
        port.write(text);
    };
    const auto look = [](OutPort<std::string>& port) {
        return port.value() + (port.is_triggered() ? "!" : "") +
               (port.get_data() != nullptr ? "published" : "");
    };

    EXPECT_EQ(fail_each_allocation(prepare, act, look), 2U);
}

TEST(DatatypeOutOfMemory, AnswersWithoutAnAllocation)
{
    const Datatype type("/prefix/a-path-that-is-long/image");
    const Datatype other("/prefix/a-path-that-is-long/sound");

    EXPECT_EQ(fail_each_allocation([&] {
                  type.get_name();
                  type.is_generic();
                  type.is_assignable_from(other);
                  static_cast<void>(type == other);
                  static_cast<void>(type != other);
              }),
              0U);
}

TEST(PortsOutOfMemory, StayUsableWhenAFailureCannotBeWorded)
{
    const auto prepare = [] {
        auto port = std::make_unique<EventPort>(kFreeName, true, STDIN_FILENO);
        port->trigger(true, false);
        return port;
    };
    const auto look = [](EventPort& port) {
        return std::to_string(port.get_fd()) + (port.is_triggered() ? "!" : "");
    };
    // A descriptor that can be neither read nor written.
    const auto prepare_closed = [] {
        auto port = std::make_unique<EventPort>(kFreeName, true, 1'000'000);
        port->trigger(true, false);
        return port;
    };

    EXPECT_EQ(fail_each_allocation(
                  prepare,
                  [](EventPort& port) {
                      port.set_eventmask({false, true});
                  },
                  look),
              0U);
    EXPECT_GT(fail_each_allocation(
                  prepare_closed,
                  [](EventPort& port) { refuse<std::system_error>([&] { port.fire(); }); }, look),
              0U);
    EXPECT_GT(
        fail_each_allocation(
            prepare_closed,
            [](EventPort& port) { refuse<std::system_error>([&] { port.reset(true); }); }, look),
        0U);
}

TEST(FDEventOutOfMemory, StaysAsItWasWhenAnOperationFails)
{
    Updater updater;
    const std::string captured = "a text that a callback keeps, and not a short one";
    const auto make = [&] {
        return std::make_unique<FDEvent>(
            5, kReadable, [captured](bool, bool) {}, updater);
    };
    const auto look = [](FDEvent& event) {
        return std::to_string(event.get_fd()) + (event.get_callback() ? "callback" : "");
    };

    EXPECT_GT(fail_each_allocation([&make] { make(); }), 0U);
    EXPECT_GT(fail_each_allocation(
                  make,
                  [](FDEvent& event) {
                      refuse<std::runtime_error>([&] { event.change_fd(-1'000'000); });
                  },
                  look),
              0U);
    EXPECT_EQ(fail_each_allocation(
                  make,
                  [](FDEvent& event) {
                      event.change_fd(6);
                      event.change_mask({false, true});
                      FDEvent moved(std::move(event));
                      event = std::move(moved);
                  },
                  look),
              0U);
}

TEST(FDEventOutOfMemory, IsHandedToAPortWhole)
{
    Updater updater;
    const auto prepare = [] {
        return std::make_unique<FdPort>(kFreeName, Datatype(kType), 5, kReadable, true);
    };
    const auto act = [&updater](FdPort& port) {
        port.set_event(std::make_unique<FDEvent>(
            5, kReadable, [](bool, bool) {}, updater));
    };
    const auto look = [](FdPort& port) {
        return std::string(port.get_event() != nullptr ? "registered" : "alone");
    };

    EXPECT_EQ(fail_each_allocation(prepare, act, look), 2U);
}

}  // namespace
