# Finds Debian's builds of the Android platform libraries (liblog, libbase, libcutils, libutils).
# Their headers live under <include>/android and the libraries in an android/ folder below the
# architecture's library directory; the libraries are not on the loader's default path, so every
# binary that links them carries an rpath to ANDROID_PLATFORM_LIBRARY_DIR.

find_path(ANDROID_PLATFORM_INCLUDE_DIR NAMES log/log.h utils/String16.h PATH_SUFFIXES android
          REQUIRED)

set(_android_libs log base cutils utils)
foreach(_lib IN LISTS _android_libs)
    find_library(ANDROID_${_lib}_LIBRARY NAMES ${_lib} PATH_SUFFIXES android NO_CACHE REQUIRED)
    if(NOT TARGET Android::${_lib})
        add_library(Android::${_lib} SHARED IMPORTED)
        set_target_properties(Android::${_lib} PROPERTIES
            IMPORTED_LOCATION "${ANDROID_${_lib}_LIBRARY}"
            INTERFACE_INCLUDE_DIRECTORIES "${ANDROID_PLATFORM_INCLUDE_DIR}")
    endif()
endforeach()

get_filename_component(ANDROID_PLATFORM_LIBRARY_DIR "${ANDROID_log_LIBRARY}" DIRECTORY)
message(STATUS "Android platform libraries: ${ANDROID_PLATFORM_LIBRARY_DIR}")
