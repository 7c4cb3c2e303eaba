# What host/content needs to know what disks hold. Programs and plugins that do not ask for it load
# none of these libraries.

include_guard(GLOBAL)

set(CMAKE_LINK_LIBRARY_USING_KELM_IF_NEEDED_SUPPORTED TRUE)
set(CMAKE_LINK_LIBRARY_USING_KELM_IF_NEEDED
    "LINKER:--push-state,--as-needed" "<LINK_ITEM>" "LINKER:--pop-state")

set(KELM_HAS_BLKID FALSE)
if(KELM_BLKID)
    find_package(blkid QUIET)
    set(KELM_HAS_BLKID ${blkid_FOUND})
endif()
if(KELM_HAS_BLKID)
    target_compile_definitions(kelm_host PRIVATE KELM_HAS_BLKID=1)
    target_include_directories(kelm_host SYSTEM PRIVATE "${blkid_INCLUDE_DIR}")
    target_link_libraries(kelm_host PRIVATE "$<LINK_LIBRARY:KELM_IF_NEEDED,blkid::blkid>")
else()
    target_compile_definitions(kelm_host PRIVATE KELM_HAS_BLKID=0)
    message(STATUS "kelm files: libblkid was not found or is off, so it tells no file systems")
endif()
