# Finds libblkid and defines the target blkid::blkid.

find_path(blkid_INCLUDE_DIR blkid/blkid.h)
find_library(blkid_LIBRARY blkid)
mark_as_advanced(blkid_INCLUDE_DIR blkid_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(blkid
    REQUIRED_VARS blkid_LIBRARY blkid_INCLUDE_DIR)

if(blkid_FOUND AND NOT TARGET blkid::blkid)
    add_library(blkid::blkid UNKNOWN IMPORTED)
    set_target_properties(blkid::blkid PROPERTIES
        IMPORTED_LOCATION "${blkid_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${blkid_INCLUDE_DIR}")
endif()
