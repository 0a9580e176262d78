# How plug-ins are built, in this project and in those that use the installed package.
include_guard(GLOBAL)

# Of this project or its package; a project around it has another scope.
set_property(GLOBAL PROPERTY QUORVAL_PLUGIN_VERSION "${quorval_VERSION}")

# quorval_add_plugin(NAME SOURCES...)
#
# Adds the module NAME.so. It exports none of its own names but the entry point, and every symbol
# that it needs is found when it is linked, not when it is loaded. A note in it, in the section
# .note.quorval, says what it was built with and for.
function(quorval_add_plugin name)
    set(note "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/QuorvalNote.cpp")
    add_library(${name} MODULE ${ARGN} "${note}")
    get_property(version GLOBAL PROPERTY QUORVAL_PLUGIN_VERSION)
    set_source_files_properties("${note}" PROPERTIES
        COMPILE_DEFINITIONS "QUORVAL_VERSION=\"${version}\"")
    set_target_properties(${name} PROPERTIES
        PREFIX ""
        SUFFIX ".so"
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    target_link_libraries(${name} PRIVATE quorval::quorval)

    # With unique symbols, which std::make_shared and std::regex bring, a plug-in stays mapped for
    # ever after it was closed.
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

    quorval_refuse_undefined_symbols(${name})
endfunction()

# quorval_refuse_undefined_symbols(TARGET)
#
# Lets the linker refuse a symbol of TARGET that nothing defines, unless a sanitizer is among the
# options of TARGET or of what it links: the runtime of a sanitizer is part of the program. Decided
# at the end of the configuration, when all options are known.
function(quorval_refuse_undefined_symbols target)
    # The name is put in now, as a deferred call sees the variables of the end.
    cmake_language(EVAL CODE "cmake_language(DEFER DIRECTORY [[${CMAKE_SOURCE_DIR}]]
        CALL _quorval_refuse_undefined_symbols [[${target}]])")
endfunction()

function(_quorval_refuse_undefined_symbols target)
    _quorval_collect_options(${target} options)
    if(NOT options MATCHES "-fsanitize=")
        target_link_options(${target} PRIVATE -Wl,-z,defs)
    endif()
endfunction()

# The options that a target is compiled and linked with, and those of all that it links, as text:
# generator expressions stay as they are.
function(_quorval_collect_options target result)
    set(options "")
    get_target_property(directory ${target} SOURCE_DIR)
    set(variables CMAKE_CXX_FLAGS CMAKE_MODULE_LINKER_FLAGS CMAKE_SHARED_LINKER_FLAGS)
    foreach(config IN LISTS CMAKE_BUILD_TYPE CMAKE_CONFIGURATION_TYPES)
        string(TOUPPER "CMAKE_CXX_FLAGS_${config}" variable)
        list(APPEND variables ${variable})
    endforeach()
    foreach(variable IN LISTS variables)
        get_directory_property(value DIRECTORY "${directory}" DEFINITION ${variable})
        string(APPEND options " ${value}")
    endforeach()

    set(seen "")
    set(pending ${target})
    while(NOT pending STREQUAL "")
        list(POP_FRONT pending next)
        if(NOT TARGET "${next}" OR next IN_LIST seen)
            continue()
        endif()
        list(APPEND seen "${next}")
        set(properties INTERFACE_COMPILE_OPTIONS INTERFACE_LINK_OPTIONS)
        set(libraries INTERFACE_LINK_LIBRARIES)
        get_target_property(type "${next}" TYPE)
        # How a shared library was built is its own affair.
        if(next STREQUAL target OR NOT type STREQUAL "SHARED_LIBRARY")
            list(APPEND properties COMPILE_FLAGS COMPILE_OPTIONS LINK_FLAGS LINK_OPTIONS)
            list(APPEND libraries LINK_LIBRARIES)
        endif()
        foreach(property IN LISTS properties)
            get_target_property(value "${next}" ${property})
            string(APPEND options " ${value}")
        endforeach()
        foreach(property IN LISTS libraries)
            get_target_property(value "${next}" ${property})
            list(APPEND pending ${value})
        endforeach()
    endwhile()
    set(${result} "${options}" PARENT_SCOPE)
endfunction()
