# Functions that make the targets of the tree.
#
# Sources are found by pattern, so a new file needs no edit here: the next build sees it.

include_guard(GLOBAL)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")

# kelm_find_sources(<result> <pattern>...): the files of the tree that match, by absolute path.
function(kelm_find_sources result)
    list(TRANSFORM ARGN PREPEND "${PROJECT_SOURCE_DIR}/" OUTPUT_VARIABLE patterns)
    file(GLOB sources CONFIGURE_DEPENDS ${patterns})
    set(${result} "${sources}" PARENT_SCOPE)
endfunction()

# kelm_own_code(<target>): language level, visibility and warnings of our own code.
function(kelm_own_code target)
    target_compile_features(${target} PUBLIC cxx_std_20)
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    if(MSVC)
        target_compile_options(${target} PRIVATE /W4 $<$<BOOL:${KELM_WERROR}>:/WX>)
    else()
        target_compile_options(${target} PRIVATE
            -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Woverloaded-virtual
            $<$<BOOL:${KELM_WERROR}>:-Werror>)
        if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
            # Nobody replaces functions of our libraries from outside; so calls inside one of them
            # need no detour, and may be inlined. Clang takes that for granted.
            target_compile_options(${target} PRIVATE -fno-semantic-interposition)
        endif()
        if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION MATCHES "^12\\.")
            # GCC 12 takes "text" + std::string for overlapping copies (GCC bug 105651).
            target_compile_options(${target} PRIVATE -Wno-restrict)
        endif()
    endif()
endfunction()

# kelm_compile_in_batches(<target>): with KELM_UNITY, compiles several sources of a target as one.
function(kelm_compile_in_batches target)
    if(KELM_UNITY)
        set_target_properties(${target} PROPERTIES
            UNITY_BUILD ON
            UNITY_BUILD_BATCH_SIZE ${KELM_UNITY_BATCH})
        if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
            # GCC takes the sources of a batch for headers.
            target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
        else()
            # In a batch the private names of one source meet those of another.
            target_compile_options(${target} PRIVATE -Wno-shadow -Wno-unused-private-field)
        endif()
    endif()
endfunction()

# kelm_add_library(<name> EXPORT_PREFIX <prefix> SOURCES <pattern>...
#                  [PUBLIC <library>...] [PRIVATE <library>...])
#
# A shared library, in the tree and installed as kelm::<name>. <prefix>_BUILDING is defined while
# it is compiled, for the room's export.h.
function(kelm_add_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "EXPORT_PREFIX" "SOURCES;PUBLIC;PRIVATE")
    kelm_find_sources(sources ${arg_SOURCES})
    add_library(${name} SHARED ${sources})
    add_library(kelm::${name} ALIAS ${name})
    kelm_own_code(${name})
    kelm_compile_in_batches(${name})
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        DEFINE_SYMBOL ${arg_EXPORT_PREFIX}_BUILDING
        INSTALL_RPATH "$ORIGIN")
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kelm>)
    target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})
    set_property(GLOBAL APPEND PROPERTY KELM_LIBRARIES ${name})
endfunction()

# kelm_add_static_library(<name> SOURCES <pattern>... [ALIAS <alias>] [PUBLIC <library>...])
#
# A library inside the tree only, position independent, also known as kelm::<alias>.
function(kelm_add_static_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "ALIAS" "SOURCES;PUBLIC")
    kelm_find_sources(sources ${arg_SOURCES})
    add_library(${name} STATIC ${sources})
    if(arg_ALIAS)
        add_library(kelm::${arg_ALIAS} ALIAS ${name})
    endif()
    kelm_own_code(${name})
    kelm_compile_in_batches(${name})
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}")
    target_link_libraries(${name} PUBLIC ${arg_PUBLIC})
endfunction()

# kelm_add_program(<name> SOURCES <file>... [LINK <library>...])
#
# A program that links all our shared libraries, and what LINK adds.
function(kelm_add_program name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
    add_executable(${name} ${arg_SOURCES})
    kelm_own_code(${name})
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}")
    get_property(libraries GLOBAL PROPERTY KELM_LIBRARIES)
    target_link_libraries(${name} PRIVATE ${arg_LINK} ${libraries})
endfunction()

# kelm_add_test(<name> LABEL <label> [EMPTY_DIRECTORY] [COST <seconds>]
#               COMMAND <command> [<argument>...])
#
# Runs the command in a directory of its own, emptied before each run on demand, and with a folder for
# temporary files of its own, in which nothing may be left. What has a COST begins early, so that no
# long test runs alone at the end. The limit is far above what any test needs; it only ends a test
# that hangs.
function(kelm_add_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "EMPTY_DIRECTORY" "LABEL;COST" "COMMAND")
    set(directory "${PROJECT_BINARY_DIR}/scratch/${name}")
    file(MAKE_DIRECTORY "${directory}")
    set(options "")
    if(arg_EMPTY_DIRECTORY)
        set(options EMPTY_DIRECTORY)
    endif()
    list(POP_FRONT arg_COMMAND program)
    if(TARGET "${program}")
        set(program "$<TARGET_FILE:${program}>")
    endif()
    add_test(NAME ${name}
        COMMAND "${CMAKE_COMMAND}" -P "${PROJECT_SOURCE_DIR}/cmake/run_test.cmake" ${options} --
            "${program}" ${arg_COMMAND}
        WORKING_DIRECTORY "${directory}")
    set_tests_properties(${name} PROPERTIES LABELS "${arg_LABEL}" TIMEOUT 2700)
    if(arg_COST)
        set_tests_properties(${name} PROPERTIES COST "${arg_COST}")
    endif()
endfunction()

# kelm_add_subdirectories(<folder>): adds each <folder>/<x> that has a CMakeLists.txt.
function(kelm_add_subdirectories folder)
    kelm_find_sources(lists ${folder}/*/CMakeLists.txt)
    foreach(list IN LISTS lists)
        get_filename_component(directory "${list}" DIRECTORY)
        add_subdirectory("${directory}")
    endforeach()
endfunction()
