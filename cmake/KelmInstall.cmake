# Install rules: libraries, headers, the CMake package and kelm.pc. Every rule names its component,
# from which KelmPackage makes packages.
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
