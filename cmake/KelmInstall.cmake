# Install rules: libraries, headers, the CMake package, kelm.pc and the documentation. Every rule names
# its component, of which debian/rules makes a package.
#
# Headers go to include/kelm/<room>, so that "kelm/kelm.h" and "yx/yx.h" are found under
# include/kelm just as they are under the root of the tree.

include_guard(GLOBAL)
include(CMakePackageConfigHelpers)

get_property(libraries GLOBAL PROPERTY KELM_LIBRARIES)
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/kelm")

install(TARGETS ${libraries} EXPORT kelm
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT libraries
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT libraries
        NAMELINK_COMPONENT development
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)
install(EXPORT kelm NAMESPACE kelm:: FILE kelmTargets.cmake
    DESTINATION "${package_dir}" COMPONENT development)

# Headers in folders named "internal" are not installed, since no public header includes them. A
# test builds a consumer from an installed copy, which fails if one of them is needed after all.
install(DIRECTORY yx krym compressors kelm
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/kelm" COMPONENT development
    FILES_MATCHING PATTERN "*.h" PATTERN "internal" EXCLUDE)

configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/cmake/kelmConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/kelmConfig.cmake"
    INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/kelmConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/kelmConfig.cmake"
    "${PROJECT_BINARY_DIR}/kelmConfigVersion.cmake"
    "${PROJECT_SOURCE_DIR}/cmake/FindwxBase.cmake"
    DESTINATION "${package_dir}" COMPONENT development)

# wxWidgets has no pkg-config file, so kelm.pc states its flags itself.
get_target_property(wx_include_dirs wxBase::wxBase INTERFACE_INCLUDE_DIRECTORIES)
get_target_property(wx_definitions wxBase::wxBase INTERFACE_COMPILE_DEFINITIONS)
get_target_property(wx_options wxBase::wxBase INTERFACE_COMPILE_OPTIONS)
get_target_property(wx_libraries wxBase::wxBase INTERFACE_LINK_LIBRARIES)
list(TRANSFORM wx_include_dirs PREPEND "-I")
list(TRANSFORM wx_definitions PREPEND "-D")
list(JOIN wx_include_dirs " " wx_include_dirs)
list(JOIN wx_definitions " " wx_definitions)
list(JOIN wx_options " " wx_options)
list(JOIN wx_libraries " " KELM_PC_WX_LIBS)
set(KELM_PC_WX_CFLAGS "${wx_include_dirs} ${wx_definitions} ${wx_options}")
file(RELATIVE_PATH KELM_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KELM_PC_PREFIX "${KELM_PC_PREFIX}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/kelm.pc.in" "${PROJECT_BINARY_DIR}/kelm.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/kelm.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

# An application that kelm is built in has pages of its own.
if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

# Pages under the root are about building.
set(KELM_PAGES_DIR "${CMAKE_INSTALL_DOCDIR}" CACHE STRING
    "Where the pages and the reference are installed, absolute or under the prefix")
install(DIRECTORY docs/ DESTINATION "${KELM_PAGES_DIR}" COMPONENT documentation
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")

if(KELM_BUILD_REFERENCE)
    find_program(KELM_DOXYGEN doxygen REQUIRED)
    set(reference "${PROJECT_BINARY_DIR}/reference")
    file(MAKE_DIRECTORY "${reference}")
    file(READ Doxyfile settings)
    file(GENERATE OUTPUT "${reference}/Doxyfile"
        CONTENT "${settings}\nOUTPUT_DIRECTORY = \"${reference}\"\n")
    kelm_find_sources(headers yx/*.h krym/*.h compressors/*.h kelm/*.h kelm/*/*.h host/*/*.h)
    add_custom_command(OUTPUT "${reference}/html/index.html"
        COMMAND "${CMAKE_COMMAND}" -E rm -rf "${reference}/html"
        COMMAND "${KELM_DOXYGEN}" "${reference}/Doxyfile"
        WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
        DEPENDS "${reference}/Doxyfile" docs/doxygen_filter.py ${headers}
        COMMENT "Making the reference of the headers"
        VERBATIM)
    add_custom_target(kelm_reference ALL DEPENDS "${reference}/html/index.html")
    install(DIRECTORY "${reference}/html" DESTINATION "${KELM_PAGES_DIR}"
        COMPONENT documentation)
endif()
