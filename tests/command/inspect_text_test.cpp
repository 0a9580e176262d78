#include "inspect_text.h"

#include <gtest/gtest.h>

namespace {

using nlohmann::json;

std::string show(const char* plugin)
{
    Page page({0, false});
    show_plugin(json::parse(plugin), page);
    return page.text();
}

TEST(InspectText, ShowsWhatIsKnownOfAPlugin)
{
    EXPECT_EQ(show(R"({"name": "a", "file": "/a.so"})"), "a\n    file  /a.so\n");
    EXPECT_EQ(show(R"({"name": "a", "file": "/a.so", "note": {"interface": 0, "version": "1"}})"),
              "a\n    file       /a.so\n    interface  0\n    version    1\n");
}

TEST(InspectText, ShowsATypeWithoutADescription)
{
    EXPECT_EQ(show(R"({"name": "a", "file": "/a.so", "types": [{"type": "T"}, {"type": "U"}]})"),
              "a\n    file  /a.so\n\nT\n\nU\n");
}

/// The facts of one setting.
std::string facts_of(const std::string& setting)
{
    const std::string text =
        show((R"({"name": "a", "file": "", "types": [{"type": "T", "settings": [{"key": "k", )" +
              setting + "}]}]}")
                 .c_str());
    const std::string begin = "        k  ";
    return text.substr(text.find(begin) + begin.size());
}

TEST(InspectText, ShowsTheFactsOfASetting)
{
    EXPECT_EQ(facts_of(R"("type": "bool")"), "bool\n");
    EXPECT_EQ(facts_of(R"("type": "int", "required": true, "live": true, "text": "many")"),
              "int, required, live\n           many\n");
    EXPECT_EQ(facts_of(R"("type": "IntVector", "default": [], "minimum": 0, "maximum": 9)"),
              "IntVector, default [], from 0 to 9\n");
    EXPECT_EQ(facts_of(R"("type": "string", "default": "a\"b", "choices": ["a\"b", "c"])"),
              "string, default \"a\\\"b\", one of a\"b, c\n");
    EXPECT_EQ(facts_of("\"type\": \"string\", \"default\": \"gr\u00f6\u00dfer\""),
              "string, default \"gr\u00f6\u00dfer\"\n");
    EXPECT_EQ(facts_of(
                  R"("type": "StringVector", "default": ["a", "b"], "minimum_items": 0,
                      "maximum_items": 2)"),
              "StringVector, default [\"a\", \"b\"], of 0 to 2 items\n");
}

TEST(InspectText, ListsPluginsWithTheirProblems)
{
    Page page({0, false});
    show_plugins(json::parse(R"([{"name": "a", "file": "/a.so", "types": [
        {"type": "T", "summary": "Does."}, {"type": "Longer"}]}, {"name": "b", "problem": "bad"}])"),
                 page);

    EXPECT_EQ(page.text(), "a  /a.so\n    T       Does.\n    Longer\n\nb\n    bad\n");
}

}  // namespace
