// The export macro: the one place outside os/ that knows how a platform marks what a shared library
// shows. Everything that is not marked stays hidden. On Windows util/filemanager/filemanager.def names
// what is shown: a mark on a class would show its private members, too.
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
