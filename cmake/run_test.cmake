# cmake -P run_test.cmake [EMPTY_DIRECTORY] -- <program> [<argument>...]
#
# Runs a program as a test. It fails if the program does, or if the program leaves something in the
# folder for temporary files, which is one of its own. What a run that was killed has left there goes
# when the test runs again.
#
# With EMPTY_DIRECTORY, the working directory is emptied first. The program is named by its absolute
# path.

cmake_minimum_required(VERSION 3.25)

set(command "")
set(options "")
set(is_command FALSE)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(index RANGE ${last})
    if(is_command)
        string(REPLACE ";" "\\;" argument "${CMAKE_ARGV${index}}")
        list(APPEND command "${argument}")
    elseif(CMAKE_ARGV${index} STREQUAL "--")
        set(is_command TRUE)
    else()
        list(APPEND options "${CMAKE_ARGV${index}}")
    endif()
endforeach()

# Sets <result> to all that is in a folder.
function(list_folder folder result)
    file(GLOB entries LIST_DIRECTORIES TRUE "${folder}/*" "${folder}/.*")
    list(FILTER entries EXCLUDE REGEX "/\\.\\.?$")
    set(${result} "${entries}" PARENT_SCOPE)
endfunction()

file(REAL_PATH . directory)
if("EMPTY_DIRECTORY" IN_LIST options)
    if(NOT directory MATCHES "/scratch/[^/]+$")
        message(FATAL_ERROR "refuses to empty ${directory}, which is no scratch directory")
    endif()
    list_folder("${directory}" leftovers)
    if(leftovers)
        file(REMOVE_RECURSE ${leftovers})
    endif()
endif()

# Not below the working directory: the path of a socket must be short.
set(base "/tmp")
if(NOT "$ENV{TMPDIR}" STREQUAL "")
    set(base "$ENV{TMPDIR}")
endif()
string(SHA256 place "${directory}")
string(SUBSTRING "${place}" 0 12 place)
set(temporary "${base}/kelm-ctest-${place}")
file(REMOVE_RECURSE "${temporary}")
file(MAKE_DIRECTORY "${temporary}")
# Tests may become other users, whatever the mask is.
file(CHMOD "${temporary}" PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
set(ENV{TMPDIR} "${temporary}")

execute_process(COMMAND ${command} RESULT_VARIABLE result)

list_folder("${temporary}" leftovers)
file(REMOVE_RECURSE "${temporary}")
if(NOT result EQUAL 0)
    message(FATAL_ERROR "ended with ${result}")
endif()
if(leftovers)
    list(JOIN leftovers "\n  " leftovers)
    message(FATAL_ERROR "left in the folder for temporary files:\n  ${leftovers}")
endif()
