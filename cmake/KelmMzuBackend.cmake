# Chooses the coder behind mzu::CMiniZCompressor. Each is one source file behind
# compressors/internal/mzu_coder.h, and both write the same zlib streams.
#
# Sets KELM_MZU_CODER_SOURCE and KELM_MZU_CODER_LIBRARY.

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
set(KELM_MZU_CODER_SOURCE compressors/internal/mzu_coder_${backend}.cpp)
set(KELM_MZU_CODER_LIBRARY ${backend}::${backend})
message(STATUS "minizutil codes with ${backend}")
