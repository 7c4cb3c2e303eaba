# Finds the client library of Ceph's file system and defines the target cephfs::cephfs.

find_path(cephfs_INCLUDE_DIR cephfs/libcephfs.h)
find_library(cephfs_LIBRARY cephfs)
mark_as_advanced(cephfs_INCLUDE_DIR cephfs_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(cephfs
    REQUIRED_VARS cephfs_LIBRARY cephfs_INCLUDE_DIR)

if(cephfs_FOUND AND NOT TARGET cephfs::cephfs)
    add_library(cephfs::cephfs UNKNOWN IMPORTED)
    set_target_properties(cephfs::cephfs PROPERTIES
        IMPORTED_LOCATION "${cephfs_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${cephfs_INCLUDE_DIR}")
endif()
