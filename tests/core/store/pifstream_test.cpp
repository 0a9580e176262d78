#include <quorval/pstore.h>
#include "support/scopes.h"
#include "support/support.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ios>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using Quorval::PIFStream;
using quorval_test::open_descriptors;
using quorval_test::ScopedWorkingDirectory;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

namespace fs = std::filesystem;

namespace {

constexpr std::ios::openmode kMode = std::ios::in | std::ios::binary;

/// The text of the exception with which an ordinary stream reports that it could not be opened.
std::string standard_text()
{
    try {
        std::ifstream in("/nowhere/nowhere");
        in.exceptions(std::ios::badbit | std::ios::failbit);
        return "nothing was thrown";
    } catch (const std::ios_base::failure& failure) {
        return failure.what();
    }
}

/// Expects the standard library's own exception for a stream that has failed.
void expect_failure(const std::function<void()>& action)
{
    try {
        action();
        ADD_FAILURE() << "threw nothing";
    } catch (const std::ios_base::failure& failure) {
        EXPECT_EQ(failure.what(), standard_text());
        EXPECT_EQ(failure.code(), std::make_error_code(std::io_errc::stream));
    }
}

std::string rest_of(std::istream& in)
{
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class PIFStreamTest : public testing::Test {
protected:
    PIFStreamTest()
    {
        write_file(path_ / "state", "abcdef");
        write_file(path_ / "other", "other");
    }

    const TemporaryDirectory directory_;
    const fs::path path_ = directory_.path();
};

using PIFStreamConstruction = PIFStreamTest;
using PIFStreamMove = PIFStreamTest;
using PIFStreamOpen = PIFStreamTest;

}  // namespace

static_assert(std::is_base_of_v<std::ifstream, PIFStream>);
static_assert(!std::is_copy_constructible_v<PIFStream>);
static_assert(std::is_move_constructible_v<PIFStream>);

TEST_F(PIFStreamConstruction, OpensTheFileWithAndWithoutASlashAtTheEndOfThePath)
{
    for (const std::string& path : {directory_.path().string(), directory_.store_path()}) {
        PIFStream in(path, "state");

        EXPECT_TRUE(in.is_open()) << path;
        EXPECT_TRUE(in.good()) << path;
        EXPECT_EQ(in.exceptions(), std::ios::goodbit) << path;
        EXPECT_EQ(rest_of(in), "abcdef") << path;
    }
}

TEST_F(PIFStreamConstruction, ReadsBytesAsTheyAre)
{
    const std::string content("\0\r\n\x1a\xff", 5);
    write_file(path_ / "bytes", content);

    PIFStream in(path_, "bytes");

    EXPECT_EQ(rest_of(in), content);
}

TEST_F(PIFStreamConstruction, TakesARelativePathAndAnEmptyOne)
{
    fs::create_directory(path_ / "sub");
    write_file(path_ / "sub/inner", "inner");

    std::string relative;
    std::string empty;
    {
        const ScopedWorkingDirectory there(path_);
        PIFStream in("sub", "inner");
        relative = rest_of(in);
        PIFStream here("", "state");
        empty = rest_of(here);
    }

    EXPECT_EQ(relative, "inner");
    EXPECT_EQ(empty, "abcdef");
}

TEST_F(PIFStreamConstruction, TakesAnAbsoluteNameInsteadOfThePath)
{
    PIFStream in("/nowhere", (path_ / "state").string());

    EXPECT_EQ(rest_of(in), "abcdef");
}

TEST_F(PIFStreamConstruction, ThrowsForAFileThatCannotBeOpened)
{
    const std::vector<std::pair<fs::path, std::string>> cases = {
        {path_, "missing"},       {path_ / "missing", "state"},    {path_ / "state", "inner"},
        {path_, "missing/state"}, {path_, std::string(5000, 'x')}, {"/nowhere", "state"},
    };
    const std::vector<int> before = open_descriptors();
    for (const auto& [path, name] : cases) {
        SCOPED_TRACE((path / name).string());

        const fs::path& directory = path;
        const std::string& file = name;
        expect_failure([&] { PIFStream(directory, file); });
    }

    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PIFStreamConstruction, MakesNothing)
{
    expect_failure([&] { PIFStream(path_ / "new", "state"); });
    expect_failure([&] { PIFStream(path_, "missing"); });

    EXPECT_FALSE(fs::exists(path_ / "new"));
    EXPECT_FALSE(fs::exists(path_ / "missing"));
}

TEST_F(PIFStreamConstruction, IsUndoneByDestruction)
{
    const std::vector<int> before = open_descriptors();
    {
        PIFStream in(path_, "state");
        EXPECT_EQ(open_descriptors().size(), before.size() + 1);
        EXPECT_EQ(in.get(), 'a');
    }

    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PIFStreamConstruction, DestructionDropsWhatAFailedCloseReports)
{
    const std::vector<int> before = open_descriptors();
    EXPECT_NO_THROW({
        PIFStream in(path_, "state");
        in.exceptions(std::ios::badbit | std::ios::failbit);
        for (const int descriptor : open_descriptors()) {
            if (!std::binary_search(before.begin(), before.end(), descriptor)) {
                ::close(descriptor);
            }
        }
    });

    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PIFStreamOpen, OpensAnotherFileAfterClose)
{
    PIFStream in(path_, "state");
    EXPECT_EQ(rest_of(in), "abcdef");
    in.close();

    in.open(path_ / "other", kMode);

    EXPECT_TRUE(in.good());
    EXPECT_EQ(rest_of(in), "other");
}

TEST_F(PIFStreamOpen, AlwaysReads)
{
    PIFStream in(path_, "state");
    in.close();

    in.open(path_ / "other", std::ios::openmode{});

    EXPECT_EQ(rest_of(in), "other");
}

TEST_F(PIFStreamOpen, HonoursTheMode)
{
    PIFStream in(path_, "state");
    in.close();

    in.open(path_ / "other", std::ios::ate);

    EXPECT_EQ(in.tellg(), 5);
}

TEST_F(PIFStreamOpen, ClearsTheState)
{
    PIFStream in(path_, "state");
    in.close();
    in.setstate(std::ios::eofbit | std::ios::failbit | std::ios::badbit);

    in.open(path_ / "state", kMode);

    EXPECT_TRUE(in.good());
    EXPECT_EQ(rest_of(in), "abcdef");
}

TEST_F(PIFStreamOpen, ThrowsForAMissingFileAndLeavesAFailedStream)
{
    PIFStream in(path_, "state");
    in.close();

    expect_failure([&] { in.open(path_ / "missing", kMode); });

    EXPECT_FALSE(in.is_open());
    EXPECT_EQ(in.rdstate(), std::ios::failbit);
    EXPECT_EQ(in.exceptions(), std::ios::goodbit);
}

TEST_F(PIFStreamOpen, WorksAgainAfterAFailure)
{
    PIFStream in(path_, "state");
    in.close();
    expect_failure([&] { in.open(path_ / "missing", kMode); });

    in.open(path_ / "other", kMode);

    EXPECT_TRUE(in.good());
    EXPECT_EQ(rest_of(in), "other");
}

TEST_F(PIFStreamOpen, OfAnOpenStreamThrowsAndKeepsTheFile)
{
    PIFStream in(path_, "state");
    EXPECT_EQ(in.get(), 'a');

    expect_failure([&] { in.open(path_ / "other", kMode); });

    EXPECT_TRUE(in.is_open());
    EXPECT_EQ(in.rdstate(), std::ios::failbit);
    in.clear();
    EXPECT_EQ(rest_of(in), "bcdef");
}

TEST_F(PIFStreamOpen, KeepsTheExceptionMaskWhetherItSucceedsOrFails)
{
    using std::ios;
    const std::vector<ios::iostate> masks = {ios::goodbit,
                                             ios::badbit,
                                             ios::failbit,
                                             ios::eofbit,
                                             ios::failbit | ios::badbit,
                                             ios::failbit | ios::badbit | ios::eofbit};
    for (const ios::iostate mask : masks) {
        SCOPED_TRACE(mask);
        PIFStream in(path_, "state");
        in.close();
        in.exceptions(mask);

        expect_failure([&] { in.open(path_ / "missing", kMode); });

        EXPECT_EQ(in.exceptions(), mask);
        EXPECT_EQ(in.rdstate(), ios::failbit);

        expect_failure([&] { in.open(path_ / "missing", kMode); });
        in.open(path_ / "other", kMode);

        EXPECT_EQ(in.exceptions(), mask);
        EXPECT_TRUE(in.good());
    }
}

TEST_F(PIFStreamOpen, LeavesTheMaskInForceForLaterReads)
{
    PIFStream in(path_, "state");
    in.close();
    in.exceptions(std::ios::failbit);

    in.open(path_ / "state", kMode);

    std::array<char, 100> bytes;
    EXPECT_THROW(in.read(bytes.data(), bytes.size()), std::ios_base::failure);
    EXPECT_EQ(in.gcount(), 6);
}

TEST_F(PIFStreamOpen, ReportsReadFailuresThroughTheStateAlone)
{
    PIFStream in(path_, "state");
    std::array<char, 100> bytes;

    EXPECT_NO_THROW(in.read(bytes.data(), bytes.size()));

    EXPECT_EQ(in.rdstate(), std::ios::eofbit | std::ios::failbit);
}

TEST_F(PIFStreamMove, ReadsOnWhereTheSourceStood)
{
    PIFStream source(path_, "state");
    EXPECT_EQ(source.get(), 'a');
    EXPECT_EQ(source.get(), 'b');

    PIFStream target(std::move(source));

    EXPECT_TRUE(target.is_open());
    EXPECT_EQ(rest_of(target), "cdef");
    EXPECT_FALSE(source.is_open());
    EXPECT_EQ(rest_of(source), "");
}

TEST_F(PIFStreamMove, TakesTheStateOfTheStreamAlong)
{
    std::ofstream tied;
    PIFStream source(path_, "state");
    source.tie(&tied);
    source.fill('*');
    source.setf(std::ios::hex, std::ios::basefield);
    source.setstate(std::ios::eofbit);
    source.exceptions(std::ios::badbit);

    const PIFStream target(std::move(source));

    EXPECT_EQ(target.tie(), &tied);
    EXPECT_EQ(target.fill(), '*');
    EXPECT_EQ(target.flags() & std::ios::basefield, std::ios::hex);
    EXPECT_EQ(target.rdstate(), std::ios::eofbit);
    EXPECT_EQ(target.exceptions(), std::ios::badbit);
    EXPECT_EQ(source.tie(), nullptr);
    EXPECT_EQ(source.fill(), ' ');
    EXPECT_EQ(source.flags() & std::ios::basefield, std::ios::dec);
    EXPECT_EQ(source.rdstate(), std::ios::goodbit);
    EXPECT_EQ(source.exceptions(), std::ios::goodbit);
}

TEST_F(PIFStreamMove, OpensNoSecondDescriptor)
{
    PIFStream source(path_, "state");
    const std::vector<int> before = open_descriptors();

    const PIFStream target(std::move(source));

    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PIFStreamMove, BothSidesCanBeOpenedAgain)
{
    PIFStream source(path_, "state");
    PIFStream target(std::move(source));
    target.close();

    source.open(path_ / "other", kMode);
    target.open(path_ / "other", kMode);

    EXPECT_EQ(rest_of(source), "other");
    EXPECT_EQ(rest_of(target), "other");
}

TEST_F(PIFStreamMove, SourceCanBeDestroyedFirst)
{
    auto source = std::make_unique<PIFStream>(path_, "state");
    PIFStream target(std::move(*source));

    source.reset();

    EXPECT_EQ(rest_of(target), "abcdef");
}
