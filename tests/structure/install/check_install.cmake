# Installs into a fresh prefix below the working directory, builds the consumer against it twice
# (by find_package and by pkg-config), and runs both.
#
# Given by -D: BUILD_DIR, CONSUMER_DIR, GENERATOR, CXX_COMPILER, LIBDIR.

set(expected_output "files: 0, limit: 2147483648\n")
file(REAL_PATH prefix prefix)

function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(expect_consumer_output program)
    execute_process(COMMAND ${ARGN} "${program}"
        OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
    if(NOT output STREQUAL expected_output)
        message(FATAL_ERROR "${program} printed \"${output}\", expected \"${expected_output}\"")
    endif()
endfunction()

run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")

foreach(header kelm/kelm.h kelm/export.h yx/yx.h krym/krym.h compressors/compressors.h)
    if(NOT EXISTS "${prefix}/include/kelm/${header}")
        message(FATAL_ERROR "include/kelm/${header} is not installed")
    endif()
endforeach()

# The libraries serve programs without a screen.
file(GLOB libraries "${prefix}/${LIBDIR}/lib*.so")
list(LENGTH libraries library_count)
if(NOT library_count EQUAL 5)
    message(FATAL_ERROR "installed are not five libraries but: ${libraries}")
endif()
file(GET_RUNTIME_DEPENDENCIES LIBRARIES ${libraries} RESOLVED_DEPENDENCIES_VAR dependencies)
if(NOT dependencies MATCHES "libwx_baseu-")
    message(FATAL_ERROR "libwx_baseu is not among the dependencies: ${dependencies}")
endif()
foreach(dependency IN LISTS dependencies)
    if(dependency MATCHES "/libwx_" AND NOT dependency MATCHES "/libwx_baseu-")
        message(FATAL_ERROR "the libraries depend on ${dependency}")
    elseif(dependency MATCHES "/lib(gtk|gdk|X11)")
        message(FATAL_ERROR "the libraries depend on a GUI library: ${dependency}")
    endif()
endforeach()

run("${CMAKE_COMMAND}" -S "${CONSUMER_DIR}" -B by_cmake -G "${GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}")
run("${CMAKE_COMMAND}" --build by_cmake)
expect_consumer_output(by_cmake/consumer)

execute_process(
    COMMAND "${CMAKE_COMMAND}" -E env "PKG_CONFIG_PATH=${prefix}/${LIBDIR}/pkgconfig"
        pkg-config --cflags --libs kelm
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")
run("${CXX_COMPILER}" -std=c++20 "${CONSUMER_DIR}/main.cpp" -o by_pkg_config ${flags})
expect_consumer_output(./by_pkg_config
    "${CMAKE_COMMAND}" -E env "LD_LIBRARY_PATH=${prefix}/${LIBDIR}")
