// The export macro. Declarations without it are not visible outside the shared library. Together with
// os/ the only place that distinguishes platforms.
//
// A class that callers derive from is marked as a whole: its table of virtual functions and its type
// information are part of the interface. Of every other class, each public member that the library
// implements is marked, so that private members stay hidden.
//
// The build defines FILEMANAGER_BUILDING while it compiles the shared library. A static library and its
// callers define FILEMANAGER_STATIC; the CMake package and pkg-config define it for the callers.
#pragma once

#if defined(FILEMANAGER_STATIC)
#define RT_EXPORT
#elif defined(_WIN32)
#if defined(FILEMANAGER_BUILDING)
#define RT_EXPORT __declspec(dllexport)
#else
#define RT_EXPORT __declspec(dllimport)
#endif
#else
#define RT_EXPORT __attribute__((visibility("default")))
#endif
