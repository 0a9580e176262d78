// What the runtime wants to know of an ELF file before it loads it.
#pragma once

#include <string>

namespace Quorval::runtime {

struct ElfFile {
    unsigned machine = 0;  ///< as <elf.h> counts; 0 of what is no ELF file
    std::string note;      ///< the content of the note of this project; empty: there is none
};

/// Reads a file of either class and byte order. It may hold anything, and is never waited for: what
/// cannot be read is left out.
ElfFile read_elf_file(const std::string& path);

/// The machine that this code was built for.
unsigned own_machine();

/// "x86-64", or "machine <n>" for one that is rare.
std::string machine_name(unsigned machine);

}  // namespace Quorval::runtime
