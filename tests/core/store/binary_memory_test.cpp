// The memory that reading and writing the binary form take.
#include <quorval/config.h>
#include <quorval/pstore.h>
#include "core/store/binary_form.h"
#include "support/allocations.h"
#include "support/support.h"

#include <cereal/cereal.hpp>

#include <cstddef>
#include <cstdint>
#include <istream>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

using Quorval::BlockConfiguration;
using Quorval::POFStream;
using quorval_test::AllocationLimit;
using quorval_test::bytes_of;
using quorval_test::count_of;
using quorval_test::expect_throw;
using quorval_test::header_of;
using quorval_test::peak_of;
using quorval_test::TemporaryDirectory;
using quorval_test::text_of;
using quorval_test::Unseekable;

namespace {

std::unique_ptr<std::streambuf> open(const std::string& content, bool can_seek)
{
    if (can_seek) {
        return std::make_unique<std::stringbuf>(content, std::ios::in);
    }
    return std::make_unique<Unseekable>(content);
}

/// Reads what may be damaged.
void read(std::istream& in, BlockConfiguration& config)
{
    try {
        in >> config;
    } catch (const cereal::Exception&) {
        // Of no interest here.
    }
}

struct Claim {
    std::string name;
    std::string content;
};

/// Contents that claim to hold `count` items of whatever can be counted, and hold `there` bytes.
std::vector<Claim> claims(std::uint64_t count, std::size_t there)
{
    // Read as the lengths of texts, these bytes are all zero.
    const std::string rest(there, '\0');
    std::vector<Claim> result = {
        {"a key", count_of(count) + rest},
        {"a type name", text_of("k") + count_of(count) + rest},
        {"a text in a vector",
         header_of("k", "StringVector") + count_of(1) + count_of(count) + rest},
    };
    for (const std::string type_name :
         {"string", "IntVector", "DoubleVector", "StringVector", "BoolVector"}) {
        result.push_back({type_name, header_of("k", type_name) + count_of(count) + rest});
    }
    return result;
}

}  // namespace

TEST(BinaryMemory, IsCounted)
{
    const std::size_t taken = peak_of([] { std::string(100'000, 'x'); });

    EXPECT_GE(taken, 100'000U);
    EXPECT_LT(taken, 101'000U);
}

TEST(BinaryMemory, StaysSmallWhateverALengthClaims)
{
    constexpr std::uint64_t kOne = 1;
    constexpr std::size_t kFewSteps = std::size_t{256} * 1024;
    for (const std::uint64_t count :
         {kOne << 20, kOne << 32, kOne << 40, kOne << 60, kOne << 61, (kOne << 61) + 1, kOne << 62,
          (kOne << 62) + 1, kOne << 63, std::numeric_limits<std::uint64_t>::max()}) {
        for (const bool can_seek : {true, false}) {
            for (const Claim& claim : claims(count, 20)) {
                const auto buffer = open(claim.content, can_seek);
                std::istream in(buffer.get());
                BlockConfiguration config;

                const std::size_t taken = peak_of([&] { read(in, config); });

                EXPECT_LE(taken, kFewSteps)
                    << claim.name << " of " << count << (can_seek ? "" : ", cannot seek");
                EXPECT_EQ(config, BlockConfiguration());
            }
        }
    }
}

TEST(BinaryMemory, IsASmallMultipleOfWhatIsThere)
{
    constexpr std::size_t kThere = 4'000'000;
    // A text takes eight bytes at least of the input; in memory, four times as much, and a vector
    // that grows holds its items up to three times.
    constexpr std::size_t kMultiple = 12;
    for (const bool can_seek : {true, false}) {
        for (const Claim& claim : claims(std::uint64_t{1} << 50, kThere)) {
            const auto buffer = open(claim.content, can_seek);
            std::istream in(buffer.get());
            BlockConfiguration config;

            const std::size_t taken = peak_of([&] { read(in, config); });

            const std::size_t multiple = claim.name == "StringVector" ? kMultiple : kMultiple / 4;
            EXPECT_LE(taken, multiple * kThere + 200'000)
                << claim.name << (can_seek ? "" : ", cannot seek");
        }
    }
}

TEST(BinaryMemory, OfAValueThatIsKnownToBeThereIsTakenOnce)
{
    constexpr std::size_t kSize = 8'000'000;
    for (const std::string type_name : {"string", "IntVector", "DoubleVector"}) {
        const std::size_t item = type_name == "string" ? 1 : type_name == "IntVector" ? 4 : 8;
        std::istringstream in(header_of("k", type_name) + count_of(kSize / item) +
                              std::string(kSize, '\1'));
        BlockConfiguration config;

        const std::size_t taken = peak_of([&] { in >> config; });

        EXPECT_GE(taken, kSize) << type_name;
        EXPECT_LE(taken, kSize + 10'000) << type_name;
    }
}

TEST(BinaryMemory, OfWritingIsThatOfTheContent)
{
    constexpr std::size_t kCount = 100'000;
    const TemporaryDirectory directory;
    BlockConfiguration config;
    config.set("numbers", std::vector<double>(kCount));
    config.set("flags", std::vector<bool>(kCount));
    config.set("name", std::string(kCount, 'x'));
    config.set("names", std::vector<std::string>(kCount / 100, std::string(100, 'x')));
    POFStream stream(directory.store_path(), "state");

    const std::size_t most = peak_of([&] { stream << config; });

    EXPECT_LT(most, kCount * (sizeof(double) + 3) * 105 / 100);
}

TEST(BinaryMemory, ThatRunsOutInAHeaderEndsTheReadingQuietly)
{
    const std::string large(1'000'000, 'x');
    const std::string first = header_of("a", "int") + bytes_of(1);
    BlockConfiguration expected;
    expected.set("a", 1);
    for (const std::string& content :
         {first + header_of(large, "int") + bytes_of(1), first + header_of("k", large)}) {
        std::istringstream in(content);
        BlockConfiguration config;
        {
            const AllocationLimit limited(100'000);
            EXPECT_NO_THROW(in >> config);
        }

        EXPECT_EQ(config, expected);
        EXPECT_TRUE(in.good());
    }
}

TEST(BinaryMemory, ThatRunsOutInAValueThrowsAndKeepsWhatWasStored)
{
    BlockConfiguration expected;
    expected.set("a", 1);
    expected.set("k", 2);
    for (const std::string type_name :
         {"string", "IntVector", "DoubleVector", "StringVector", "BoolVector"}) {
        for (const bool can_seek : {true, false}) {
            const auto buffer =
                open(header_of("a", "int") + bytes_of(1) + header_of("k", type_name) +
                         count_of(1'000'000) + std::string(8'000'000, '\0'),
                     can_seek);
            std::istream in(buffer.get());
            BlockConfiguration config;
            config.set("k", 2);
            bool is_thrown = false;
            {
                const AllocationLimit limited(100'000);
                try {
                    in >> config;
                } catch (const std::bad_alloc&) {
                    is_thrown = true;
                }
            }

            EXPECT_TRUE(is_thrown) << type_name << (can_seek ? "" : ", cannot seek");
            EXPECT_EQ(config, expected);
        }
    }
}
