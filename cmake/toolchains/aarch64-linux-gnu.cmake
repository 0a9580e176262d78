# AArch64 Linux, built on another machine with Debian's cross compiler. What was built runs there
# under the user-mode emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# The loader would also look into the cache of the building machine. Where that lists libraries for
# AArch64 too, those of another build than the loader's own would come in, and threads hang. So those
# that belong to the cross compiler come first, and the packages of the architecture behind them.
set(CMAKE_CROSSCOMPILING_EMULATOR
    "qemu-aarch64;-L;/usr/aarch64-linux-gnu;-E;LD_LIBRARY_PATH=/usr/aarch64-linux-gnu/lib:/usr/lib/aarch64-linux-gnu")

# Programs are those of the building machine. Headers and packages without code lie where they lie
# for every architecture, so "/" is searched too; CMAKE_LIBRARY_ARCHITECTURE keeps the libraries
# of the building machine out.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Headers alone, but packaged in the folder of the building machine's libraries.
file(GLOB cereal_packages /usr/lib/*-linux-gnu/cmake/cereal)
if(cereal_packages AND NOT cereal_DIR)
    list(GET cereal_packages 0 cereal_package)
    set(cereal_DIR "${cereal_package}" CACHE PATH "The CMake package of cereal")
endif()
