#include "host/change.h"

#include "support/support.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using host::LineReader;
using host::parse_change;
using Quorval::BlockConfiguration;
using quorval_test::expect_throw;

/// The reading end of a pipe that holds a text and is closed behind it.
class Input {
public:
    explicit Input(const std::string& text)
    {
        int ends[2];
        if (::pipe(ends) != 0 ||
            ::write(ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            throw std::runtime_error("no pipe");
        }
        ::close(ends[1]);
        fd_ = ends[0];
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input() { ::close(fd_); }

    int get() const { return fd_; }

private:
    int fd_ = -1;
};

std::vector<std::string> read_lines(const std::string& text)
{
    const Input input(text);
    LineReader reader;
    std::vector<std::string> lines;
    for (bool goes_on = true; goes_on;) {
        goes_on = reader.read(input.get());
        for (std::string line; reader.next(line);) {
            lines.push_back(line);
        }
    }
    return lines;
}

TEST(ParseChange, ReadsTheTypeFromTheFormOfTheValue)
{
    const std::vector<std::pair<std::string, BlockConfiguration>> table = {
        {"b.k 1", {{"k", 1}}},
        {"b.k -7", {{"k", -7}}},
        {"b.k 0.25", {{"k", 0.25}}},
        {"b.k 1e3", {{"k", 1000.0}}},
        {"b.k 3000000000", {{"k", 3e9}}},
        {"b.k true", {{"k", true}}},
        {"b.k false", {{"k", false}}},
        {"b.k {0.5, 0.25}", {{"k", {0.5, 0.25}}}},
        {"b.k {1 2}", {{"k", {1.0, 2.0}}}},
        {"b.k {3}", {{"k", {3.0}}}},
        {"b.k {}", {{"k", std::vector<double>{}}}},
        {"b.k loud", {{"k", "loud"}}},
        {"b.k 1 2", {{"k", "1 2"}}},
        {"b.k 1x", {{"k", "1x"}}},
        {"b.k {", {{"k", "{"}}},
        {"b.k.l 1", {{"k.l", 1}}},
        {"  b.k \t 1  \r", {{"k", 1}}},
    };

    for (const auto& [line, expected] : table) {
        const host::Change change = parse_change(line);

        EXPECT_EQ(change.block, "b") << line;
        EXPECT_TRUE(change.override == expected) << line << '\n' << change.override << expected;
    }
}

TEST(ParseChange, RefusesALineOfAnotherForm)
{
    for (const char* line : {"", " ", "b", "b.k", "b.k ", "bk 1", ".k 1", "b. 1", ". 1"}) {
        SCOPED_TRACE(line);
        expect_throw<std::invalid_argument>([&] { parse_change(line); },
                                            "expected <block>.<key> <value>");
    }
}

TEST(ParseChange, RefusesAListOfAnythingButNumbers)
{
    for (const char* line : {"b.k {x}", "b.k {1, x}", "b.k {1e999}", "b.k {0.5;1}"}) {
        SCOPED_TRACE(line);
        expect_throw<std::invalid_argument>([&] { parse_change(line); }, "expected numbers in {}");
    }
}

TEST(ParseChange, PassesTheRefusalOfAKeyOn)
{
    expect_throw<std::runtime_error>([] { parse_change("b.k/l 1"); },
                                     "Parameter name 'k/l' not valid (should be [a-z0-9_.-]).");
}

TEST(LineReader, CutsTheInputIntoLines)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> table = {
        {"", {}},
        {"a", {"a"}},
        {"a\n", {"a"}},
        {"a\nb", {"a", "b"}},
        {"a\n\nb\n", {"a", "", "b"}},
        {"\n", {""}},
        {std::string(5000, 'x') + "\ny\n", {std::string(5000, 'x'), "y"}},
    };

    for (const auto& [text, lines] : table) {
        EXPECT_EQ(read_lines(text), lines) << text;
    }
}

TEST(LineReader, KeepsAnUnfinishedLineUntilItsEndComes)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    LineReader reader;
    std::string line = "untouched";
    ASSERT_EQ(::write(ends[1], "ga", 2), 2);
    EXPECT_TRUE(reader.read(ends[0]));
    EXPECT_FALSE(reader.next(line));
    EXPECT_EQ(line, "untouched");

    ASSERT_EQ(::write(ends[1], "in\n", 3), 3);
    EXPECT_TRUE(reader.read(ends[0]));

    EXPECT_TRUE(reader.next(line));
    EXPECT_EQ(line, "gain");
    EXPECT_FALSE(reader.next(line));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(LineReader, KeepsNoMoreOfAnEndlessLineThanItsLimit)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    LineReader reader;
    const std::string piece(4096, 'x');
    std::string line;
    for (int i = 0; i < 15; ++i) {
        ASSERT_EQ(::write(ends[1], piece.data(), piece.size()), 4096);
        ASSERT_TRUE(reader.read(ends[0]));
        ASSERT_FALSE(reader.next(line)) << i;
    }

    ASSERT_EQ(::write(ends[1], piece.data(), piece.size()), 4096);
    ASSERT_TRUE(reader.read(ends[0]));

    EXPECT_TRUE(reader.next(line));
    EXPECT_EQ(line.size(), 65536U);
    EXPECT_FALSE(reader.next(line));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(LineReader, ReportsAnInputThatCannotBeRead)
{
    LineReader reader;

    try {
        reader.read(-1);
        ADD_FAILURE() << "threw nothing";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::error_code(EBADF, std::generic_category()));
        EXPECT_EQ(error.what(), std::string("cannot read standard input: Bad file descriptor"));
    }
}

}  // namespace
