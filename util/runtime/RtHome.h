/// @addtogroup runtime
/// @{
#pragma once

#include "RtExport.h"

/// The installation's home directory as the application has set it, or null. The fallback for an empty
/// `dataDir` of IFileManager::Initialize. The pointer is valid until the next set.
RT_EXPORT const char* get_quillmer_home_dir();
/// Sets the home directory. Call it before IFileManager::Initialize; not thread-safe.
/// @param directory the directory, which is copied; null unsets it.
RT_EXPORT void set_quillmer_home_dir(const char* directory);
/// @}
