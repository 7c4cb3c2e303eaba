# What host/content needs to know what disks hold. Programs and plugins that do not ask for it load
# none of these libraries.

include_guard(GLOBAL)

set(CMAKE_LINK_LIBRARY_USING_KELM_IF_NEEDED_SUPPORTED TRUE)
set(CMAKE_LINK_LIBRARY_USING_KELM_IF_NEEDED
    "LINKER:--push-state,--as-needed" "<LINK_ITEM>" "LINKER:--pop-state")

# kelm_content_library(<name> <option> <what is missing without it>): defines KELM_HAS_<NAME> as 1 or
# 0 for host/.
function(kelm_content_library name option loss)
    string(TOUPPER "${name}" upper)
    set(has 0)
    if(${option})
        find_package(${name} QUIET)
    endif()
    if(${name}_FOUND)
        set(has 1)
        target_include_directories(kelm_host SYSTEM PRIVATE "${${name}_INCLUDE_DIR}")
        target_link_libraries(kelm_host PRIVATE
            "$<LINK_LIBRARY:KELM_IF_NEEDED,${${name}_LIBRARY}>")
    else()
        message(STATUS "lib${name} was not found or is off: ${loss}")
    endif()
    target_compile_definitions(kelm_host PRIVATE KELM_HAS_${upper}=${has})
endfunction()

kelm_content_library(blkid KELM_BLKID "kelm files tells no file systems")
kelm_content_library(ext2fs KELM_EXT2FS "no kelm import --exclude-free")
