// The note that quorval_add_plugin() puts into a plug-in.
#include "support/support.h"

#include <gtest/gtest.h>

#include <elf.h>

#include <cstring>
#include <string>

namespace {

template <class Record>
Record read_record(const std::string& file, std::size_t offset)
{
    Record record{};
    std::memcpy(&record, file.data() + offset, sizeof record);
    return record;
}

/// The content of a section; empty when there is none.
std::string read_section(const std::string& file, const std::string& name, Elf64_Word type)
{
    const auto header = read_record<Elf64_Ehdr>(file, 0);
    const auto get_section = [&](std::size_t index) {
        return read_record<Elf64_Shdr>(file, header.e_shoff + index * header.e_shentsize);
    };
    const Elf64_Shdr names = get_section(header.e_shstrndx);
    for (std::size_t i = 0; i < header.e_shnum; ++i) {
        const Elf64_Shdr section = get_section(i);
        if (file.c_str() + names.sh_offset + section.sh_name == name && section.sh_type == type) {
            return file.substr(section.sh_offset, section.sh_size);
        }
    }
    return "";
}

TEST(PluginNote, SaysWhatThePluginWasBuiltWithAndFor)
{
    const std::string note =
        read_section(quorval_test::read_file(QUORVAL_GAIN_PLUGIN), ".note.quorval", SHT_NOTE);
    ASSERT_GT(note.size(), sizeof(Elf64_Nhdr) + 8);
    const auto header = read_record<Elf64_Nhdr>(note, 0);
    const std::string owner = note.substr(sizeof header, header.n_namesz);
    const std::string text = note.substr(sizeof header + header.n_namesz, header.n_descsz);

    EXPECT_EQ(owner, std::string("quorval\0", 8));
    EXPECT_EQ(header.n_type, 1U);
    EXPECT_EQ(note.size(), sizeof header + 8 + (header.n_descsz + 3) / 4 * 4);
    const std::string head = R"({"interface": 0, "standard_library": "libstdc++", "compiler": ")";
    const std::string tail = R"(", "version": ")" QUORVAL_VERSION R"("})";
    ASSERT_GT(text.size(), head.size() + tail.size());
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    EXPECT_NE(text.find("++ "), std::string::npos);
    EXPECT_NE(text.find(QUORVAL_COMPILER_VERSION), std::string::npos) << text;
}

}  // namespace
