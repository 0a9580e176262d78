// The tables of virtual operations: which operation stands at which place. Plug-ins and
// applications have these places compiled in.
#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/fdevent.h>
#include <quorval/log.h>
#include <quorval/pluginloader.h>
#include <quorval/port.h>
#include <quorval/pstore.h>
#include <quorval/superblock.h>
#include "abi/slots.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

using namespace Quorval;
using quorval_test::slot_of;

namespace {

using Slots = std::vector<std::string>;

std::string demangled(const char* name)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
    return status == 0 ? text.get() : name;
}

void replace_all(std::string& text, const std::string& from, const std::string& to)
{
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

/// "Port::reset(bool)" for the function at `address`. A destructor is "destructor", whose ever it
/// is, as that of a derived class may be that of its base; a deleting one has "deleting " in front
/// of its name. What no library exports is "?".
std::string function_at(const void* address)
{
    Dl_info info{};
    if (::dladdr(address, &info) == 0 || info.dli_saddr != address) {
        return "?";
    }
    const std::string symbol = info.dli_sname;
    std::string name = demangled(info.dli_sname);
    replace_all(name, "Quorval::", "");
    replace_all(name,
                "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >",
                "string");
    replace_all(name, "[abi:cxx11]", "");
    const bool is_deleting = symbol.size() > 4 && symbol.substr(symbol.size() - 4) == "D0Ev";
    if (is_deleting) {
        return "deleting " + name;
    }
    return name.find('~') == std::string::npos ? name : "destructor";
}

/// The exported table of a class, whole: the words in front of its functions left out.
/// @param symbol    its mangled name
/// @param in_front  the words in front of the first function
/// @param functions how many follow; all that remain when it is 0
Slots table(const char* symbol, std::size_t in_front = 2, std::size_t functions = 0)
{
    const auto* words = static_cast<const void* const*>(::dlsym(RTLD_DEFAULT, symbol));
    Dl_info info{};
    void* entry = nullptr;
    if (words == nullptr || ::dladdr1(words, &info, &entry, RTLD_DL_SYMENT) == 0 ||
        entry == nullptr) {
        return {std::string(symbol) + " is not exported"};
    }
    if (functions == 0) {
        functions = static_cast<const ElfW(Sym)*>(entry)->st_size / sizeof(void*) - in_front;
    }
    Slots slots;
    for (std::size_t i = 0; i < functions; ++i) {
        slots.push_back(function_at(words[in_front + i]));
    }
    return slots;
}

const std::string kPure = "__cxa_pure_virtual";

/// The table of a class that has pure operations. Nobody can call the destructors in there, so a
/// compiler may leave their slots empty; those of a derived class show that they are there.
Slots abstract_table(const char* symbol, std::size_t destructor, const std::string& name)
{
    Slots slots = table(symbol);
    for (const std::string& expected : {std::string("destructor"), "deleting " + name}) {
        if (destructor < slots.size() && slots[destructor] == "?") {
            slots[destructor] = expected;
        }
        ++destructor;
    }
    return slots;
}

TEST(Vtable, OfPortHasFourSlots)
{
    const Slots expected{"destructor", "deleting Port::~Port()", "Port::is_triggered() const",
                         "Port::reset(bool)"};

    EXPECT_EQ(table("_ZTVN7Quorval4PortE"), expected);
}

TEST(Vtable, OfOutPortInternalReplacesTheDestructorsAlone)
{
    const Slots expected{"destructor", "deleting OutPortInternal::~OutPortInternal()",
                         "Port::is_triggered() const", "Port::reset(bool)"};

    EXPECT_EQ(table("_ZTVN7Quorval15OutPortInternalE"), expected);
}

TEST(Vtable, OfInPortProviderAddsGetConnectable)
{
    const Slots expected{"destructor", "deleting InPortProvider::~InPortProvider()",
                         "Port::is_triggered() const", "Port::reset(bool)", kPure};

    EXPECT_EQ(
        abstract_table("_ZTVN7Quorval14InPortProviderE", 0, "InPortProvider::~InPortProvider()"),
        expected);
    EXPECT_EQ(slot_of(&InPortProvider::get_connectable), 4);
}

TEST(Vtable, OfInPortInternalFillsGetConnectable)
{
    const Slots expected{"destructor", "deleting InPortInternal::~InPortInternal()",
                         "Port::is_triggered() const", "Port::reset(bool)",
                         "InPortInternal::get_connectable()"};

    EXPECT_EQ(table("_ZTVN7Quorval14InPortInternalE"), expected);
}

TEST(Vtable, OfFdPortAddsGetValue)
{
    const Slots expected{"destructor", "deleting FdPort::~FdPort()", "Port::is_triggered() const",
                         "Port::reset(bool)", "FdPort::get_value() const"};

    EXPECT_EQ(table("_ZTVN7Quorval6FdPortE"), expected);
}

TEST(Vtable, OfEventPortHasAResetOfItsOwn)
{
    const Slots expected{"destructor", "deleting EventPort::~EventPort()",
                         "Port::is_triggered() const", "EventPort::reset(bool)",
                         "FdPort::get_value() const"};

    EXPECT_EQ(table("_ZTVN7Quorval9EventPortE"), expected);
}

TEST(Vtable, OfTheUpdaterHasThreeSlotsAndNoDestructor)
{
    struct Grown : FDEvent::IFDEventUpdater {
        virtual void after_the_last() = 0;

    protected:
        ~Grown() = default;
    };

    EXPECT_EQ(slot_of(&FDEvent::IFDEventUpdater::update_fd), 0);
    EXPECT_EQ(slot_of(&FDEvent::IFDEventUpdater::update_mask), 1);
    EXPECT_EQ(slot_of(&FDEvent::IFDEventUpdater::remove), 2);
    EXPECT_EQ(slot_of(&Grown::after_the_last), 3);
    EXPECT_FALSE(std::has_virtual_destructor_v<FDEvent::IFDEventUpdater>);
}

TEST(Vtable, OfContainerHasTwelveSlots)
{
    Slots expected{"destructor", "deleting Container::~Container()"};
    expected.resize(12, kPure);

    EXPECT_EQ(abstract_table("_ZTVN7Quorval9ContainerE", 0, "Container::~Container()"), expected);
    EXPECT_EQ(slot_of(&Container::setup), 2);
    EXPECT_EQ(slot_of(&Container::get_name), 3);
    EXPECT_EQ(slot_of(&Container::set_name), 4);
    EXPECT_EQ(slot_of(&Container::get_inport), 5);
    EXPECT_EQ(slot_of(&Container::get_outport), 6);
    EXPECT_EQ(slot_of(&Container::get_blocks), 7);
    EXPECT_EQ(slot_of(&Container::get_connections), 8);
    EXPECT_EQ(slot_of(&Container::get_inports_info), 9);
    EXPECT_EQ(slot_of(&Container::get_outports_info), 10);
    EXPECT_EQ(slot_of(&Container::get_fdports_info), 11);
}

TEST(Vtable, OfBlockAppendsTheLifeCycle)
{
    const Slots expected{"destructor",
                         "deleting Block::~Block()",
                         "Block::setup(BlockConfiguration const&)",
                         "Block::get_name() const",
                         "Block::set_name(string)",
                         "Block::get_inport(string const&) const",
                         "Block::get_outport(string const&) const",
                         "Block::get_blocks()",
                         "Block::get_connections()",
                         "Block::get_inports_info() const",
                         "Block::get_outports_info() const",
                         "Block::get_fdports_info() const"};

    Slots slots = table("_ZTVN7Quorval5BlockE");

    EXPECT_EQ(slots.size(), 16U);
    slots.resize(12);
    EXPECT_EQ(slots, expected);
    // By pointer: the empty bodies may be one and the same function.
    EXPECT_EQ(slot_of(&Block::start), 12);
    EXPECT_EQ(slot_of(&Block::stop), 13);
    EXPECT_EQ(slot_of(&Block::run), 14);
    EXPECT_EQ(slot_of(&Block::reconfigure), 15);
}

TEST(Vtable, OfSuperblockIsThatOfAContainer)
{
    const Slots expected{"destructor",
                         "deleting Superblock::~Superblock()",
                         "Superblock::setup(BlockConfiguration const&)",
                         "Superblock::get_name() const",
                         "Superblock::set_name(string)",
                         "Superblock::get_inport(string const&) const",
                         "Superblock::get_outport(string const&) const",
                         "Superblock::get_blocks()",
                         "Superblock::get_connections()",
                         "Superblock::get_inports_info() const",
                         "Superblock::get_outports_info() const",
                         "Superblock::get_fdports_info() const"};

    EXPECT_EQ(table("_ZTVN7Quorval10SuperblockE"), expected);
}

TEST(Vtable, OfIRegistryHasItsDestructorLast)
{
    const Slots expected{kPure, kPure, "destructor", "deleting IRegistry::~IRegistry()"};

    EXPECT_EQ(abstract_table("_ZTVN7Quorval9IRegistryE", 2, "IRegistry::~IRegistry()"), expected);
    EXPECT_EQ(slot_of(&IRegistry::register_block_create_fn), 0);
    EXPECT_EQ(slot_of(&IRegistry::register_type), 1);
}

TEST(Vtable, OfPluginLoaderAddsNothingToTheRegistry)
{
    const Slots slots = table("_ZTVN7Quorval12PluginLoaderE");

    ASSERT_EQ(slots.size(), 4U);
    EXPECT_EQ(slots[0].rfind("PluginLoader::register_block_create_fn(string const&, ", 0), 0U)
        << slots[0];
    EXPECT_EQ(slots[1], "PluginLoader::register_type(string const&)");
    EXPECT_EQ(slots[2], "destructor");
    EXPECT_EQ(slots[3], "deleting PluginLoader::~PluginLoader()");
}

TEST(Vtable, OfLogInstanceHasEmitBehindTheDestructors)
{
    const Slots expected{"destructor", "deleting LogInstance::~LogInstance()",
                         "LogInstance::emit(loglevel, char const*, int)"};

    EXPECT_EQ(table("_ZTVN7Quorval11LogInstanceE"), expected);
}

TEST(Vtable, OfIteratorHasOneSlotForEachTypedAccess)
{
    using Iterator = BlockConfiguration::Iterator;
    Slots expected{"destructor", "deleting BlockConfiguration::Iterator::~Iterator()"};
    expected.resize(15, kPure);

    EXPECT_EQ(abstract_table("_ZTVN7Quorval18BlockConfiguration8IteratorE", 0,
                             "BlockConfiguration::Iterator::~Iterator()"),
              expected);
    EXPECT_EQ(slot_of(&Iterator::is_end), 2);
    EXPECT_EQ(slot_of(&Iterator::advance), 3);
    EXPECT_EQ(slot_of(&Iterator::key), 4);
    EXPECT_EQ(slot_of(&Iterator::getInt), 5);
    EXPECT_EQ(slot_of(&Iterator::getBool), 6);
    EXPECT_EQ(slot_of(&Iterator::getDouble), 7);
    EXPECT_EQ(slot_of(&Iterator::getFloat), 8);
    EXPECT_EQ(slot_of(&Iterator::getString), 9);
    EXPECT_EQ(slot_of(&Iterator::getIntVector), 10);
    EXPECT_EQ(slot_of(&Iterator::getDoubleVector), 11);
    EXPECT_EQ(slot_of(&Iterator::getFloatVector), 12);
    EXPECT_EQ(slot_of(&Iterator::getStringVector), 13);
    EXPECT_EQ(slot_of(&Iterator::getBoolVector), 14);
}

// The streams have a virtual base: one word more in front of the functions, and behind them a
// second table of the same kind.
TEST(Vtable, OfTheStreamsHasDestructorsAlone)
{
    struct Row {
        const char* symbol;
        std::string deleting;
    };
    const Row rows[] = {{"_ZTVN7Quorval4ilogE", "deleting ilog::~ilog()"},
                        {"_ZTVN7Quorval9POFStreamE", "deleting POFStream::~POFStream()"},
                        {"_ZTVN7Quorval9PIFStreamE", "deleting PIFStream::~PIFStream()"}};
    for (const Row& row : rows) {
        const Slots expected{"destructor", row.deleting};

        EXPECT_EQ(table(row.symbol, 3, 2), expected) << row.symbol;
        EXPECT_EQ(table(row.symbol, 0).size(), 2 * (3 + expected.size())) << row.symbol;
    }
}

TEST(Vtable, HoldsNoOtherOperationOfThePublicClasses)
{
    EXPECT_EQ(slot_of(&Port::get_name), -1);
    EXPECT_EQ(slot_of(&Port::get_datatype), -1);
    EXPECT_EQ(slot_of(&OutPortInternal::get_data), -1);
    EXPECT_EQ(slot_of(&InPortInternal::update), -1);
    EXPECT_EQ(slot_of(&FdPort::trigger), -1);
    EXPECT_EQ(slot_of(&FdPort::set_eventmask), -1);
    EXPECT_EQ(slot_of(&EventPort::fire), -1);
    EXPECT_EQ(slot_of(&Block::override_config), -1);
    EXPECT_EQ(slot_of(&Block::add_inport), -1);
    EXPECT_EQ(slot_of(&Block::has_triggered_port), -1);
    EXPECT_EQ(slot_of(&Block::pstore), -1);
    EXPECT_EQ(slot_of(&Superblock::pstore), -1);
    EXPECT_EQ(slot_of(&Superblock::get_block), -1);
    EXPECT_EQ(slot_of(&PluginLoader::create), -1);
    EXPECT_EQ(slot_of(&LogInstance::vlog), -1);
    EXPECT_EQ(slot_of(&LogInstance::output), -1);
}

}  // namespace
