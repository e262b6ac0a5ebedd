// Paths for the wide functions of Windows. For windows.cpp only.
#pragma once

#include <string>

#include "RtString.h"

namespace RtOs {

/// The path for a system call, from the encoding that SetUtf8Paths selects.
class Native {
public:
    explicit Native(const CRtString& path);
    const wchar_t* c_str() const { return m_path.c_str(); }

private:
    std::wstring m_path;
};

/// A name of an entry, or a path of MAX_PATH characters at most, in that encoding. A character that the code page
/// lacks becomes '?', which no path contains: the entry is not found.
CRtString Narrow(const wchar_t* text);

} // namespace RtOs
