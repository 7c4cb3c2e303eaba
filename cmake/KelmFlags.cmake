# Flags that concern every target: sanitizers, unresolved symbols, checks of the standard library.

include_guard(GLOBAL)

if(KELM_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "KELM_FUZZ needs Clang")
    endif()
    set(sanitizers fuzzer-no-link,address,undefined)
elseif(KELM_SANITIZE AND KELM_SANITIZE_THREAD)
    message(FATAL_ERROR "KELM_SANITIZE and KELM_SANITIZE_THREAD exclude each other")
elseif(KELM_SANITIZE)
    set(sanitizers address,undefined)
elseif(KELM_SANITIZE_THREAD)
    set(sanitizers thread)
endif()

if(sanitizers)
    add_compile_options(
        -fsanitize=${sanitizers} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    # Assertions are on wherever a sanitizer is, whatever the build type says before.
    add_compile_options(-UNDEBUG)
    add_link_options(-fsanitize=${sanitizers})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # GCC sees uses of uninitialised values in code that the sanitizers insert.
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
endif()

if(KELM_WERROR AND UNIX AND NOT APPLE AND NOT sanitizers)
    # A library names all that it links, so that no symbol is found by luck only. The run time of
    # the sanitizers is linked into programs alone, hence not with them.
    add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:-Wl,--no-undefined>)
endif()

if(sanitizers OR CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_definitions(_GLIBCXX_ASSERTIONS)
endif()
