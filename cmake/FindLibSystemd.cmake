# libsystemd, as the target LibSystemd::systemd.
find_path(LibSystemd_INCLUDE_DIR systemd/sd-event.h)
find_library(LibSystemd_LIBRARY systemd)
mark_as_advanced(LibSystemd_INCLUDE_DIR LibSystemd_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LibSystemd
    REQUIRED_VARS LibSystemd_LIBRARY LibSystemd_INCLUDE_DIR)

if(LibSystemd_FOUND AND NOT TARGET LibSystemd::systemd)
    add_library(LibSystemd::systemd UNKNOWN IMPORTED)
    set_target_properties(LibSystemd::systemd PROPERTIES
        IMPORTED_LOCATION "${LibSystemd_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${LibSystemd_INCLUDE_DIR}")
endif()
