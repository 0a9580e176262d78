#include <quorval/config.h>
#include <quorval/pstore.h>
#include <quorval/runtime/config_files.h>
#include <quorval/runtime/diagnostic.h>
#include <quorval/state.h>
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Quorval::BlockConfiguration;
using Quorval::read_store_file;
using Quorval::read_toml_assignment;
using Quorval::read_toml_file;
using Quorval::StoreContent;
using Quorval::to_toml;
using Quorval::to_toml_value;
using Quorval::write_store_file;
using quorval_test::expect_throw;
using quorval_test::FileSizeLimit;
using quorval_test::NoDescriptors;
using quorval_test::read_file;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

double to_double(std::uint64_t bits)
{
    double number = 0;
    std::memcpy(&number, &bits, sizeof number);
    return number;
}

class ConfigFiles : public testing::Test {
protected:
    std::string path(const std::string& name) const { return directory_.store_path() + name; }

    /// The binary form.
    std::string bytes_of(const BlockConfiguration& config) const
    {
        Quorval::POFStream out(directory_.store_path(), "never closed");
        out << config;
        return dynamic_cast<std::stringbuf&>(*out.rdbuf()).str();
    }

    /// What becomes of a configuration that is written as TOML and read again.
    BlockConfiguration pass_through_toml(const BlockConfiguration& config) const
    {
        return read_toml(to_toml(config));
    }

    BlockConfiguration read_toml(const std::string& text) const
    {
        // Some file systems write a file at once that replaces the content of an old one.
        fs::remove(path("read.toml"));
        write_file(path("read.toml"), text);
        return read_toml_file(path("read.toml"));
    }

private:
    TemporaryDirectory directory_;
};

/// Makes configurations by chance, the same ones in every run.
class Chance {
public:
    explicit Chance(unsigned seed) : engine_(seed) {}

    std::size_t below(std::size_t limit) { return engine_() % limit; }

    /// Changes, cuts or prolongs bytes.
    std::string damage(std::string bytes)
    {
        for (std::size_t left = 1 + below(3); left > 0; --left) {
            const std::size_t at = below(bytes.size() + 1);
            switch (below(3)) {
                case 0:
                    bytes = bytes.substr(0, at);
                    break;
                case 1:
                    bytes.insert(at, 1 + below(9), static_cast<char>(engine_()));
                    break;
                default:
                    bytes.replace(at, 1, 1, static_cast<char>(engine_()));
            }
        }
        return bytes;
    }

    BlockConfiguration make_config()
    {
        BlockConfiguration config;
        for (std::size_t left = below(12); left > 0; --left) {
            set_any(config, make_key());
        }
        return config;
    }

private:
    std::string make_key()
    {
        constexpr std::string_view kCharacters = "ab.-_0.b";
        std::string key;
        for (std::size_t left = below(7); left > 0; --left) {
            key += kCharacters[below(kCharacters.size())];
        }
        return key;
    }

    void set_any(BlockConfiguration& config, const std::string& key)
    {
        switch (below(8)) {
            case 0:
                return config.set(key, static_cast<int>(engine_()));
            case 1:
                return config.set(key, below(2) == 1);
            case 2:
                return config.set(key, make_double());
            case 3:
                return config.set(key, make_text());
            case 4:
                return config.set(key, make_list([this] { return static_cast<int>(engine_()); }));
            case 5:
                return config.set(key, make_list([this] { return make_double(); }));
            case 6:
                return config.set(key, make_list([this] { return make_text(); }));
            default:
                return config.set(key, make_list([this] { return below(2) == 1; }));
        }
    }

    double make_double()
    {
        constexpr std::array kSpecial = {0.0,
                                         -0.0,
                                         1.0,
                                         -100000.0,
                                         std::numeric_limits<double>::denorm_min(),
                                         std::numeric_limits<double>::max(),
                                         std::numeric_limits<double>::infinity(),
                                         -std::numeric_limits<double>::infinity(),
                                         std::numeric_limits<double>::quiet_NaN(),
                                         -std::numeric_limits<double>::quiet_NaN()};
        if (below(2) == 0) {
            return kSpecial[below(kSpecial.size())];
        }
        const double any = to_double((static_cast<std::uint64_t>(engine_()) << 32U) | engine_());
        return any == any ? any : 0.1;
    }

    std::string make_text()
    {
        static const std::vector<std::string> kCharacters = {
            "a",          "\"", "\\", "\n", "\r",     "\t",     "\x01",   std::string(1, '\0'),
            "\x7F",       "'",  "#",  "é",  "\u0085", "\u2028", "\uFEFF", "\uFFFF",
            "\U0001F600", "=",  "[",  " "};
        std::string text;
        for (std::size_t left = below(6); left > 0; --left) {
            text += kCharacters[below(kCharacters.size())];
        }
        return text;
    }

    template <class Make>
    std::vector<std::invoke_result_t<Make>> make_list(Make make)
    {
        std::vector<std::invoke_result_t<Make>> items;
        for (std::size_t left = 1 + below(4); left > 0; --left) {
            items.push_back(make());
        }
        return items;
    }

    std::mt19937 engine_;
};

TEST_F(ConfigFiles, GiveBackEveryBitThroughToml)
{
    for (unsigned seed = 0; seed < 2000; ++seed) {
        const BlockConfiguration config = Chance(seed).make_config();

        EXPECT_EQ(bytes_of(pass_through_toml(config)), bytes_of(config)) << "seed " << seed << "\n"
                                                                         << to_toml(config);
    }
}

TEST_F(ConfigFiles, GiveBackEveryCharacterThroughToml)
{
    std::string text;
    for (char32_t c = 0; c <= 0xFFFF; c += c == 0xD7FF ? 0x801 : 1) {
        if (c >= 0x800) {
            text += static_cast<char>(0xE0 | (c >> 12));
        }
        if (c >= 0x80) {
            text += static_cast<char>(c < 0x800 ? 0xC0 | (c >> 6) : 0x80 | ((c >> 6) & 0x3F));
        }
        text += static_cast<char>(c < 0x80 ? c : 0x80 | (c & 0x3F));
    }
    const BlockConfiguration config = {{"text", text}};

    EXPECT_EQ(pass_through_toml(config).getString("text"), text);
}

TEST_F(ConfigFiles, AreWrittenAsPlainToml)
{
    BlockConfiguration config = {{"gain", 0.5},
                                 {"id", 3},
                                 {"in", {{{"name", "a"}}, {{"name", "b"}}}},
                                 {"taps", {1.0, -2.5, 1e300}},
                                 {"words", {"x", "\"\n"}},
                                 {"flags", {true, false}}};
    config.set("in.0", true);
    config.set("a..b", 1);

    EXPECT_EQ(to_toml(config), R"("a..b" = 1
flags = [true, false]
gain = 0.5
id = 3
in.0 = true
"in.0.name" = "a"
in.1.name = "b"
taps = [1.0, -2.5, 1e+300]
words = ["x", "\"\n"]
)");
}

TEST_F(ConfigFiles, BearKeysOfManyParts)
{
    std::string key = "a";
    for (int i = 0; i < 1000; ++i) {
        key += ".a";
    }
    const BlockConfiguration config = {{key, 1}};

    EXPECT_EQ(pass_through_toml(config), config);
}

TEST_F(ConfigFiles, HaveKeysOf32BareParts)
{
    std::string key = "a";
    for (int i = 1; i < 32; ++i) {
        key += ".b";
    }

    EXPECT_EQ(to_toml({{key, 1}}), key + " = 1\n");
    EXPECT_EQ(to_toml({{key + ".c", 1}}), "\"" + key + ".c\" = 1\n");
    EXPECT_EQ(to_toml({{"a.", 1}}), "\"a.\" = 1\n");
    EXPECT_EQ(to_toml({{".a", 1}}), "\".a\" = 1\n");
    EXPECT_EQ(to_toml({{"a", 1}, {"a.b.c", 2}, {"ab.c", 3}}), "a = 1\n\"a.b.c\" = 2\nab.c = 3\n");
}

TEST_F(ConfigFiles, SayWhatTomlCannotHold)
{
    const std::string half = "a\xC3";
    const auto expect_refused = [](const BlockConfiguration& config, const std::string& text) {
        expect_throw<std::invalid_argument>([&] { to_toml(config); }, text);
    };
    expect_refused({{"a", 1}, {"b", std::vector<int>()}}, "'b' is an empty list");
    expect_refused({{"a.b", std::vector<std::string>()}}, "'a.b' is an empty list");
    expect_refused({{"a", half}}, "'a' is not UTF-8");
    expect_refused({{"a", {half.c_str()}}}, "'a' is not UTF-8");
    for (const char* other : {"\xED\xA0\x80", "\xC0\x80", "\xF4\x90\x80\x80", "\x80", "\xFF"}) {
        expect_refused({{"a", other}}, "'a' is not UTF-8");
    }
    expect_refused({{"a", to_double(0x7FF8000000000001)}}, "'a' is a NaN of its own kind");
}

TEST_F(ConfigFiles, GiveSingleValuesAsToml)
{
    const BlockConfiguration config = {
        {"empty", std::vector<int>()}, {"list", {1, 2}}, {"text", "a\xC3"}};

    EXPECT_EQ(to_toml_value(config, "list"), "[1, 2]");
    EXPECT_EQ(to_toml_value(config, "empty"), "[]");
    expect_throw<std::invalid_argument>([&] { to_toml_value(config, "text"); },
                                        "'text' is not UTF-8");
    expect_throw<std::invalid_argument>([&] { to_toml_value(config, "none"); },
                                        "No such parameter: none");
}

TEST_F(ConfigFiles, DescribeWhatTomlCannotHold)
{
    const BlockConfiguration config = {{"nan", to_double(0xFFF8000000000001)}, {"text", "a\xC3\n"}};

    EXPECT_EQ(describe_value(config, "nan"), "-nan(0xfff8000000000001)");
    EXPECT_EQ(describe_value(config, "text"), R"("a\xC3\n")");
}

TEST_F(ConfigFiles, AreReadFromTomlByTheRulesOfGraphFiles)
{
    const BlockConfiguration expected = {
        {"a", {{"b", 1}}}, {"in", {{{"name", "x"}}, {{"name", "y"}}}}, {"taps", {1.0, 2.5}}};

    EXPECT_EQ(read_toml("taps = [1, 2.5]\n\"a.b\" = 1\n[[in]]\nname = 'x'\n[[in]]\nname = 'y'\n"),
              expected);
    EXPECT_EQ(read_toml(""), BlockConfiguration());
}

TEST_F(ConfigFiles, TellAllThatIsWrongWithToml)
{
    write_file(path("wrong.toml"), "a = []\n\"b c\" = 1\nd = 2020-01-01\n");
    try {
        read_toml_file(path("wrong.toml"));
        FAIL() << "it was read";
    } catch (const Quorval::GraphError& error) {
        const std::string file = path("wrong.toml");
        EXPECT_EQ(error.what(), file + ":1:5: error: 'a' is an empty list\n" + file +
                                    ":2:1: error: Parameter name 'b c' not valid (should be "
                                    "[a-z0-9_.-]).\n" +
                                    file + ":3:5: error: 'd' is a date");
    }
    expect_throw<Quorval::GraphError>(
        [&] { read_toml_file(path("none.toml")); },
        path("none.toml") + ":1:1: error: cannot read: No such file or directory");
}

TEST_F(ConfigFiles, ReadAssignments)
{
    EXPECT_EQ(read_toml_assignment("a.b=0.5"), BlockConfiguration({{"a.b", 0.5}}));
    EXPECT_EQ(read_toml_assignment("a=b=c"), BlockConfiguration({{"a", "b=c"}}));
    EXPECT_EQ(read_toml_assignment("a={b=1,c='x'}"),
              BlockConfiguration({{"a", {{"b", 1}, {"c", "x"}}}}));
    EXPECT_EQ(bytes_of(read_toml_assignment("a=[nan, -nan]")),
              bytes_of({{"a",
                         {std::numeric_limits<double>::quiet_NaN(),
                          -std::numeric_limits<double>::quiet_NaN()}}}));
    expect_throw<std::invalid_argument>([] { read_toml_assignment("a"); },
                                        "'a' is not of the form KEY=VALUE");
    expect_throw<std::invalid_argument>([] { read_toml_assignment("=a"); },
                                        "'=a' is not of the form KEY=VALUE");
    expect_throw<Quorval::GraphError>([] { read_toml_assignment("a=99999999999"); },
                                      "a: error: 'a' is out of the range of an int");
}

TEST_F(ConfigFiles, OfStoresAreReadWhole)
{
    for (unsigned seed = 0; seed < 200; ++seed) {
        const BlockConfiguration config = Chance(seed).make_config();
        write_file(path("store"), bytes_of(config));

        const StoreContent content = read_store_file(path("store"));

        EXPECT_EQ(bytes_of(content.config), bytes_of(config)) << "seed " << seed;
        EXPECT_EQ(content.damage, find_state_damage(config)) << "seed " << seed;
    }
}

TEST_F(ConfigFiles, OfStoresThatAreCutAreReadUpToTheCut)
{
    const std::vector<BlockConfiguration> parts = {
        {{"a", 1}},      {{"b", true}},   {{"c", 0.5}},       {{"d", "text"}},
        {{"e", {1, 2}}}, {{"f", {0.25}}}, {{"g", {"x", ""}}}, {{"h", {true}}}};
    BlockConfiguration whole;
    for (const BlockConfiguration& part : parts) {
        const std::string begin = bytes_of(whole);
        const std::string end = bytes_of(part);
        for (std::size_t size = 0; size < end.size(); ++size) {
            write_file(path("store"), begin + end.substr(0, size));

            const StoreContent content = read_store_file(path("store"));

            EXPECT_EQ(content.config, whole) << size << " bytes of " << part;
            EXPECT_EQ(content.damage.empty(), size == 0) << size << " bytes of " << part;
        }
        whole += part;
    }
}

TEST_F(ConfigFiles, OfStoresSayWhatIsWrong)
{
    const std::string good = bytes_of({{"a", 1}});
    const auto damage_of = [this](const std::string& bytes) {
        write_file(path("store"), bytes);
        return read_store_file(path("store")).damage;
    };
    EXPECT_EQ(damage_of(good + "x"), "1 bytes after the last whole record");
    EXPECT_EQ(damage_of(good + good.substr(0, 9)), "9 bytes after the last whole record");
    EXPECT_EQ(damage_of(good.substr(0, good.size() - 1)),
              "Failed to read 4 bytes from input stream! Read 3");
    std::string other_type = good;
    other_type[good.find("int")] = 'I';
    EXPECT_EQ(damage_of(other_type), "The parameter a has an unknown type: Int");
    std::string other_key = good;
    other_key[good.find('a')] = ' ';
    EXPECT_EQ(damage_of(other_key), "Parameter name ' ' not valid (should be [a-z0-9_.-]).");
}

TEST_F(ConfigFiles, OfStoresWithAnyBytesAreReadOrDamaged)
{
    const BlockConfiguration last = {{"zz", 1}};
    for (unsigned seed = 0; seed < 1000; ++seed) {
        Chance chance(seed);
        const std::string bytes = chance.damage(bytes_of(chance.make_config()));
        fs::remove(path("store"));
        write_file(path("store"), bytes);

        StoreContent content = read_store_file(path("store"));

        if (content.damage.empty()) {
            // Whole records alone, or another one would not be read behind them.
            write_file(path("store"), bytes + bytes_of(last));
            EXPECT_EQ(read_store_file(path("store")).config.getInt("zz", 0), 1) << "seed " << seed;
        }
    }
}

TEST_F(ConfigFiles, ThatCannotBeReadSayWhy)
{
    expect_throw<std::runtime_error>([&] { read_store_file(path("none")); },
                                     "cannot read: No such file or directory");
    expect_throw<std::runtime_error>([&] { read_store_file(path("")); },
                                     "cannot read: not a regular file");
    expect_throw<std::runtime_error>([] { read_store_file("/proc/self/mem"); },
                                     "cannot read: Input/output error");
    write_store_file(path("store"), {{"a", 1}});
    const NoDescriptors none;
    expect_throw<std::runtime_error>([&] { read_store_file(path("store")); },
                                     "cannot read: Too many open files");
}

/// The names of all files of a folder.
std::vector<std::string> list_files(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(ConfigFiles, OfStoresAreReplacedWhole)
{
    const BlockConfiguration config = {{"a", 1}, {"b", "text"}};
    write_store_file(path("store"), {{"old", 1}});
    fs::permissions(path("store"), fs::perms(0640));

    write_store_file(path("store"), config);

    EXPECT_EQ(read_file(path("store")), bytes_of(config));
    EXPECT_EQ(fs::status(path("store")).permissions(), fs::perms(0600));
    EXPECT_EQ(list_files(path("")), std::vector<std::string>{"store"});
}

TEST_F(ConfigFiles, OfStatesAreSealedAgain)
{
    for (const int version : {1, 2}) {
        BlockConfiguration state = Quorval::seal_state({{"a", 1}}, version);
        state.set("a", 2);
        ASSERT_NE(find_state_damage(state), "");

        write_store_file(path("store"), state);

        const StoreContent content = read_store_file(path("store"));
        EXPECT_EQ(content.damage, "");
        EXPECT_EQ(content.config, Quorval::seal_state({{"a", 2}}, version));
    }
}

TEST_F(ConfigFiles, OfStoresAreReplacedWhereALinkLeads)
{
    fs::create_directory(path("folder"));
    write_file(path("folder/store"), "");
    fs::create_symlink("folder/store", path("link"));

    write_store_file(path("link"), {{"a", 1}});

    EXPECT_TRUE(fs::is_symlink(path("link")));
    EXPECT_EQ(read_file(path("folder/store")), bytes_of({{"a", 1}}));
}

TEST_F(ConfigFiles, OfStoresStayOldWhereThereIsNoRoom)
{
    const BlockConfiguration old = {{"a", 1}};
    write_store_file(path("store"), old);
    const BlockConfiguration large = {{"a", std::string(5000, 'x')}};

    for (const rlim_t limit : {rlim_t{0}, rlim_t{1}, rlim_t{4999}}) {
        const FileSizeLimit full(limit);
        EXPECT_THROW(write_store_file(path("store"), large), std::runtime_error) << limit;
    }

    EXPECT_EQ(read_file(path("store")), bytes_of(old));
    EXPECT_EQ(list_files(path("")), std::vector<std::string>{"store"});
}

TEST_F(ConfigFiles, OfStoresThatCannotBeReplacedSayWhy)
{
    fs::create_directory(path("folder"));
    expect_throw<std::runtime_error>([&] { write_store_file(path("folder"), {}); },
                                     "not a regular file");
    expect_throw<std::runtime_error>([&] { write_store_file(path("none/"), {}); },
                                     "the name of a file is missing");
    const FileSizeLimit full(1);
    expect_throw<std::runtime_error>(
        [&] {
            write_store_file(path("store"), {{"a", 1}});
        },
        "there is no room for it");
}

}  // namespace
