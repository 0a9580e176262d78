# libmosquitto, as the target Mosquitto::mosquitto.
find_path(Mosquitto_INCLUDE_DIR mosquitto.h)
find_library(Mosquitto_LIBRARY mosquitto)
mark_as_advanced(Mosquitto_INCLUDE_DIR Mosquitto_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Mosquitto
    REQUIRED_VARS Mosquitto_LIBRARY Mosquitto_INCLUDE_DIR)

if(Mosquitto_FOUND AND NOT TARGET Mosquitto::mosquitto)
    add_library(Mosquitto::mosquitto UNKNOWN IMPORTED)
    set_target_properties(Mosquitto::mosquitto PROPERTIES
        IMPORTED_LOCATION "${Mosquitto_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Mosquitto_INCLUDE_DIR}")
endif()
