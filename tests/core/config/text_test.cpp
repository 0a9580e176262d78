#include <quorval/config.h>
#include "core/config/contents.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cstddef>
#include <iomanip>
#include <iostream>
#include <limits>
#include <locale>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using quorval_test::Lines;
using quorval_test::unread_keys;

std::string text_of(const BlockConfiguration& config)
{
    std::ostringstream os;
    os << config;
    return os.str();
}

/// Keeps what was there at each flush.
class FlushRecorder : public std::stringbuf {
public:
    const std::vector<std::string>& flushes() const { return flushes_; }

private:
    int sync() override
    {
        flushes_.push_back(str());
        return 0;
    }

    std::vector<std::string> flushes_;
};

/// Takes a number of characters and refuses all that follow.
class FullBuffer : public std::streambuf {
public:
    explicit FullBuffer(std::size_t room) : room_(room) {}

    const std::string& taken() const { return taken_; }

private:
    int_type overflow(int_type character) override
    {
        if (taken_.size() == room_) {
            return traits_type::eof();
        }
        taken_ += traits_type::to_char_type(character);
        return character;
    }

    std::size_t room_;
    std::string taken_;
};

/// Puts another buffer below standard output, and the one before back.
class CapturedOutput {
public:
    CapturedOutput() : before_(std::cout.rdbuf(&buffer_)) {}
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    ~CapturedOutput() { std::cout.rdbuf(before_); }

    const FlushRecorder& buffer() const { return buffer_; }

private:
    FlushRecorder buffer_;
    std::streambuf* before_;
};

TEST(ConfigText, WritesALineForEachElementInTheOrderOfTheKeys)
{
    const BlockConfiguration config = {{"gain", 0.5},
                                       {"name", "left"},
                                       {"ports", {{{"id", 3}}}},
                                       {"taps", {1, 2, 3}},
                                       {"flags", {true, false}}};

    EXPECT_EQ(text_of(config),
              "BlockConfiguration:\n"
              "flags (BoolVector) = {1, 0}\n"
              "gain (double) = 0.5\n"
              "name (string) = left\n"
              "ports.0.id (int) = 3\n"
              "taps (IntVector) = {1, 2, 3}\n");
}

TEST(ConfigText, WritesOneLineForAnEmptyConfiguration)
{
    EXPECT_EQ(text_of(BlockConfiguration()), "BlockConfiguration:\n");
}

TEST(ConfigText, ReturnsTheStream)
{
    std::ostringstream os;
    const BlockConfiguration config;

    EXPECT_EQ(&(os << config), &os);
}

TEST(ConfigText, WritesValuesOfEveryType)
{
    struct Row {
        BlockConfiguration config;
        std::string line;
    };
    const std::vector<Row> rows = {
        {{{"x", 0}}, "x (int) = 0"},
        {{{"x", -7}}, "x (int) = -7"},
        {{{"x", std::numeric_limits<int>::max()}}, "x (int) = 2147483647"},
        {{{"x", std::numeric_limits<int>::min()}}, "x (int) = -2147483648"},
        {{{"x", true}}, "x (bool) = 1"},
        {{{"x", false}}, "x (bool) = 0"},
        {{{"x", 0.5}}, "x (double) = 0.5"},
        {{{"x", 1000000.0}}, "x (double) = 1e+06"},
        {{{"x", 3.0}}, "x (double) = 3"},
        {{{"x", 1.0 / 3.0}}, "x (double) = 0.333333"},
        {{{"x", -0.0}}, "x (double) = -0"},
        {{{"x", std::numeric_limits<double>::infinity()}}, "x (double) = inf"},
        {{{"x", std::numeric_limits<double>::quiet_NaN()}}, "x (double) = nan"},
        {{{"x", ""}}, "x (string) = "},
        {{{"x", "with blanks, \"quotes\" and \\"}}, "x (string) = with blanks, \"quotes\" and \\"},
        {{{"x", "two\nlines"}}, "x (string) = two\nlines"},
        {{{"x", {-1, 0, 2147483647}}}, "x (IntVector) = {-1, 0, 2147483647}"},
        {{{"x", {7}}}, "x (IntVector) = {7}"},
        {{{"x", {0.5, 3.0, 1e6}}}, "x (DoubleVector) = {0.5, 3, 1e+06}"},
        {{{"x", {"a", "", "b, c"}}}, "x (StringVector) = {a, , b, c}"},
        {{{"x", {true, false, true}}}, "x (BoolVector) = {1, 0, 1}"},
        {{{"x", std::vector<int>{}}}, "x (IntVector) = {}"},
        {{{"x", std::vector<double>{}}}, "x (DoubleVector) = {}"},
        {{{"x", std::vector<std::string>{}}}, "x (StringVector) = {}"},
        {{{"x", std::vector<bool>{}}}, "x (BoolVector) = {}"},
        {{{"", 1}}, " (int) = 1"},
    };

    for (const Row& row : rows) {
        EXPECT_EQ(text_of(row.config), "BlockConfiguration:\n" + row.line + "\n");
    }
}

TEST(ConfigText, WritesNullBytesAsTheyAre)
{
    const std::string value("a\0b", 3);

    EXPECT_EQ(text_of({{"x", value}}), "BlockConfiguration:\nx (string) = " + value + "\n");
}

TEST(ConfigText, WritesKeysThatRebaseMade)
{
    BlockConfiguration config = {{"x", 1}};
    config.rebase("odd\n\xff");

    EXPECT_EQ(text_of(config), "BlockConfiguration:\nodd\n\xff.x (int) = 1\n");
}

TEST(ConfigText, FollowsTheFlagsOfTheStream)
{
    const BlockConfiguration config = {
        {"b", true}, {"bv", {true, false}}, {"d", 0.5},  {"dv", {3.0}},
        {"i", 255},  {"iv", {-1, 16}},      {"s", "255"}};
    struct Row {
        std::string name;
        void (*set)(std::ostream&);
        Lines lines;
    };
    const std::vector<Row> rows = {
        {"boolalpha",
         [](std::ostream& os) { os << std::boolalpha; },
         {"b (bool) = true", "bv (BoolVector) = {true, false}", "d (double) = 0.5",
          "dv (DoubleVector) = {3}", "i (int) = 255", "iv (IntVector) = {-1, 16}",
          "s (string) = 255"}},
        {"hex",
         [](std::ostream& os) { os << std::hex << std::showbase << std::uppercase; },
         {"b (bool) = 0X1", "bv (BoolVector) = {0X1, 0}", "d (double) = 0.5",
          "dv (DoubleVector) = {3}", "i (int) = 0XFF", "iv (IntVector) = {0XFFFFFFFF, 0X10}",
          "s (string) = 255"}},
        {"oct",
         [](std::ostream& os) { os << std::oct; },
         {"b (bool) = 1", "bv (BoolVector) = {1, 0}", "d (double) = 0.5", "dv (DoubleVector) = {3}",
          "i (int) = 377", "iv (IntVector) = {37777777777, 20}", "s (string) = 255"}},
        {"showpos",
         [](std::ostream& os) { os << std::showpos; },
         {"b (bool) = +1", "bv (BoolVector) = {+1, +0}", "d (double) = +0.5",
          "dv (DoubleVector) = {+3}", "i (int) = +255", "iv (IntVector) = {-1, +16}",
          "s (string) = 255"}},
        {"showpoint",
         [](std::ostream& os) { os << std::showpoint; },
         {"b (bool) = 1", "bv (BoolVector) = {1, 0}", "d (double) = 0.500000",
          "dv (DoubleVector) = {3.00000}", "i (int) = 255", "iv (IntVector) = {-1, 16}",
          "s (string) = 255"}},
        {"fixed",
         [](std::ostream& os) { os << std::fixed << std::setprecision(3); },
         {"b (bool) = 1", "bv (BoolVector) = {1, 0}", "d (double) = 0.500",
          "dv (DoubleVector) = {3.000}", "i (int) = 255", "iv (IntVector) = {-1, 16}",
          "s (string) = 255"}},
        {"scientific",
         [](std::ostream& os) { os << std::scientific << std::setprecision(1); },
         {"b (bool) = 1", "bv (BoolVector) = {1, 0}", "d (double) = 5.0e-01",
          "dv (DoubleVector) = {3.0e+00}", "i (int) = 255", "iv (IntVector) = {-1, 16}",
          "s (string) = 255"}},
        {"no base",
         [](std::ostream& os) { os.unsetf(std::ios::basefield); },
         {"b (bool) = 1", "bv (BoolVector) = {1, 0}", "d (double) = 0.5", "dv (DoubleVector) = {3}",
          "i (int) = 255", "iv (IntVector) = {-1, 16}", "s (string) = 255"}},
    };

    for (const Row& row : rows) {
        std::stringstream os;
        row.set(os);
        const std::ios::fmtflags flags = os.flags();

        os << config;

        Lines lines;
        for (std::string line; std::getline(os, line);) {
            lines.push_back(line);
        }
        lines.erase(lines.begin());
        EXPECT_EQ(lines, row.lines) << row.name;
        EXPECT_EQ(os.flags(), flags) << row.name;
    }
}

TEST(ConfigText, FollowsThePrecisionOfTheStream)
{
    std::ostringstream os;
    os << std::setprecision(17);

    os << BlockConfiguration{{"x", 0.1}, {"v", {0.1}}};

    EXPECT_EQ(os.str(),
              "BlockConfiguration:\nv (DoubleVector) = {0.10000000000000001}\n"
              "x (double) = 0.10000000000000001\n");
    EXPECT_EQ(os.precision(), 17);
}

// Numbers of few digits have an exponent where they are large.
TEST(ConfigText, WritesExponentsInUpperCaseWhenTheStreamDoes)
{
    std::ostringstream os;
    os << std::uppercase;

    os << BlockConfiguration{{"v", {1e-7, 0.5}}, {"x", 1e9}};

    EXPECT_EQ(os.str(),
              "BlockConfiguration:\nv (DoubleVector) = {1E-07, 0.5}\nx (double) = 1E+09\n");
}

TEST(ConfigText, FollowsTheRoundingModeAsTheStreamDoes)
{
    struct Row {
        int mode;
        std::string text;
    };
    // The seventh digits are to be rounded.
    const BlockConfiguration config = {{"v", {-1234567.0, 0.5}}, {"x", 1234567.0}};
    const std::vector<Row> rows = {
        {FE_TONEAREST, "v (DoubleVector) = {-1.23457e+06, 0.5}\nx (double) = 1.23457e+06\n"},
        {FE_TOWARDZERO, "v (DoubleVector) = {-1.23456e+06, 0.5}\nx (double) = 1.23456e+06\n"},
        {FE_UPWARD, "v (DoubleVector) = {-1.23456e+06, 0.5}\nx (double) = 1.23457e+06\n"},
        {FE_DOWNWARD, "v (DoubleVector) = {-1.23457e+06, 0.5}\nx (double) = 1.23456e+06\n"}};

    for (const Row& row : rows) {
        const int before = std::fegetround();
        ASSERT_EQ(std::fesetround(row.mode), 0);
        const std::string text = text_of(config);
        ASSERT_EQ(std::fesetround(before), 0);
        EXPECT_EQ(text, "BlockConfiguration:\n" + row.text) << row.mode;
    }
}

TEST(ConfigText, FollowsTheLocaleOfTheStream)
{
    struct Punctuation : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '\''; }
        std::string do_grouping() const override { return "\3"; }
        std::string do_truename() const override { return "yes"; }
    };
    std::ostringstream os;
    os.imbue(std::locale(std::locale::classic(), new Punctuation));
    os << std::boolalpha;

    os << BlockConfiguration{{"b", true}, {"d", 0.5}, {"i", 1234567}, {"v", {1000, 1}}};

    EXPECT_EQ(os.str(),
              "BlockConfiguration:\nb (bool) = yes\nd (double) = 0,5\ni (int) = 1'234'567\n"
              "v (IntVector) = {1'000, 1}\n");
}

TEST(ConfigText, GivesAFieldWidthToTheFirstTextAlone)
{
    std::ostringstream os;
    os << std::setw(22) << std::setfill('*') << std::left;

    os << BlockConfiguration{{"b", true}, {"d", 0.5}, {"i", 3}, {"s", "x"}, {"v", {1}}};

    EXPECT_EQ(os.str(),
              "BlockConfiguration:***\nb (bool) = 1\nd (double) = 0.5\ni (int) = 3\n"
              "s (string) = x\nv (IntVector) = {1}\n");
    EXPECT_EQ(os.width(), 0);
}

TEST(ConfigText, FlushesTheStreamAtTheEndOfEachLine)
{
    FlushRecorder buffer;
    std::ostream os(&buffer);

    os << BlockConfiguration{{"a", 1}, {"b", {"x", "y"}}, {"c", {true, false}}};

    EXPECT_EQ(buffer.flushes(),
              (Lines{"BlockConfiguration:\n", "BlockConfiguration:\na (int) = 1\n",
                     "BlockConfiguration:\na (int) = 1\nb (StringVector) = {x, y}\n",
                     "BlockConfiguration:\na (int) = 1\nb (StringVector) = {x, y}\n"
                     "c (BoolVector) = {1, 0}\n"}));
}

TEST(ConfigText, LeavesErrorsToTheStateOfTheStream)
{
    const BlockConfiguration config = {{"a", 1}, {"b", "text"}};
    const std::string whole = text_of(config);

    for (std::size_t room = 0; room <= whole.size(); ++room) {
        SCOPED_TRACE(room);
        FullBuffer buffer(room);
        std::ostream os(&buffer);

        EXPECT_EQ(&(os << config), &os);

        EXPECT_EQ(buffer.taken(), whole.substr(0, room));
        EXPECT_EQ(os.good(), room == whole.size());
    }
}

TEST(ConfigText, WritesNothingToAStreamThatHasFailed)
{
    std::ostringstream os;
    os.setstate(std::ios::failbit);
    std::ostream without_buffer(nullptr);

    os << BlockConfiguration{{"a", 1}};
    without_buffer << BlockConfiguration{{"a", 1}};

    EXPECT_EQ(os.str(), "");
    EXPECT_EQ(os.rdstate(), std::ios::failbit);
    EXPECT_TRUE(without_buffer.bad());
}

TEST(ConfigText, LeavesTheMarks)
{
    const BlockConfiguration config = {{"read", 1}, {"unread", 2}};
    config.getInt("read");

    text_of(config);
    {
        const CapturedOutput output;
        config.print();
    }

    EXPECT_EQ(unread_keys(config), Lines{"unread"});
    EXPECT_EQ(config, (BlockConfiguration{{"read", 1}, {"unread", 2}}));
}

TEST(ConfigPrint, WritesToStandardOutputAndAnEmptyLine)
{
    const BlockConfiguration config = {{"gain", 0.5}};
    const CapturedOutput output;

    config.print();

    EXPECT_EQ(output.buffer().str(), "BlockConfiguration:\ngain (double) = 0.5\n\n");
    EXPECT_EQ(output.buffer().flushes().size(), 3U);
    EXPECT_EQ(output.buffer().flushes().back(), output.buffer().str());
}

TEST(ConfigPrint, WritesAnEmptyConfiguration)
{
    const CapturedOutput output;

    BlockConfiguration().print();

    EXPECT_EQ(output.buffer().str(), "BlockConfiguration:\n\n");
}

TEST(ConfigPrint, FollowsTheFlagsOfStandardOutput)
{
    const CapturedOutput output;
    const std::ios::fmtflags before = std::cout.flags();

    std::cout << std::boolalpha;
    BlockConfiguration{{"x", true}}.print();
    std::cout.flags(before);

    EXPECT_EQ(output.buffer().str(), "BlockConfiguration:\nx (bool) = true\n\n");
}

/// Numbers in groups of three, with a decimal comma.
class Grouping : public std::numpunct<char> {
protected:
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(ConfigText, FollowsTheLocaleAndAnyPrecisionOfTheStream)
{
    const double third = 1234567.0 / 3;
    const BlockConfiguration config{{"i", 1234567}, {"d", third}};
    for (const int precision : {6, 17, 18, 40}) {
        for (const bool is_grouping : {false, true}) {
            std::ostringstream expected;
            std::ostringstream text;
            for (std::ostringstream* os : {&expected, &text}) {
                os->precision(precision);
                if (is_grouping) {
                    // The locale owns the facet.
                    os->imbue(std::locale(os->getloc(), new Grouping));
                }
            }
            expected << "BlockConfiguration:\nd (double) = " << third << "\ni (int) = " << 1234567
                     << '\n';
            text << config;
            EXPECT_EQ(text.str(), expected.str()) << precision;
        }
    }
}

}  // namespace
