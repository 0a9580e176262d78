#include "plugins/elf_file.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>

namespace Quorval::runtime {

namespace {

constexpr std::string_view kSection(".note.quorval\0", 14);
constexpr std::string_view kOwner("quorval\0", 8);
constexpr std::uint32_t kNoteType = 1;
constexpr std::size_t kLongestSection = 65536;

/// A regular file that is read in pieces.
class Pieces {
public:
    explicit Pieces(const std::string& path)
        : fd_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC))
    {
        struct stat status {};
        is_regular_ = ::fstat(fd_, &status) == 0 && S_ISREG(status.st_mode);
    }
    Pieces(const Pieces&) = delete;
    Pieces& operator=(const Pieces&) = delete;
    ~Pieces()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    /// @return false where the file does not hold that much
    bool read(std::uint64_t offset, void* to, std::size_t size) const
    {
        if (!is_regular_ || offset > std::numeric_limits<off_t>::max() - size) {
            return false;
        }
        const ssize_t count = ::pread(fd_, to, size, static_cast<off_t>(offset));
        return count == static_cast<ssize_t>(size);
    }

private:
    int fd_;
    bool is_regular_ = false;
};

/// A number as this machine has it.
template <class Number>
Number to_native(Number number, bool is_swapped)
{
    unsigned char bytes[sizeof number];  // NOLINT(*-avoid-c-arrays)
    std::memcpy(bytes, &number, sizeof number);
    if (is_swapped) {
        std::reverse(bytes, bytes + sizeof number);
    }
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

/// Where the numbers of a format stand.
struct Format32 {
    using Header = Elf32_Ehdr;
    using Section = Elf32_Shdr;
};
struct Format64 {
    using Header = Elf64_Ehdr;
    using Section = Elf64_Shdr;
};

template <class Format>
class Reader {
public:
    using Header = typename Format::Header;
    using Section = typename Format::Section;

    Reader(const Pieces& file, bool is_swapped) : file_(file), is_swapped_(is_swapped) {}

    ElfFile read() const
    {
        Header header{};
        if (!file_.read(0, &header, sizeof header)) {
            return {};
        }
        const std::string section = find_section(header);
        return {native(header.e_machine), content_of_note(section)};
    }

private:
    template <class Number>
    Number native(Number number) const
    {
        return to_native(number, is_swapped_);
    }

    std::optional<Section> read_section(const Header& header, std::uint64_t index) const
    {
        Section section{};
        const std::uint64_t offset = native(header.e_shoff) + index * sizeof section;
        const bool is_there = native(header.e_shentsize) == sizeof section &&
                              index < native(header.e_shnum) &&
                              file_.read(offset, &section, sizeof section);
        return is_there ? std::optional(section) : std::nullopt;
    }

    /// The content of the section of notes; empty where there is none.
    std::string find_section(const Header& header) const
    {
        const auto names = read_section(header, native(header.e_shstrndx));
        for (std::uint64_t i = 0; names; ++i) {
            const auto section = read_section(header, i);
            if (!section) {
                break;
            }
            if (native(section->sh_type) == SHT_NOTE && is_ours(*names, *section)) {
                return read_content(*section);
            }
        }
        return {};
    }

    bool is_ours(const Section& names, const Section& section) const
    {
        std::string name(kSection.size(), ' ');
        const auto offset = std::uint64_t{native(names.sh_offset)} + native(section.sh_name);
        return file_.read(offset, name.data(), name.size()) && name == kSection;
    }

    std::string read_content(const Section& section) const
    {
        std::string content(std::min<std::uint64_t>(native(section.sh_size), kLongestSection), 0);
        return file_.read(native(section.sh_offset), content.data(), content.size()) ? content : "";
    }

    /// The content of the first note of this project.
    std::string content_of_note(const std::string& section) const
    {
        Elf32_Nhdr header{};  // the same in both classes
        std::size_t at = 0;
        while (section.size() - at >= sizeof header) {
            std::memcpy(&header, section.data() + at, sizeof header);
            at += sizeof header;
            const std::string owner = take(section, at, native(header.n_namesz));
            std::string text = take(section, at, native(header.n_descsz));
            if (owner == kOwner && native(header.n_type) == kNoteType) {
                return text;
            }
        }
        return {};
    }

    /// Takes a part, with what fills it up to four bytes; empty where so much is not there.
    static std::string take(const std::string& section, std::size_t& at, std::uint64_t size)
    {
        constexpr std::uint64_t kAlignment = 4;
        const std::uint64_t left = section.size() - at;
        std::string part = size <= left ? section.substr(at, size) : "";
        at += std::min((size + kAlignment - 1) / kAlignment * kAlignment, left);
        return part;
    }

    const Pieces& file_;
    bool is_swapped_;
};

}  // namespace

ElfFile read_elf_file(const std::string& path)
{
    const Pieces file(path);
    std::string ident(EI_NIDENT, '\0');
    if (!file.read(0, ident.data(), ident.size()) || ident.compare(0, SELFMAG, ELFMAG) != 0) {
        return {};
    }
    constexpr char kOwnOrder = __BYTE_ORDER == __LITTLE_ENDIAN ? ELFDATA2LSB : ELFDATA2MSB;
    const bool is_swapped = ident[EI_DATA] != kOwnOrder;
    return ident[EI_CLASS] == ELFCLASS32 ? Reader<Format32>(file, is_swapped).read()
                                         : Reader<Format64>(file, is_swapped).read();
}

unsigned own_machine()
{
    Dl_info self{};
    if (::dladdr(reinterpret_cast<const void*>(&own_machine), &self) == 0) {
        return EM_NONE;
    }
    return static_cast<const ElfW(Ehdr)*>(self.dli_fbase)->e_machine;
}

std::string machine_name(unsigned machine)
{
    switch (machine) {
        case EM_386:
            return "x86";
        case EM_X86_64:
            return "x86-64";
        case EM_ARM:
            return "ARM";
        case EM_AARCH64:
            return "AArch64";
        case EM_RISCV:
            return "RISC-V";
        case EM_PPC64:
            return "PowerPC64";
        case EM_S390:
            return "S/390";
        default:
            return "machine " + std::to_string(machine);
    }
}

}  // namespace Quorval::runtime
