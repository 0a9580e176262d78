# Test programs of a cross build: each runs as a whole under CMAKE_CROSSCOMPILING_EMULATOR.
include_guard(GLOBAL)

# What the emulator cannot do, one test a line: `<program> <Suite.Test> <reason>`.
set(QUORVAL_EMULATION_LIMITS "${PROJECT_SOURCE_DIR}/tests/emulation_limits.txt")
set_property(DIRECTORY "${PROJECT_SOURCE_DIR}"
    APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${QUORVAL_EMULATION_LIMITS}")

# quorval_add_emulated_test(NAME)
#
# Registers the test program NAME. The tests of it that are listed as beyond the emulator are left
# out there, and run one by one instead; each of those is a failure when it passes or is not there
# any more, so that the list stays true.
function(quorval_add_emulated_test name)
    file(STRINGS "${QUORVAL_EMULATION_LIMITS}" lines REGEX "^${name} ")
    set(excluded "")
    foreach(line IN LISTS lines)
        if(NOT line MATCHES "^[a-z_]+ ([A-Za-z0-9_/]+\\.[A-Za-z0-9_/]+) .+")
            message(FATAL_ERROR "${QUORVAL_EMULATION_LIMITS}: no `<program> <Suite.Test> <reason>`: "
                "${line}")
        endif()
        set(test "${CMAKE_MATCH_1}")
        string(APPEND excluded ":${test}")
        add_test(NAME "emulation_limit.${name}.${test}"
            COMMAND bash "${PROJECT_SOURCE_DIR}/tests/expect_emulation_limit.sh" "${test}"
                ${CMAKE_CROSSCOMPILING_EMULATOR} "$<TARGET_FILE:${name}>")
        set_tests_properties("emulation_limit.${name}.${test}" PROPERTIES TIMEOUT 120)
    endforeach()
    string(REGEX REPLACE "^:" "-" filter "${excluded}")

    add_test(NAME ${name} COMMAND ${name} "--gtest_filter=*${filter}")
    set_tests_properties(${name} PROPERTIES
        TIMEOUT 600
        SKIP_REGULAR_EXPRESSION ""
        FAIL_REGULAR_EXPRESSION "\\[  SKIPPED \\];Running 0 tests")
    set_property(GLOBAL APPEND PROPERTY QUORVAL_EMULATED_PROGRAMS ${name})
endfunction()

# quorval_check_emulation_limits(): every line of the list names a program that exists. Called
# after the last test program.
function(quorval_check_emulation_limits)
    get_property(programs GLOBAL PROPERTY QUORVAL_EMULATED_PROGRAMS)
    file(STRINGS "${QUORVAL_EMULATION_LIMITS}" lines REGEX "^[^#]")
    foreach(line IN LISTS lines)
        string(REGEX REPLACE " .*" "" program "${line}")
        if(NOT program IN_LIST programs)
            message(FATAL_ERROR "${QUORVAL_EMULATION_LIMITS}: there is no test program ${program}")
        endif()
    endforeach()
endfunction()
