#include "quorval/datatype.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using Quorval::Datatype;
using quorval_test::expect_throw;

static_assert(std::is_copy_constructible_v<Datatype> && std::is_copy_assignable_v<Datatype>);
static_assert(std::is_move_constructible_v<Datatype> && std::is_move_assignable_v<Datatype>);

constexpr const char* kMalformed = "Malformed /prefix/ typename, expected content and a trailing /";

bool is_allowed(char character)
{
    static const std::string allowed = "abcdefghijklmnopqrstuvwxyz0123456789_-";
    return allowed.find(character) != std::string::npos;
}

TEST(DatatypeConcrete, KeepsTheNameAsGiven)
{
    for (const std::string name : {"int32", "rgb-image", "a-b_9", "", "-", "_", "0"}) {
        const Datatype type(name);

        EXPECT_EQ(type.get_name(), name);
        EXPECT_FALSE(type.is_generic()) << name;
    }
}

TEST(DatatypeConcrete, AllowsExactlyLowerCaseLettersDigitsUnderscoreAndMinus)
{
    for (int code = 0; code < 256; ++code) {
        const auto character = static_cast<char>(code);
        const std::string name = std::string("a") + character + "z";
        SCOPED_TRACE(code);

        if (is_allowed(character)) {
            EXPECT_EQ(Datatype(name).get_name(), name);
        } else {
            expect_throw<std::runtime_error>(
                [&] { Datatype type(name); },
                std::string(
                    ("Type name '" + name + "' not valid (should be [a-z0-9_-]).").c_str()));
        }
    }
}

TEST(DatatypeConcrete, RefusesAnInvalidCharacterWhereverItStands)
{
    for (const std::string name : {"Int", "a.b", "a/b", "a b", "ab ", " ab", "/", "a/", "/prefix",
                                   "/Prefix/x/", "prefix/x/", "//prefix/x/", "/prefi/x/"}) {
        SCOPED_TRACE(name);

        expect_throw<std::runtime_error>(
            [&] { Datatype type(name); },
            "Type name '" + name + "' not valid (should be [a-z0-9_-]).");
    }
}

TEST(DatatypeConcrete, TakesALongName)
{
    const std::string name(100000, 'x');

    const Datatype type(name);

    EXPECT_EQ(type.get_name(), name);
}

TEST(DatatypeGeneric, NeedsContentAndALaterSlash)
{
    for (const std::string name : {"/prefix/", "/prefix//", "/prefix/abc", "/prefix/a.B"}) {
        SCOPED_TRACE(name);

        expect_throw<std::runtime_error>([&] { Datatype type(name); }, kMalformed);
    }
}

TEST(DatatypeGeneric, TakesAnyCharacterBehindThePrefix)
{
    for (const std::string& name :
         {std::string("/prefix/x/"), std::string("/prefix/a/"), std::string("/prefix/image/rgb"),
          std::string("/prefix///"), std::string("/prefix/A b\n/\xff"),
          std::string("/prefix/a\0/b", 12), std::string("/prefix//x/")}) {
        const Datatype type(name);

        EXPECT_EQ(type.get_name(), name);
        EXPECT_TRUE(type.is_generic()) << name;
    }
}

TEST(DatatypeComparison, ComparesNamesCharacterForCharacter)
{
    const Datatype type("int32");

    EXPECT_TRUE(type == Datatype("int32"));
    EXPECT_FALSE(type != Datatype("int32"));
    for (const char* other : {"int3", "int322", "int33", "", "/prefix/int32/"}) {
        EXPECT_FALSE(type == Datatype(other)) << other;
        EXPECT_TRUE(type != Datatype(other)) << other;
    }
}

TEST(DatatypeComparison, TellsGenericNamesApartThatAcceptEachOther)
{
    EXPECT_TRUE(Datatype("/prefix/a/") != Datatype("/prefix/a/b"));
    EXPECT_TRUE(Datatype("/prefix/a/b") == Datatype("/prefix/a/b"));
}

TEST(DatatypeAssignable, MatchesConcreteTypesByName)
{
    const Datatype type("int32");

    EXPECT_TRUE(type.is_assignable_from(Datatype("int32")));
    EXPECT_FALSE(type.is_assignable_from(Datatype("int3")));
    EXPECT_FALSE(type.is_assignable_from(Datatype("int321")));
    EXPECT_FALSE(type.is_assignable_from(Datatype("")));
    EXPECT_TRUE(Datatype("").is_assignable_from(Datatype("")));
}

TEST(DatatypeAssignable, NeverMixesGenericAndConcrete)
{
    const Datatype generic("/prefix/int/");

    for (const char* name : {"int", "", "prefix", "prefix-int"}) {
        EXPECT_FALSE(generic.is_assignable_from(Datatype(name))) << name;
        EXPECT_FALSE(Datatype(name).is_assignable_from(generic)) << name;
    }
}

TEST(DatatypeAssignable, AcceptsWhatSharesTheParentPath)
{
    struct {
        const char* type;
        const char* other;
        bool is_assignable;
    } const cases[] = {
        {"/prefix/image/", "/prefix/image/", true},
        {"/prefix/image/", "/prefix/image/rgb", true},
        {"/prefix/image/", "/prefix/image/rgb/8", true},
        {"/prefix/image/rgb", "/prefix/image/", true},
        {"/prefix/image/rgb", "/prefix/image/grey", true},
        {"/prefix/image/rgb/", "/prefix/image/", false},
        {"/prefix/image/rgb/", "/prefix/image/grey/", false},
        {"/prefix/image/", "/prefix/sound/", false},
        {"/prefix/image/", "/prefix/imag/", false},
        {"/prefix/image/", "/prefix/i/", false},
        {"/prefix/image/", "/prefix/aimage/", false},
    };

    for (const auto& test : cases) {
        EXPECT_EQ(Datatype(test.type).is_assignable_from(Datatype(test.other)), test.is_assignable)
            << test.type << " from " << test.other;
    }
}

TEST(DatatypeAssignable, AcceptsALongerComponentWithTheSameBeginning)
{
    EXPECT_TRUE(Datatype("/prefix/image/").is_assignable_from(Datatype("/prefix/imagex/")));
    EXPECT_FALSE(Datatype("/prefix/imagex/").is_assignable_from(Datatype("/prefix/image/")));
}

TEST(DatatypeValue, KeepsNameAndMatchingWhenItIsCopiedAndMoved)
{
    Datatype type("/prefix/image/rgb");

    const Datatype copy = type;
    const Datatype moved = std::move(type);
    type = Datatype("int");
    Datatype assigned("x");
    assigned = copy;

    for (const Datatype* each : {&copy, &moved, &std::as_const(assigned)}) {
        EXPECT_EQ(each->get_name(), "/prefix/image/rgb");
        EXPECT_TRUE(each->is_assignable_from(Datatype("/prefix/image/grey")));
        EXPECT_FALSE(each->is_assignable_from(Datatype("/prefix/sound/")));
    }
    EXPECT_EQ(type.get_name(), "int");
    EXPECT_FALSE(type.is_generic());
}

}  // namespace
