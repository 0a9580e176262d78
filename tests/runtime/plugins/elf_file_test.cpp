// Files are made here byte by byte, of both classes and byte orders.
#include "plugins/elf_file.h"

#include "runtime/support/graph_files.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <elf.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Quorval::runtime::ElfFile;
using Quorval::runtime::read_elf_file;
using quorval_test::NoStandardInput;
using quorval_test::open_descriptors;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

constexpr const char* kText = R"({"interface": 0})";

/// Puts records into a file in the byte order that is wanted.
class Writer {
public:
    explicit Writer(bool is_swapped) : is_swapped_(is_swapped) {}

    template <class Number>
    Number order(Number number) const
    {
        auto* const bytes = reinterpret_cast<unsigned char*>(&number);
        if (is_swapped_) {
            std::reverse(bytes, bytes + sizeof number);
        }
        return number;
    }

    template <class Number, class Value>
    void set(Number& field, Value value) const
    {
        field = order(static_cast<Number>(value));
    }

private:
    bool is_swapped_;
};

template <class Record>
void append(std::string& bytes, const Record& record)
{
    bytes.append(reinterpret_cast<const char*>(&record), sizeof record);
}

std::string make_note(const Writer& writer, const std::string& owner, std::uint32_t type,
                      const std::string& text)
{
    const auto fill = [](std::string part) {
        part.resize((part.size() + 3) / 4 * 4, '\0');
        return part;
    };
    Elf32_Nhdr header{};
    writer.set(header.n_namesz, owner.size());
    writer.set(header.n_descsz, text.size());
    writer.set(header.n_type, type);
    std::string note;
    append(note, header);
    return note + fill(owner) + fill(text);
}

/// A file with two sections: their names, and notes.
/// @param notes  empty: one of another owner, and ours
template <class Header, class Section>
std::string make_elf(unsigned char elf_class, bool is_swapped,
                     const std::string& section_name = ".note.quorval", std::string notes = "")
{
    const Writer writer(is_swapped);
    const std::string names = std::string("\0.names\0", 8) + section_name + '\0';
    if (notes.empty()) {
        notes = make_note(writer, std::string("GNU\0", 4), 3, "another") +
                make_note(writer, std::string("quorval\0", 8), 1, kText);
    }

    Header header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = elf_class;
    constexpr bool kIsLittle = __BYTE_ORDER == __LITTLE_ENDIAN;
    header.e_ident[EI_DATA] = kIsLittle != is_swapped ? ELFDATA2LSB : ELFDATA2MSB;
    writer.set(header.e_machine, EM_S390);
    writer.set(header.e_shoff, sizeof header);
    writer.set(header.e_shentsize, sizeof(Section));
    writer.set(header.e_shnum, 2);
    writer.set(header.e_shstrndx, 0);

    const std::size_t content = sizeof header + 2 * sizeof(Section);
    Section first{};
    writer.set(first.sh_name, 1);
    writer.set(first.sh_type, SHT_STRTAB);
    writer.set(first.sh_offset, content);
    writer.set(first.sh_size, names.size());
    Section second{};
    writer.set(second.sh_name, 8);
    writer.set(second.sh_type, SHT_NOTE);
    writer.set(second.sh_offset, content + names.size());
    writer.set(second.sh_size, notes.size());

    std::string bytes;
    append(bytes, header);
    append(bytes, first);
    append(bytes, second);
    return bytes + names + notes;
}

class ElfFileTest : public testing::Test {
protected:
    ElfFile read(const std::string& bytes) const
    {
        write_file(path(), bytes);
        return read_elf_file(path());
    }

    std::string path() const { return directory_.path() / "plugin.so"; }

    TemporaryDirectory directory_;
};

TEST_F(ElfFileTest, ReadsBothClassesAndByteOrders)
{
    for (const bool is_swapped : {false, true}) {
        for (const bool is_32 : {false, true}) {
            const ElfFile file =
                read(is_32 ? make_elf<Elf32_Ehdr, Elf32_Shdr>(ELFCLASS32, is_swapped)
                           : make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, is_swapped));

            EXPECT_EQ(file.machine, EM_S390) << is_swapped << is_32;
            EXPECT_EQ(file.note, kText) << is_swapped << is_32;
        }
    }
}

TEST_F(ElfFileTest, LooksAtItsOwnSectionAlone)
{
    const ElfFile file =
        read(make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, false, ".note.quorvalx"));

    EXPECT_EQ(file.machine, EM_S390);
    EXPECT_EQ(file.note, "");
}

/// A file with these notes.
std::string make_elf_of(const std::string& notes)
{
    return make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, false, ".note.quorval", notes);
}

TEST_F(ElfFileTest, TakesTheFirstNoteOfItsOwnerAndType)
{
    const Writer writer(false);
    const std::string ours("quorval\0", 8);
    const auto note = [&](const std::string& owner, std::uint32_t type, const std::string& text) {
        return make_note(writer, owner, type, text);
    };

    EXPECT_EQ(read(make_elf_of(note(ours, 2, "type") + note("other", 1, "owner") +
                               note(ours, 1, "this") + note(ours, 1, "later")))
                  .note,
              "this");
    EXPECT_EQ(read(make_elf_of(note(ours, 2, "type"))).note, "");
    EXPECT_EQ(read(make_elf_of(note("quorval", 1, "without its end"))).note, "");
}

TEST_F(ElfFileTest, KnowsWhatFillsPartsUp)
{
    const Writer writer(false);
    for (std::size_t size = 0; size < 9; ++size) {
        const std::string part(size, 'x');
        EXPECT_EQ(read(make_elf_of(make_note(writer, part, 1, part) +
                                   make_note(writer, std::string("quorval\0", 8), 1, kText)))
                      .note,
                  kText)
            << size;
    }
}

TEST_F(ElfFileTest, ReadsNotesOf64KiBAtMost)
{
    constexpr std::size_t kMost = 65536;
    const Writer writer(false);
    const std::string ours("quorval\0", 8);
    const std::size_t room = kMost - sizeof(Elf32_Nhdr) - ours.size();

    EXPECT_EQ(read(make_elf_of(make_note(writer, ours, 1, std::string(room, 'x')))).note.size(),
              room);
    EXPECT_EQ(read(make_elf_of(make_note(writer, ours, 1, std::string(room + 1, 'x')))).note, "");
}

TEST_F(ElfFileTest, LooksAtTheSectionsThatItsHeaderTellsOf)
{
    const std::string whole = make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, false);
    const auto note_with = [&](std::size_t field, Elf64_Half value) {
        std::string bytes = whole;
        std::memcpy(bytes.data() + field, &value, sizeof value);
        return read(bytes).note;
    };

    EXPECT_EQ(note_with(offsetof(Elf64_Ehdr, e_shnum), 2), kText);
    EXPECT_EQ(note_with(offsetof(Elf64_Ehdr, e_shnum), 1), "");
    EXPECT_EQ(note_with(offsetof(Elf64_Ehdr, e_shnum), 0), "");
    EXPECT_EQ(note_with(offsetof(Elf64_Ehdr, e_shentsize), sizeof(Elf32_Shdr)), "");
    EXPECT_EQ(note_with(offsetof(Elf64_Ehdr, e_shstrndx), 2), "");
}

TEST_F(ElfFileTest, TakesTheFirstSectionToo)
{
    std::string bytes = make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, false);
    std::swap_ranges(bytes.begin() + sizeof(Elf64_Ehdr),
                     bytes.begin() + sizeof(Elf64_Ehdr) + sizeof(Elf64_Shdr),
                     bytes.begin() + sizeof(Elf64_Ehdr) + sizeof(Elf64_Shdr));
    const Elf64_Half names = 1;
    std::memcpy(bytes.data() + offsetof(Elf64_Ehdr, e_shstrndx), &names, sizeof names);

    EXPECT_EQ(read(bytes).note, kText);
}

TEST_F(ElfFileTest, LeavesNoDescriptorOpen)
{
    const std::string whole = make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, false);
    ASSERT_EQ(read(whole).note, kText);
    const NoStandardInput none;
    const std::vector<int> before = open_descriptors();

    EXPECT_EQ(read_elf_file(path()).note, kText);

    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(none.is_taken());
}

TEST_F(ElfFileTest, ReadsWhatIsLeftOfAFileThatIsCut)
{
    const std::string whole = make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, false);
    ASSERT_EQ(read(whole).note, kText);
    for (std::size_t size = whole.size() - 1; size > 0; --size) {
        std::filesystem::resize_file(path(), size);
        const ElfFile file = read_elf_file(path());

        EXPECT_EQ(file.machine, size < sizeof(Elf64_Ehdr) ? EM_NONE : EM_S390) << size;
        EXPECT_EQ(file.note, "") << size;
    }
}

/// Each byte in turn becomes what is likely to lead outside.
TEST_F(ElfFileTest, StaysInsideOfAFileThatIsWrong)
{
    const std::string whole = make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, false);
    ASSERT_EQ(read(whole).note, kText);
    std::fstream stream(path(), std::ios::in | std::ios::out | std::ios::binary);
    const auto put = [&stream](std::size_t at, char byte) {
        stream.seekp(static_cast<std::streamoff>(at)).put(byte).flush();
    };
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (const char byte : {'\0', '\1', '\x7F', '\x80', '\xFF'}) {
            put(at, byte);

            EXPECT_LE(read_elf_file(path()).note.size(), whole.size()) << at;
        }
        put(at, whole[at]);
    }
    EXPECT_EQ(read_elf_file(path()).note, kText);
}

TEST_F(ElfFileTest, SurvivesLengthsThatDoNotFit)
{
    const Writer writer(false);
    std::string bytes = make_elf<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, false);
    const std::string note = make_note(writer, std::string("quorval\0", 8), 1, kText);
    const std::size_t at = bytes.size() - note.size();
    for (const std::size_t field : {std::size_t{0}, std::size_t{4}}) {
        for (const std::uint32_t length : {0xFFFFFFFFU, 0xFFFFFFFDU, 0x80000000U, 17U, 0U}) {
            std::string wrong = bytes;
            std::memcpy(wrong.data() + at + field, &length, sizeof length);

            EXPECT_NE(read(wrong).note, kText) << field << " " << length;
        }
    }
}

TEST_F(ElfFileTest, ReadsNothingOfAnotherKindOfFile)
{
    EXPECT_EQ(read("").machine, 0U);
    EXPECT_EQ(read("#!/bin/sh\nexit 0\n").machine, 0U);
    EXPECT_EQ(read_elf_file(directory_.path()).machine, 0U);
    EXPECT_EQ(read_elf_file(directory_.path() / "nowhere").machine, 0U);
    EXPECT_EQ(read_elf_file("/dev/zero").machine, 0U);
}

TEST(OwnMachine, IsThatOfThePluginsThatAreBuiltHere)
{
    const ElfFile file = read_elf_file(quorval_test::test_plugin_directory() + "/parts.so");

    EXPECT_NE(file.machine, 0U);
    EXPECT_EQ(file.machine, Quorval::runtime::own_machine());
}

TEST(MachineName, NamesWhatIsCommon)
{
    const std::vector<std::pair<unsigned, std::string>> names = {
        {EM_386, "x86"},      {EM_X86_64, "x86-64"},   {EM_ARM, "ARM"},    {EM_AARCH64, "AArch64"},
        {EM_RISCV, "RISC-V"}, {EM_PPC64, "PowerPC64"}, {EM_S390, "S/390"}, {4711, "machine 4711"}};
    for (const auto& [machine, name] : names) {
        EXPECT_EQ(Quorval::runtime::machine_name(machine), name);
    }
}

}  // namespace
