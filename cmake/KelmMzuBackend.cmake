# Chooses the coders behind mzu::CMiniZCompressor: one for all levels, and ISA-L for level 1. Each is
# one source file behind compressors/internal/mzu_coder.h, and all write zlib streams.
#
# Sets KELM_MZU_SOURCES and KELM_MZU_LIBRARIES, and KELM_MZU_HAS_ISAL.

include_guard(GLOBAL)

if(KELM_MZU_BACKEND STREQUAL "auto")
    find_package(libdeflate QUIET)
    if(libdeflate_FOUND)
        set(backend libdeflate)
    else()
        set(backend miniz)
    endif()
elseif(KELM_MZU_BACKEND MATCHES "^(libdeflate|miniz)$")
    set(backend ${KELM_MZU_BACKEND})
else()
    message(FATAL_ERROR
        "KELM_MZU_BACKEND is \"${KELM_MZU_BACKEND}\"; it must be auto, libdeflate or miniz")
endif()

find_package(${backend} REQUIRED)
set(KELM_MZU_SOURCES compressors/internal/mzu_coder_${backend}.cpp)
set(KELM_MZU_LIBRARIES ${backend}::${backend})

set(KELM_MZU_HAS_ISAL FALSE)
if(KELM_MZU_FAST)
    find_package(isal QUIET)
    set(KELM_MZU_HAS_ISAL ${isal_FOUND})
endif()
if(KELM_MZU_HAS_ISAL)
    list(APPEND KELM_MZU_SOURCES compressors/internal/mzu_fastest_isal.cpp)
    list(APPEND KELM_MZU_LIBRARIES isal::isal)
    message(STATUS "minizutil codes with ${backend}, and level 1 with ISA-L")
else()
    list(APPEND KELM_MZU_SOURCES compressors/internal/mzu_fastest_none.cpp)
    if(KELM_MZU_FAST)
        set(reason "ISA-L was not found")
    else()
        set(reason "KELM_MZU_FAST is off")
    endif()
    message(STATUS "minizutil codes with ${backend}; ${reason}, so level 1 is several times slower")
endif()
