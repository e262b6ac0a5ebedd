/// @addtogroup manager
/// @{
// The build reads the version from here, so that the library's file name, the CMake package, pkg-config, the
// Debian packages and `fmcache --version` always agree with this header.
#pragma once

/// The parts of the version number, for comparisons in `#if`.
///@{
#define FILEMANAGER_VERSION_MAJOR 1
#define FILEMANAGER_VERSION_MINOR 0
#define FILEMANAGER_VERSION_PATCH 0
///@}

/// @cond
#define FILEMANAGER_VERSION_TEXT_(number) #number
#define FILEMANAGER_VERSION_JOIN_(major, minor, patch)                                             \
    FILEMANAGER_VERSION_TEXT_(major)                                                               \
    "." FILEMANAGER_VERSION_TEXT_(minor) "." FILEMANAGER_VERSION_TEXT_(patch)
/// @endcond

/// The version as text: "MAJOR.MINOR.PATCH".
#define FILEMANAGER_VERSION                                                                        \
    FILEMANAGER_VERSION_JOIN_(FILEMANAGER_VERSION_MAJOR, FILEMANAGER_VERSION_MINOR,                \
                              FILEMANAGER_VERSION_PATCH)
/// @}
