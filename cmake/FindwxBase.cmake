# Finds the base library of wxWidgets, which needs no GUI, and defines the target wxBase::wxBase.
# It is also installed beside kelm's package config, for programs that use the installed headers.

find_package(wxWidgets QUIET COMPONENTS base)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(wxBase
    REQUIRED_VARS wxWidgets_LIBRARIES wxWidgets_INCLUDE_DIRS
    VERSION_VAR wxWidgets_VERSION_STRING)

if(wxBase_FOUND AND NOT TARGET wxBase::wxBase)
    list(REMOVE_ITEM wxWidgets_LIBRARIES "")
    add_library(wxBase::wxBase INTERFACE IMPORTED)
    set_target_properties(wxBase::wxBase PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${wxWidgets_INCLUDE_DIRS}"
        INTERFACE_COMPILE_DEFINITIONS "${wxWidgets_DEFINITIONS};wxUSE_GUI=0"
        INTERFACE_COMPILE_OPTIONS "${wxWidgets_CXX_FLAGS}"
        INTERFACE_LINK_LIBRARIES "${wxWidgets_LIBRARIES}")
endif()
