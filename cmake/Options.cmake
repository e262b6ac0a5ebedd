# What is built. ON: a missing library is an error. AUTO: what needs it is left out, and a line says so.
# Embedded in another project, only the library is built.
# PROJECT_IS_TOP_LEVEL would require CMake 3.21.
set(top_level OFF)
set(parts OFF)
if(CMAKE_SOURCE_DIR STREQUAL PROJECT_SOURCE_DIR)
    set(top_level ON)
    set(parts AUTO)
endif()
function(filemanager_part name default what)
    set(FILEMANAGER_BUILD_${name} ${default} CACHE STRING "${what}: ON, OFF or AUTO")
    set_property(CACHE FILEMANAGER_BUILD_${name} PROPERTY STRINGS ON OFF AUTO)
endfunction()
filemanager_part(TOOLS ${parts} "Build the fmcache command line tool")
filemanager_part(EXAMPLES ${parts} "Build the examples")
filemanager_part(TESTS ${parts} "Build the tests")
filemanager_part(BENCH OFF "Build the benchmarks")
option(FILEMANAGER_BUILD_FUZZ "Build the fuzz targets" OFF)
option(FILEMANAGER_INSTALL "Install the library with its headers, documents and packages" ${top_level})
option(FILEMANAGER_DEBIAN "Make Debian packages with cpack" OFF)
option(FILEMANAGER_CHECK_THREADS "Report calls on other threads than the caller thread" ON)
option(FILEMANAGER_WERROR "Treat warnings as errors" ${top_level})

option(FILEMANAGER_QUICK_DRIVERS
    "Compile the tests and the tool without optimization, independently of the library" OFF)

option(FILEMANAGER_PRECOMPILE "Precompile the headers of the standard library" OFF)

set(FILEMANAGER_SANITIZE "" CACHE STRING
    "Comma-separated sanitizers for all targets, for example address,undefined or thread")

if(top_level AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

if(top_level)
    option(BUILD_SHARED_LIBS "Build a shared library; OFF builds a static one" ON)
endif()

# filemanager_leave_out(<PART> <what> <missing>)
#
# Reports that <what> cannot be built because <missing> is not installed. The caller returns afterwards.
function(filemanager_leave_out part what missing)
    if(NOT FILEMANAGER_BUILD_${part} STREQUAL "AUTO")
        message(FATAL_ERROR "FILEMANAGER_BUILD_${part} is ${FILEMANAGER_BUILD_${part}}, but ${missing} was not found")
    endif()
    message(STATUS "Left out: ${what} (${missing} was not found)")
endfunction()
