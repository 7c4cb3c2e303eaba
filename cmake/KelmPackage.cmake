# Debian packages, made by CPack (`make package`). One component of the install rules is one package:
#
#   libraries    libkelm1             what programs load
#   development  libkelm-dev          what they are built with
#   tools        kelm-tools           the program kelm
#   nbdkit       nbdkit-plugin-kelm   the plugin, if nbdkit was found
#   python       python3-kelm         the package for Python, if pybind11 was found

include_guard(GLOBAL)

set(CPACK_COMPONENTS_ALL libraries development)
if(TARGET kelm_tool)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(TARGET nbdkit_kelm_plugin)
    list(APPEND CPACK_COMPONENTS_ALL nbdkit)
endif()
if(TARGET kelm_python)
    list(APPEND CPACK_COMPONENTS_ALL python)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelm)
set(CPACK_PACKAGE_CONTACT "the kelm authors <kelm@localhost>")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# Packages that our binaries need are found in their lists of libraries, but for our own.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/lib")
set(own_libraries "libkelm${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME "libkelm${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_COMPONENT_LIBRARIES_DESCRIPTION
    "Sparse virtual disks for backup applications\n\
 Opens, reads, writes and creates virtual disks in one file or in many,\n\
 compressed or encrypted, and chains of child disks.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelm-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
# The headers hand strings of wxWidgets to their users.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${own_libraries}, libwxgtk3.2-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Sparse virtual disks for backup applications: development files\n\
 Headers, the CMake package kelm and kelm.pc.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kelm-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${own_libraries}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "Sparse virtual disks for backup applications: the program kelm\n\
 Creates, imports, exports, converts, compares and checks virtual disks.")

set(CPACK_DEBIAN_NBDKIT_PACKAGE_NAME nbdkit-plugin-kelm)
set(CPACK_DEBIAN_NBDKIT_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_NBDKIT_PACKAGE_DEPENDS "${own_libraries}, nbdkit")
set(CPACK_COMPONENT_NBDKIT_DESCRIPTION
    "Sparse virtual disks as network block devices\n\
 A plugin of nbdkit that serves kelm's disks, encrypted ones and children too.")

# The extension module is that of one version of Python.
if(TARGET kelm_python)
    string(REGEX MATCH "^3\\.([0-9]+)" matched "${KELM_PYTHON_VERSION}")
    math(EXPR next_python_minor "${CMAKE_MATCH_1} + 1")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kelm)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${own_libraries}, \
python3 (>= ${KELM_PYTHON_VERSION}~), python3 (<< 3.${next_python_minor})")
    set(CPACK_COMPONENT_PYTHON_DESCRIPTION
        "Sparse virtual disks for backup applications: Python package\n\
 Disks as raw files of Python, and the commands of kelm as functions.")
endif()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER "${component}" name)
    install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" RENAME copyright
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME}"
        COMPONENT ${component})
endforeach()

include(CPack)
