# Where things are installed, and how pkg-config learns of it.
include_guard(GLOBAL)
include(GNUInstallDirs)

set(QUORVAL_INSTALL_PACKAGEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/quorval")
set(QUORVAL_INSTALL_PLUGINDIR "${CMAKE_INSTALL_LIBDIR}/quorval/plugins")

# quorval_install_pkg_config(NAME)
#
# Installs NAME.pc, made of cmake/NAME.pc.in. In a system prefix it names the paths as they are, and
# pkg-config leaves out those that the compiler knows. In any other, which may be moved, it names the
# way from itself up to the prefix. Which of them it is, is known when it is installed.
function(quorval_install_pkg_config name)
    set(directory "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
    set(built "${CMAKE_CURRENT_BINARY_DIR}/pkgconfig")
    file(RELATIVE_PATH up "/${directory}" "/")
    string(REGEX REPLACE "/$" "" up "${up}")
    foreach(prefix IN ITEMS "" /usr /usr/local)
        set(QUORVAL_PC_PREFIX "${prefix}")
        if(prefix STREQUAL "")
            set(QUORVAL_PC_PREFIX "\${pcfiledir}/${up}")
        endif()
        configure_file("${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in" "${built}${prefix}/${name}.pc" @ONLY)
    endforeach()
    install(CODE "
        set(prefix \"\")
        if(CMAKE_INSTALL_PREFIX MATCHES \"^(/usr|/usr/local)/*\$\")
            set(prefix \"\${CMAKE_MATCH_1}\")
        endif()
        file(INSTALL \"${built}\${prefix}/${name}.pc\"
            DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${directory}\")")
endfunction()
