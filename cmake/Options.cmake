# What is built. A project that embeds this one gets the library alone.
option(FILEMANAGER_BUILD_TOOLS "Build the fmcache command line tool" ${PROJECT_IS_TOP_LEVEL})
option(FILEMANAGER_BUILD_EXAMPLES "Build the examples" ${PROJECT_IS_TOP_LEVEL})
option(FILEMANAGER_BUILD_TESTS "Build the tests" ${PROJECT_IS_TOP_LEVEL})
option(FILEMANAGER_BUILD_BENCH "Build the benchmarks" OFF)
option(FILEMANAGER_BUILD_FUZZ "Build the fuzz targets" OFF)
option(FILEMANAGER_INSTALL "Install the library with its headers, documents and packages" ${PROJECT_IS_TOP_LEVEL})
option(FILEMANAGER_WERROR "Treat warnings as errors" ${PROJECT_IS_TOP_LEVEL})

option(FILEMANAGER_QUICK_DRIVERS
    "Compile the tests and the tool without optimization, however the library is compiled" OFF)

set(FILEMANAGER_SANITIZE "" CACHE STRING
    "Comma separated sanitizers for everything that is built, e.g. address,undefined or thread")

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

if(PROJECT_IS_TOP_LEVEL)
    option(BUILD_SHARED_LIBS "Build a shared library; OFF builds a static one" ON)
endif()
