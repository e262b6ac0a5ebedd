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
    add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wno-sign-conversion -Wshadow)
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

# A missing symbol fails the link of the library, not the link of its callers. Sanitizer builds are excepted,
# because some sanitizer runtimes are part of the executable.
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
# Compiles a program that uses the library, such as a test, without optimization. Under the sanitizers most
# of the compile time goes into optimizing the templates that such programs instantiate.
function(filemanager_driver target)
    if(FILEMANAGER_QUICK_DRIVERS AND NOT MSVC)
        target_compile_options(${target} PRIVATE -O0)
    endif()
endfunction()

# filemanager_together(<target>)
#
# Compiles the sources of a program as one unit. Most of the compile time, and of clang-tidy's time, goes into
# headers that these sources share.
function(filemanager_together target)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
endfunction()
