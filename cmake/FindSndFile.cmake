# libsndfile, as the target SndFile::sndfile. Its own CMake package is not part of every
# distribution.
find_path(SndFile_INCLUDE_DIR sndfile.h)
find_library(SndFile_LIBRARY sndfile)
mark_as_advanced(SndFile_INCLUDE_DIR SndFile_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SndFile REQUIRED_VARS SndFile_LIBRARY SndFile_INCLUDE_DIR)

if(SndFile_FOUND AND NOT TARGET SndFile::sndfile)
    add_library(SndFile::sndfile UNKNOWN IMPORTED)
    set_target_properties(SndFile::sndfile PROPERTIES
        IMPORTED_LOCATION "${SndFile_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${SndFile_INCLUDE_DIR}")
endif()
