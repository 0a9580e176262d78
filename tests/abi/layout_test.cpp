// Sizes and the places of fields, which plug-ins have compiled in.
#include <quorval/block.h>
#include <quorval/pluginloader.h>
#include <quorval/pstore.h>
#include <quorval/superblock.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>

using namespace Quorval;

namespace {

constexpr std::size_t kPointer = sizeof(void*);
constexpr std::size_t kString = sizeof(std::string);

// Both targets have pointers of 64 bits and the same standard library.
static_assert(kPointer == 8 && kString == 32 && sizeof(std::function<void()>) == 32);

// A table pointer alone.
static_assert(sizeof(Container) == kPointer);
static_assert(sizeof(IRegistry) == kPointer);
static_assert(sizeof(BlockConfiguration::Iterator) == kPointer);
static_assert(sizeof(FDEvent::IFDEventUpdater) == kPointer);

// A table pointer and the pointer to the private record.
static_assert(sizeof(Block) == 2 * kPointer && alignof(Block) == kPointer);
static_assert(sizeof(Superblock) == 2 * kPointer && alignof(Superblock) == kPointer);
static_assert(sizeof(PluginLoader) == 2 * kPointer && alignof(PluginLoader) == kPointer);
static_assert(!std::is_base_of_v<Block, Superblock>);

// The pointer to the private record alone.
static_assert(sizeof(BlockConfiguration) == kPointer);
static_assert(!std::is_polymorphic_v<BlockConfiguration>);
static_assert(sizeof(BlockConfiguration::KeyValue) == 2 * kPointer);
static_assert(sizeof(BlockConfiguration::KeyValue::StringWrapper) == kString);
static_assert(sizeof(BlockConfiguration::SubtreeIterator) == kPointer + kString);
static_assert(sizeof(BlockConfiguration::SubtreeIterator::Accessor) == 2 * kPointer + kString);
static_assert(sizeof(BlockConfiguration::SubtreeIterator::InternalIterator) == kPointer);
static_assert(sizeof(BlockConfiguration::SubtreeIterator::Iterator) == kPointer);

static_assert(sizeof(BlockConfiguration::Type) == 4);
static_assert(static_cast<int>(BlockConfiguration::Type::Int) == 0);
static_assert(static_cast<int>(BlockConfiguration::Type::Bool) == 1);
static_assert(static_cast<int>(BlockConfiguration::Type::Double) == 2);
static_assert(static_cast<int>(BlockConfiguration::Type::String) == 3);
static_assert(static_cast<int>(BlockConfiguration::Type::IntVector) == 4);
static_assert(static_cast<int>(BlockConfiguration::Type::DoubleVector) == 5);
static_assert(static_cast<int>(BlockConfiguration::Type::StringVector) == 6);
static_assert(static_cast<int>(BlockConfiguration::Type::BoolVector) == 7);

static_assert(sizeof(loglevel) == 4 && std::is_signed_v<std::underlying_type_t<loglevel>>);
static_assert(LOGLEVEL_FATAL == 0 && LOGLEVEL_CRITICAL == 1 && LOGLEVEL_ERROR == 2);
static_assert(LOGLEVEL_WARNING == 3 && LOGLEVEL_INFO == 4 && LOGLEVEL_DEBUG == 5);

// Two bytes, handed over in a register.
static_assert(sizeof(FDEvent::EventMask) == 2 && alignof(FDEvent::EventMask) == 1);
static_assert(std::is_trivially_copyable_v<FDEvent::EventMask>);
static_assert(std::is_aggregate_v<FDEvent::EventMask>);
static_assert(offsetof(FDEvent::EventMask, readable) == 0);
static_assert(offsetof(FDEvent::EventMask, writable) == 1);

static_assert(sizeof(Datatype) == kString + sizeof(std::size_t));
static_assert(sizeof(FDEvent) == 48);
static_assert(sizeof(Port) == 88);
static_assert(sizeof(OutPortInternal) == 96);
static_assert(sizeof(InPortProvider) == sizeof(Port));
static_assert(sizeof(InPortInternal) == 96);
static_assert(sizeof(FdPort) == 104);
static_assert(sizeof(EventPort) == sizeof(FdPort));
static_assert(sizeof(InPort<double>) == sizeof(InPortInternal));
static_assert(sizeof(OutPort<double>) == sizeof(OutPortInternal) + sizeof(double));
static_assert(sizeof(DBusMeta) == 2 * kString + 2 * kPointer);
static_assert(sizeof(DlLoader) == kPointer + kString);
static_assert(!std::is_polymorphic_v<DlLoader>);
static_assert(sizeof(UniqueDlPtr<Container>) == 3 * kPointer);
static_assert(sizeof(PStore) == kString);
static_assert(!std::is_polymorphic_v<PStore>);
static_assert(sizeof(LogInstance) == 2 * kPointer);

std::ptrdiff_t distance(const void* object, const void* field)
{
    return static_cast<const char*>(field) - static_cast<const char*>(object);
}

/// What lies `offset` bytes into an object.
template <class T>
const T& field_at(const void* object, std::size_t offset)
{
    return *reinterpret_cast<const T*>(static_cast<const char*>(object) + offset);
}

/// The sink, the updater and the tools that the objects need, and that nobody calls here.
class NoUpdater : public FDEvent::IFDEventUpdater {
public:
    virtual ~NoUpdater() = default;
    void update_fd(FDEvent&, int) override {}
    void update_mask(FDEvent&, FDEvent::EventMask) override {}
    void remove(FDEvent&) override {}
};

TEST(Layout, DatatypeIsItsNameThenThePositionOfTheLastSlash)
{
    const Datatype type("/prefix/image/rgb");

    EXPECT_EQ(field_at<std::string>(&type, 0), "/prefix/image/rgb");
    EXPECT_EQ(field_at<std::size_t>(&type, kString), 13U);
}

TEST(Layout, PortHasNameDatatypeTriggeredAutoResetBehindTheTablePointer)
{
    InPort<int> port("the name", Datatype("/prefix/image/rgb"), false);
    OutPort<int> source("source", Datatype("int32"));
    source.trigger();

    const bool triggered_before = field_at<bool>(&port, 80);
    port.update(source);

    EXPECT_EQ(field_at<std::string>(&port, 8), "the name");
    EXPECT_EQ(field_at<Datatype>(&port, 40), Datatype("/prefix/image/rgb"));
    EXPECT_FALSE(triggered_before);
    EXPECT_TRUE(field_at<bool>(&port, 80));
    EXPECT_FALSE(field_at<bool>(&port, 81));
    EXPECT_TRUE(field_at<bool>(&source, 81));
}

TEST(Layout, OutPortInternalAddsItsDataPointer)
{
    OutPort<int> port("p", Datatype("int32"));

    port.trigger();

    EXPECT_EQ(field_at<void*>(&port, 88), &port.value());
}

TEST(Layout, InPortInternalAddsItsDataPointer)
{
    OutPort<int> source("source", Datatype("int32"));
    InPort<int> port("p", Datatype("int32"));
    source.trigger();

    port.update(source);

    EXPECT_EQ(field_at<void*>(&port, 88), &source.value());
}

TEST(Layout, FdPortAddsDescriptorMaskReadableWritableAndTheRegistration)
{
    NoUpdater updater;
    FdPort port("p", Datatype("extfd"), 77, {false, true}, true);
    auto event = std::make_unique<FDEvent>(77, FDEvent::EventMask{false, true}, nullptr, updater);
    const FDEvent* const raw = event.get();

    port.set_event(std::move(event));
    port.trigger(true, false);

    EXPECT_EQ(field_at<int>(&port, 84), 77);
    EXPECT_FALSE(field_at<bool>(&port, 88));
    EXPECT_TRUE(field_at<bool>(&port, 89));
    EXPECT_TRUE(field_at<bool>(&port, 90));
    EXPECT_FALSE(field_at<bool>(&port, 91));
    EXPECT_EQ(field_at<const void*>(&port, 96), raw);
}

TEST(Layout, FDEventIsDescriptorMaskCallbackUpdater)
{
    NoUpdater updater;
    int called = 0;
    const FDEvent event(
        77, {false, true}, [&called](bool, bool) { ++called; }, updater);

    const auto& callback = field_at<std::function<void(bool, bool)>>(&event, 8);
    callback(true, true);

    EXPECT_EQ(field_at<int>(&event, 0), 77);
    EXPECT_FALSE(field_at<bool>(&event, 4));
    EXPECT_TRUE(field_at<bool>(&event, 5));
    EXPECT_EQ(called, 1);
    EXPECT_EQ(field_at<void*>(&event, 40), static_cast<FDEvent::IFDEventUpdater*>(&updater));
}

TEST(Layout, DBusMetaIsPathInterfaceUserdataTable)
{
    const DBusMeta meta{};

    EXPECT_EQ(distance(&meta, &meta.path), 0);
    EXPECT_EQ(distance(&meta, &meta.interface), 32);
    EXPECT_EQ(distance(&meta, &meta.userdata), 64);
    EXPECT_EQ(distance(&meta, &meta.vtable), 72);
}

TEST(Layout, DlLoaderIsItsHandleThenItsPath)
{
    const std::string path = QUORVAL_TEST_PLUGIN_DIR "/abi_gain.so";
    DlLoader loader(path);

    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);

    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(field_at<void*>(&loader, 0), handle);
    EXPECT_EQ(field_at<std::string>(&loader, 8), path);
    ::dlclose(handle);
}

TEST(Layout, UniqueDlPtrIsTheLibraryThenTheObject)
{
    auto library = std::make_shared<DlLoader>(QUORVAL_TEST_PLUGIN_DIR "/abi_gain.so");
    auto object = std::make_unique<Block>("b");
    const Block* const raw = object.get();
    const UniqueDlPtr<Container> pointer(library, std::move(object));

    EXPECT_EQ(field_at<std::shared_ptr<DlLoader>>(&pointer, 0), library);
    EXPECT_EQ(field_at<const void*>(&pointer, 16), raw);
}

TEST(Layout, PStoreIsItsPath)
{
    const PStore store("/somewhere/");

    EXPECT_EQ(field_at<std::string>(&store, 0), "/somewhere/");
}

TEST(Layout, LogInstanceIsItsThresholdBehindTheTablePointer)
{
    const LogInstance sink(LOGLEVEL_ERROR);

    EXPECT_EQ(field_at<loglevel>(&sink, 8), LOGLEVEL_ERROR);
}

TEST(Layout, IlogIsItsLevelBehindTheStream)
{
    // Without the part that a virtual base puts at the end.
    constexpr std::size_t stream = sizeof(std::ostringstream) - sizeof(std::ios);
    const ilog message(LOGLEVEL_DEBUG);

    EXPECT_EQ(field_at<loglevel>(&message, stream), LOGLEVEL_DEBUG);
    EXPECT_EQ(sizeof(ilog), stream + 8 + sizeof(std::ios));
}

TEST(Layout, POFStreamIsPathFilenameBufferBehindTheStream)
{
    constexpr std::size_t stream = sizeof(std::ostream) - sizeof(std::ios);
    const quorval_test::TemporaryDirectory directory;
    const POFStream out(directory.store_path(), "state");

    EXPECT_EQ(field_at<std::string>(&out, stream), directory.store_path());
    EXPECT_EQ(field_at<std::string>(&out, stream + kString), "state");
    EXPECT_EQ(distance(&out, out.rdbuf()), static_cast<std::ptrdiff_t>(stream + 2 * kString));
    EXPECT_EQ(sizeof(POFStream), stream + 2 * kString + sizeof(std::stringbuf) + sizeof(std::ios));
}

TEST(Layout, PIFStreamIsPathFilenameBehindTheStream)
{
    constexpr std::size_t stream = sizeof(std::ifstream) - sizeof(std::ios);
    const quorval_test::TemporaryDirectory directory;
    quorval_test::write_file(directory.path() / "state", "x");
    const PIFStream in(directory.path(), "state");

    EXPECT_EQ(field_at<std::filesystem::path>(&in, stream), directory.path());
    EXPECT_EQ(field_at<std::string>(&in, stream + sizeof(std::filesystem::path)), "state");
    EXPECT_EQ(sizeof(PIFStream),
              stream + sizeof(std::filesystem::path) + kString + sizeof(std::ios));
}

}  // namespace
