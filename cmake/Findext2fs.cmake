# Finds libext2fs and defines the target ext2fs::ext2fs.

find_path(ext2fs_INCLUDE_DIR ext2fs/ext2fs.h)
find_library(ext2fs_LIBRARY ext2fs)
mark_as_advanced(ext2fs_INCLUDE_DIR ext2fs_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ext2fs
    REQUIRED_VARS ext2fs_LIBRARY ext2fs_INCLUDE_DIR)

if(ext2fs_FOUND AND NOT TARGET ext2fs::ext2fs)
    add_library(ext2fs::ext2fs UNKNOWN IMPORTED)
    set_target_properties(ext2fs::ext2fs PROPERTIES
        IMPORTED_LOCATION "${ext2fs_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${ext2fs_INCLUDE_DIR}")
endif()
