# What all targets of this project are built with.
include_guard(GLOBAL)

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

# quorval_option(NAME DEFAULT TEXT PACKAGES...)
#
# An option whose part of the build needs PACKAGES. Asked for by name, a missing package is an
# error; by default the part is left out with a warning, so that the library builds on a machine
# that has nothing but what the library itself needs.
macro(quorval_option name default text)
    # From the second configuration on a default is defined too: the cache holds it, with its text.
    get_property(_quorval_text CACHE ${name} PROPERTY HELPSTRING)
    if(DEFINED ${name} AND NOT "${_quorval_text}" STREQUAL "${text}")
        set(${name}_IS_ASKED_FOR ON CACHE INTERNAL "")
    endif()
    if(${name}_IS_ASKED_FOR)
        set(_quorval_required REQUIRED)
    else()
        set(_quorval_required QUIET)
    endif()
    option(${name} "${text}" ${default})
    if(${name})
        foreach(_quorval_package IN ITEMS ${ARGN})
            find_package(${_quorval_package} ${_quorval_required})
            if(NOT ${_quorval_package}_FOUND)
                message(WARNING "${name} is off: ${_quorval_package} was not found. "
                    "`./dev setup` installs all that is needed.")
                # Not cached: the next configuration looks again.
                set(${name} OFF)
            endif()
        endforeach()
    endif()
endmacro()

# quorval_set_warnings(TARGET)
function(quorval_set_warnings target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
        $<$<BOOL:${QUORVAL_WERROR}>:-Werror>)
endfunction()

# quorval_harden(TARGET): the protections that Debian builds its packages with.
function(quorval_harden target)
    target_compile_options(${target} PRIVATE -fstack-protector-strong -Wformat -Wformat-security)
    if(CMAKE_BUILD_TYPE MATCHES "Rel" AND NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")
        target_compile_options(${target} PRIVATE -D_FORTIFY_SOURCE=2)
    endif()
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        target_compile_options(${target} PRIVATE -mbranch-protection=standard)
    endif()
    target_link_options(${target} PRIVATE -Wl,-z,relro,-z,now)
endfunction()
