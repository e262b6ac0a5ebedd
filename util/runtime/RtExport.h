// The export macro. Declarations without it are not visible outside the shared library. Together with
// os/ the only place that distinguishes platforms. On Windows the list of exported symbols is
// util/filemanager/filemanager.def: dllexport on a class would export its private members.
#pragma once

#if defined(_WIN32)
#if defined(FM_BUILDING_LIBRARY)
#define RT_EXPORT
#else
#define RT_EXPORT __declspec(dllimport)
#endif
#else
#define RT_EXPORT __attribute__((visibility("default")))
#endif
