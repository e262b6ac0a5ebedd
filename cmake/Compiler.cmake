# Flags shared by every target of the tree: language level, warnings, sanitizers.
include(CheckLinkerFlag)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(MSVC)
    add_compile_options(/W4 /utf-8 /permissive-)
    if(FILEMANAGER_WERROR)
        add_compile_options(/WX)
    endif()
else()
    add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
    if(FILEMANAGER_WERROR)
        add_compile_options(-Werror)
    endif()
endif()

if(FILEMANAGER_SANITIZE)
    if(MSVC)
        message(FATAL_ERROR "FILEMANAGER_SANITIZE is supported with GCC and Clang only")
    endif()
    add_compile_options(
        -fsanitize=${FILEMANAGER_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${FILEMANAGER_SANITIZE})
endif()

# A shared library with a missing symbol should fail here and not at its caller.
# Some sanitizer runtimes live in the executable, so those builds go without.
set(FILEMANAGER_LINKER_REFUSES_UNDEFINED OFF)
if(UNIX AND NOT APPLE AND NOT FILEMANAGER_SANITIZE)
    check_linker_flag(CXX LINKER:-z,defs FILEMANAGER_HAS_Z_DEFS)
    set(FILEMANAGER_LINKER_REFUSES_UNDEFINED ${FILEMANAGER_HAS_Z_DEFS})
endif()

set(FILEMANAGER_LINKER_KNOWS_VERSION_SCRIPTS OFF)
if(UNIX AND NOT APPLE)
    check_linker_flag(CXX LINKER:--version-script=${CMAKE_CURRENT_LIST_DIR}/visibility.map
        FILEMANAGER_HAS_VERSION_SCRIPT)
    set(FILEMANAGER_LINKER_KNOWS_VERSION_SCRIPTS ${FILEMANAGER_HAS_VERSION_SCRIPT})
endif()

# filemanager_driver(<target>)
#
# For what drives the library and is not shipped from this build. Optimizing it,
# and above all the templates of its headers under the sanitizers, takes most of
# the compile time and finds nothing.
function(filemanager_driver target)
    if(FILEMANAGER_QUICK_DRIVERS AND NOT MSVC)
        target_compile_options(${target} PRIVATE -O0)
    endif()
endfunction()

# filemanager_together(<target>)
#
# Headers that take most of the time are read once for all sources of a program, by the compiler and by
# what looks at its compile commands.
function(filemanager_together target)
    if(FILEMANAGER_QUICK_DRIVERS)
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0
            UNITY_BUILD_CODE_BEFORE_INCLUDE "// NOLINTNEXTLINE(bugprone-suspicious-include)")
    endif()
endfunction()
