#include "messages/plugin_code.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

using namespace Quorval::runtime;

namespace {

constexpr int kHere = 0;  // lies in this program
constexpr int kHereToo = 0;

/// In a library.
const void* there()
{
    return ::dlsym(RTLD_DEFAULT, "gnu_get_libc_version");
}

TEST(PluginCode, IsOfThePluginThatLiesThere)
{
    note_plugin_code(&kHere, "here");
    note_plugin_code(there(), "there");

    EXPECT_EQ(find_plugin_code(&kHereToo), "here");
    EXPECT_EQ(find_plugin_code(there()), "there");
    forget_plugin_code(&kHereToo);
    EXPECT_EQ(find_plugin_code(&kHere), "");
    EXPECT_EQ(find_plugin_code(there()), "there");
    forget_plugin_code(there());
    EXPECT_EQ(find_plugin_code(there()), "");
}

TEST(PluginCode, IsNowhereElse)
{
    const int local = 0;
    note_plugin_code(&kHere, "here");

    EXPECT_EQ(find_plugin_code(&local), "");
    EXPECT_EQ(find_plugin_code(nullptr), "");

    forget_plugin_code(&kHere);
}

}  // namespace
