# How plug-ins are built, in this project and in those that use the installed package.
include_guard(GLOBAL)

# quorval_add_plugin(NAME SOURCES...)
#
# Adds the module NAME.so. It exports its entry point alone, and every symbol that it needs is
# found when it is linked, not when it is loaded.
function(quorval_add_plugin name)
    add_library(${name} MODULE ${ARGN})
    set_target_properties(${name} PROPERTIES
        PREFIX ""
        SUFFIX ".so"
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    target_link_libraries(${name} PRIVATE quorval::quorval)

    # With unique symbols, which std::make_shared and std::regex bring, a plug-in stays mapped for
    # ever after it was closed.
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

    # The runtime of a sanitizer is part of the program, so its symbols are undefined here.
    if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
        target_link_options(${name} PRIVATE -Wl,-z,defs)
    endif()
endfunction()
