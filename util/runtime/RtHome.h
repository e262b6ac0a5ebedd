// The installation's home directory, which only the host application knows.
#pragma once

#include "RtExport.h"

/// The directory that the host application has set, or null. Valid until the next set.
RT_EXPORT const char* get_quillmer_home_dir();
/// To be called before the file manager is initialised. Null takes the directory back.
RT_EXPORT void set_quillmer_home_dir(const char* directory);
