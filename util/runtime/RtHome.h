/// @addtogroup runtime
/// @{
#pragma once

#include "RtExport.h"

/// Returns the home directory of the installation that the application has set, or null if it has set none.
/// IFileManager::Initialize uses it if `dataDir` is empty and the system names no directory. The pointer is
/// valid until the next call of set_quillmer_home_dir. Not thread-safe.
RT_EXPORT const char* get_quillmer_home_dir();
/// Sets the home directory. Call it before IFileManager::Initialize; not thread-safe.
/// @param directory the directory; the text is copied. Null: no home directory.
RT_EXPORT void set_quillmer_home_dir(const char* directory);
/// @}
