// What a plug-in was built with and for, as a note that tools read without loading it. Compiled
// into every plug-in by quorval_add_plugin().
#include <cstddef>
#include <cstdint>
#include <string>  // whichever standard library it comes with says so

#if defined(_LIBCPP_VERSION)
#define QUORVAL_STANDARD_LIBRARY "libc++"
#elif defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI == 0
#define QUORVAL_STANDARD_LIBRARY "libstdc++ with the ABI of before C++11"
#else
#define QUORVAL_STANDARD_LIBRARY "libstdc++"
#endif

#define QUORVAL_TEXT_OF(number) #number
#define QUORVAL_TEXT(number) QUORVAL_TEXT_OF(number)
#if defined(__clang__)
#define QUORVAL_COMPILER                                                                         \
    "clang++ " QUORVAL_TEXT(__clang_major__) "." QUORVAL_TEXT(__clang_minor__) "." QUORVAL_TEXT( \
        __clang_patchlevel__)
#else
#define QUORVAL_COMPILER "g++ " __VERSION__
#endif

namespace {

// The interface is the number in the SONAME of the library.
constexpr char kText[] =
    "{\"interface\": 0, \"standard_library\": \"" QUORVAL_STANDARD_LIBRARY
    "\", \"compiler\": \"" QUORVAL_COMPILER "\", \"version\": \"" QUORVAL_VERSION "\"}";
constexpr std::size_t kLength = sizeof kText - 1;
constexpr std::size_t kAlignment = 4;

/// As ELF lays a note out.
struct Note {
    std::uint32_t owner_size = sizeof owner;
    std::uint32_t text_size = kLength;
    std::uint32_t type = 1;
    char owner[8] = "quorval";
    char text[(kLength + kAlignment - 1) / kAlignment * kAlignment] = {};
};

constexpr Note make_note()
{
    Note note;
    for (std::size_t i = 0; i < kLength; ++i) {
        note.text[i] = kText[i];
    }
    return note;
}

[[gnu::used, gnu::section(".note.quorval"), gnu::aligned(kAlignment)]] constexpr Note kNote =
    make_note();

}  // namespace
