# The compilers that the tests try the headers with, whatever the library is built with.
find_program(QUORVAL_GXX NAMES g++)
find_program(QUORVAL_CLANGXX NAMES clang++ clang++-14)
mark_as_advanced(QUORVAL_GXX QUORVAL_CLANGXX)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(TestCompilers REQUIRED_VARS QUORVAL_GXX QUORVAL_CLANGXX)
