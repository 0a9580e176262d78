#include <quorval/block.h>
#include <quorval/dlloader.h>
#include <quorval/log.h>
#include <quorval/superblock.h>
#include "process_map.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Quorval::Block;
using Quorval::DlLoader;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;
using quorval_test::expect_throw;
using quorval_test::fixture_path;
using quorval_test::is_mapped;
using quorval_test::LogRecorder;
using Texts = std::vector<std::string>;

/// Tells of its destruction in the log, where the unloading of libraries is told too.
struct Told {
    explicit Told(std::string its_name) : name(std::move(its_name)) {}
    Told(const Told&) = delete;
    Told& operator=(const Told&) = delete;
    virtual ~Told() { Quorval::ilog(LOGLEVEL_INFO) << "destroy " << name; }

    std::string name;
};

struct Derived : Told {
    using Told::Told;
    ~Derived() override { Quorval::ilog(LOGLEVEL_INFO) << "derived"; }
};

class ToldBlock : public Block {
public:
    using Block::Block;
    ~ToldBlock() override { Quorval::ilog(LOGLEVEL_INFO) << "destroy " << get_name(); }
};

using Pointer = UniqueDlPtr<Told>;

static_assert(std::is_nothrow_move_constructible_v<Pointer>);
static_assert(std::is_nothrow_move_assignable_v<Pointer>);
static_assert(!std::is_copy_constructible_v<Pointer> && !std::is_copy_assignable_v<Pointer>);
static_assert(std::is_constructible_v<bool, const Pointer&>);
static_assert(!std::is_convertible_v<const Pointer&, bool>, "the test is explicit");
static_assert(sizeof(Pointer) == sizeof(std::shared_ptr<DlLoader>) + sizeof(void*));

std::shared_ptr<DlLoader> open(const char* fixture)
{
    return std::make_shared<DlLoader>(fixture_path(fixture));
}

std::string unloaded(const char* fixture)
{
    return "DlLoader: Unloaded library '" + fixture_path(fixture) + "'.";
}

constexpr const char* kFirst = "fixture_good.so";
constexpr const char* kSecond = "fixture_other.so";

TEST(UniqueDlPtrTest, HoldsNothingAtFirst)
{
    const Pointer pointer;

    EXPECT_FALSE(pointer);
    EXPECT_EQ(pointer.get(), nullptr);
    EXPECT_EQ(pointer.operator->(), nullptr);
}

TEST(UniqueDlPtrTest, ReachesTheObject)
{
    auto object = std::make_unique<Told>("object");
    Told* const raw = object.get();

    const Pointer pointer(nullptr, std::move(object));

    EXPECT_TRUE(pointer);
    EXPECT_EQ(pointer.get(), raw);
    EXPECT_EQ(pointer->name, "object");
    EXPECT_EQ(&*pointer, raw);
}

TEST(UniqueDlPtrTest, MayHoldALibraryAlone)
{
    auto lib = open(kFirst);
    const std::weak_ptr<DlLoader> watched = lib;
    {
        const Pointer pointer(std::move(lib), nullptr);

        EXPECT_FALSE(pointer);
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
}

TEST(UniqueDlPtrDestruction, DestroysTheObjectBeforeTheLibraryGoes)
{
    auto lib = open(kFirst);
    const LogRecorder log;

    {
        const Pointer pointer(std::move(lib), std::make_unique<Derived>("object"));
    }

    EXPECT_EQ(log.texts(), (Texts{"derived", "destroy object", unloaded(kFirst)}));
    EXPECT_FALSE(is_mapped(fixture_path(kFirst)));
}

TEST(UniqueDlPtrDestruction, LeavesTheLibraryToItsOtherOwners)
{
    const auto lib = open(kFirst);
    const LogRecorder log;

    {
        const Pointer pointer(lib, std::make_unique<Told>("object"));
        EXPECT_EQ(lib.use_count(), 2);
    }

    EXPECT_EQ(log.texts(), Texts{"destroy object"});
    EXPECT_EQ(lib.use_count(), 1);
}

TEST(UniqueDlPtrDestruction, DoesNothingForAMovedFromPointer)
{
    auto lib = open(kFirst);
    const LogRecorder log;
    Pointer kept;
    {
        Pointer pointer(std::move(lib), std::make_unique<Told>("object"));
        kept = std::move(pointer);
    }

    EXPECT_EQ(log.texts(), Texts{});
    EXPECT_EQ(kept->name, "object");
}

TEST(UniqueDlPtrMove, TakesObjectAndLibrary)
{
    const auto lib = open(kFirst);
    const LogRecorder log;
    Pointer source(lib, std::make_unique<Told>("object"));
    Told* const raw = source.get();

    const Pointer pointer(std::move(source));

    EXPECT_EQ(pointer.get(), raw);
    EXPECT_FALSE(source);
    EXPECT_EQ(source.get(), nullptr);
    EXPECT_EQ(lib.use_count(), 2);
    EXPECT_EQ(log.texts(), Texts{});
}

TEST(UniqueDlPtrMove, ReplacesTheOldObjectBeforeItsLibraryGoes)
{
    Pointer pointer(open(kFirst), std::make_unique<Told>("old"));
    Pointer source(open(kSecond), std::make_unique<Told>("new"));
    const LogRecorder log;

    Pointer& result = (pointer = std::move(source));

    EXPECT_EQ(&result, &pointer);
    EXPECT_EQ(log.texts(), (Texts{"destroy old", unloaded(kFirst)}));
    EXPECT_EQ(pointer->name, "new");
    EXPECT_FALSE(source);
    EXPECT_FALSE(is_mapped(fixture_path(kFirst)));
    EXPECT_TRUE(is_mapped(fixture_path(kSecond)));
}

TEST(UniqueDlPtrMove, LeavesTheSourceWithoutALibrary)
{
    const auto lib = open(kFirst);
    Pointer pointer(open(kSecond), std::make_unique<Told>("old"));
    Pointer source(lib, std::make_unique<Told>("new"));

    pointer = std::move(source);
    pointer = Pointer();

    EXPECT_EQ(lib.use_count(), 1);
}

TEST(UniqueDlPtrMove, EmptiesByTheAssignmentOfAnEmptyPointer)
{
    Pointer pointer(open(kFirst), std::make_unique<Told>("old"));
    const LogRecorder log;

    pointer = Pointer();

    EXPECT_FALSE(pointer);
    EXPECT_EQ(log.texts(), (Texts{"destroy old", unloaded(kFirst)}));
}

TEST(UniqueDlPtrMove, LeavesAPointerThatIsAssignedToItself)
{
    Pointer pointer(open(kFirst), std::make_unique<Told>("object"));
    Pointer& alias = pointer;
    const LogRecorder log;

    pointer = std::move(alias);

    EXPECT_EQ(pointer->name, "object");
    EXPECT_EQ(log.texts(), Texts{});
}

/// One of a chain, each of which owns the next.
struct Link : Told {
    using Told::Told;

    UniqueDlPtr<Link> next;
};

TEST(UniqueDlPtrMove, TakesASourceThatLiesInTheReplacedObject)
{
    const auto lib = open(kSecond);
    UniqueDlPtr<Link> first(open(kFirst), std::make_unique<Link>("first"));
    first->next = UniqueDlPtr<Link>(lib, std::make_unique<Link>("second"));
    const LogRecorder log;

    first = std::move(first->next);

    EXPECT_EQ(log.texts(), (Texts{"destroy first", unloaded(kFirst)}));
    EXPECT_EQ(first->name, "second");
    EXPECT_EQ(lib.use_count(), 2);
}

TEST(UniqueDlPtrMove, ReusesAMovedFromPointer)
{
    Pointer pointer(nullptr, std::make_unique<Told>("first"));
    const Pointer taken(std::move(pointer));

    pointer = Pointer(nullptr, std::make_unique<Told>("second"));

    EXPECT_EQ(pointer->name, "second");
    EXPECT_EQ(taken->name, "first");
}

TEST(UniqueDlPtrInSuperblock, DestroysARefusedMemberBeforeItsLibraryGoes)
{
    Superblock superblock("graph");
    superblock.add_block({nullptr, std::make_unique<ToldBlock>("a")});
    UniqueDlPtr<Quorval::Container> second(open(kFirst), std::make_unique<ToldBlock>("a"));
    const LogRecorder log;

    expect_throw<std::runtime_error>(
        [&] { superblock.add_block(std::move(second)); },
        "Failed to add block: a block with the same name already exists: a");

    EXPECT_EQ(log.texts(), (Texts{"destroy a", unloaded(kFirst)}));
    EXPECT_FALSE(is_mapped(fixture_path(kFirst)));
}

TEST(UniqueDlPtrInSuperblock, DestroysEachMemberBeforeItsLibraryGoes)
{
    auto superblock = std::make_unique<Superblock>("graph");
    superblock->add_block({open(kFirst), std::make_unique<ToldBlock>("a")});
    superblock->add_block({open(kSecond), std::make_unique<ToldBlock>("b")});
    const LogRecorder log;

    superblock.reset();

    EXPECT_EQ(log.texts(), (Texts{"destroy b", unloaded(kSecond), "destroy a", unloaded(kFirst)}));
}

}  // namespace
