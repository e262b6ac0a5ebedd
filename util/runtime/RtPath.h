/// @addtogroup runtime
/// @{
#pragma once

#include "RtExport.h"

/// Selects the encoding of the paths that the application passes to the library and reads in the log. Call it before
/// the first other call of the library; not thread-safe. On POSIX it is a no-op, because paths are bytes there.
/// @param isUtf8 true: UTF-8, on every system. False, the default: on Windows the code page of the process, which
///     cannot express all names.
RT_EXPORT void RtSetUtf8Paths(bool isUtf8);
/// @}
