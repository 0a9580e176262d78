// The bytes of values, and what comes of bytes that are none.
#include <quorval/codec.h>
#include "plugins/points.h"
#include "support/allocations.h"
#include "support/support.h"

#include <cereal/types/map.hpp>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using quorval_test::expect_throw;
using namespace std::string_literals;

template <class T>
std::string encode(const T& value)
{
    std::string bytes;
    Quorval::make_codec<T>().encode(&value, bytes);
    return bytes;
}

template <class T>
T decode(std::string_view bytes)
{
    T value{};
    Quorval::make_codec<T>().decode(bytes, &value);
    return value;
}

/// Expects the bytes of a value, stored by a machine of either byte order, to be those of it.
template <class T>
void expect_bytes(const T& value, const std::string& little, const std::string& big)
{
    EXPECT_EQ(encode(value), little);
    EXPECT_EQ(decode<T>(little), value);
    EXPECT_EQ(decode<T>(big), value);
}

TEST(Codec, StoresNumbersTheSameWayOnEachMachine)
{
    expect_bytes(true, "\x01\x01"s, "\x00\x01"s);
    expect_bytes<std::int32_t>(-2, "\x01\xfe\xff\xff\xff"s, "\x00\xff\xff\xff\xfe"s);
    expect_bytes<std::int64_t>(0x0102030405060708, "\x01\x08\x07\x06\x05\x04\x03\x02\x01"s,
                               "\x00\x01\x02\x03\x04\x05\x06\x07\x08"s);
    expect_bytes(1.5F, "\x01\x00\x00\xc0\x3f"s, "\x00\x3f\xc0\x00\x00"s);
    expect_bytes(-2.25, "\x01\x00\x00\x00\x00\x00\x00\x02\xc0"s,
                 "\x00\xc0\x02\x00\x00\x00\x00\x00\x00"s);
}

TEST(Codec, StoresListsWithTheirLengthBeforeThem)
{
    expect_bytes("ab"s,
                 "\x01\x02\x00\x00\x00\x00\x00\x00\x00"s
                 "ab"s,
                 "\x00\x00\x00\x00\x00\x00\x00\x00\x02"s
                 "ab"s);
    expect_bytes(std::vector<std::int32_t>{1, 2},
                 "\x01\x02\x00\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00\x02\x00\x00\x00"s,
                 "\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x00\x00\x01\x00\x00\x00\x02"s);
    expect_bytes(std::vector<double>{}, "\x01\x00\x00\x00\x00\x00\x00\x00\x00"s,
                 "\x00\x00\x00\x00\x00\x00\x00\x00\x00"s);
    expect_bytes(std::vector<bool>{true, false}, "\x01\x02\x00\x00\x00\x00\x00\x00\x00\x01\x00"s,
                 "\x00\x00\x00\x00\x00\x00\x00\x00\x02\x01\x00"s);
}

TEST(Codec, StoresStructuresFieldByField)
{
    const std::string bytes = encode(Points{"p", {{1, 2}}});

    EXPECT_EQ(bytes,
              "\x01\x01\x00\x00\x00\x00\x00\x00\x00p\x01\x00\x00\x00\x00\x00\x00\x00"
              "\x00\x00\x00\x00\x00\x00\xf0\x3f\x00\x00\x00\x00\x00\x00\x00\x40"s);
    EXPECT_EQ(decode<Points>(bytes).points.at(0).y, 2);
}

TEST(Codec, TakesWhatElseCerealKnows)
{
    const std::map<std::string, std::vector<float>> value = {{"a", {1}}, {"b", {}}};

    EXPECT_EQ((decode<std::map<std::string, std::vector<float>>>(encode(value))), value);
}

TEST(Codec, AppendsToTheBytes)
{
    std::string bytes = "x";
    const bool value = false;

    Quorval::make_codec<bool>().encode(&value, bytes);

    EXPECT_EQ(bytes, "x\x01\x00"s);
}

TEST(Codec, TakesAnyOtherByteForTrue)
{
    EXPECT_TRUE(decode<bool>("\x01\xff"s));
}

TEST(Codec, RefusesBytesThatAreNoValue)
{
    struct Case {
        std::string bytes;
        std::string text;
    };
    for (const Case& one : std::vector<Case>{
             {"", "the value ends too early"},
             {"\x02", "the value has no byte order"},
             {"\x01", "the value ends too early"},
             {"\x01\x02\x00\x00\x00\x00\x00\x00"s, "the value ends too early"},
             {"\x01\x02\x00\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00"s, "the value ends too early"},
             {"\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00"s, "the value ends too late"},
         }) {
        SCOPED_TRACE(testing::PrintToString(one.bytes));
        expect_throw<std::runtime_error>([&] { decode<std::vector<std::int32_t>>(one.bytes); },
                                         one.text);
    }
}

TEST(Codec, RefusesEachPartOfAValue)
{
    const std::string bytes = encode(Points{"points", {{1, 2}, {3, 4}}});
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        SCOPED_TRACE(size);
        EXPECT_THROW(decode<Points>(std::string_view(bytes).substr(0, size)), std::runtime_error);
    }
}

const std::string kLongList =
    "\x01\xff\xff\xff\xff\xff\xff\xff\x7f"s
    "some bytes that follow"s;

TEST(Codec, TakesNoMemoryForALengthThatCannotBe)
{
    const auto expect_refused = [](auto example) {
        const std::size_t peak = quorval_test::peak_of([] {
            expect_throw<std::runtime_error>([] { decode<decltype(example)>(kLongList); },
                                             "the value has a list that is longer than itself");
        });
        EXPECT_LT(peak, 4096U);
    };
    expect_refused(std::string());
    expect_refused(std::vector<double>());
    expect_refused(std::vector<bool>());
    expect_refused(std::vector<Point>());
    expect_refused(std::vector<std::string>());
    expect_refused(Points());
}

struct Nothing {
    template <class Archive>
    void serialize(Archive& /*archive*/)
    {
    }
};

TEST(Codec, TakesNoMemoryForListsWhoseItemsTakeNoBytes)
{
    // 100 lists of 256 items each, in 809 bytes.
    std::string bytes = "\x01\x64\x00\x00\x00\x00\x00\x00\x00"s;
    for (int i = 0; i < 100; ++i) {
        bytes += "\x00\x01\x00\x00\x00\x00\x00\x00"s;
    }

    expect_throw<std::runtime_error>([&] { decode<std::vector<std::vector<Nothing>>>(bytes); },
                                     "the value has a list that is longer than itself");
}

struct Tree {
    std::vector<Tree> children;

    template <class Archive>
    void serialize(Archive& archive)
    {
        archive(children);
    }
};

/// A list of one item in a list of one item, and so on.
std::string encode_chain(int depth)
{
    std::string bytes = "\x01"s;
    for (int i = 0; i < depth; ++i) {
        bytes += "\x01\x00\x00\x00\x00\x00\x00\x00"s;
    }
    return bytes + "\x00\x00\x00\x00\x00\x00\x00\x00"s;
}

TEST(Codec, RefusesValuesThatAreNestedTooDeeply)
{
    EXPECT_EQ(decode<Tree>(encode_chain(100)).children.size(), 1U);
    expect_throw<std::runtime_error>([] { decode<Tree>(encode_chain(1'000'000)); },
                                     "the value is nested too deeply");
}

}  // namespace
