# cmake -P run_in_empty_directory.cmake -- <program> [<argument>...]
#
# Empties the working directory, runs the program in it and fails if the program does. The program
# is named by its absolute path.

set(command "")
set(is_command FALSE)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(index RANGE ${last})
    if(is_command)
        list(APPEND command "${CMAKE_ARGV${index}}")
    elseif(CMAKE_ARGV${index} STREQUAL "--")
        set(is_command TRUE)
    endif()
endforeach()

file(REAL_PATH . directory)
if(NOT directory MATCHES "/scratch/[^/]+$")
    message(FATAL_ERROR "refuses to empty ${directory}, which is no scratch directory")
endif()
file(GLOB leftovers "${directory}/*" "${directory}/.*")
list(FILTER leftovers EXCLUDE REGEX "/\\.\\.?$")
if(leftovers)
    file(REMOVE_RECURSE ${leftovers})
endif()

execute_process(COMMAND ${command} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "ended with ${result}")
endif()
