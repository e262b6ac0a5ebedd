#include "housekeeping.h"

void CHouseKeeping::Open(const CRtString& directory) {
    m_walk = std::make_unique<RtOs::DirectoryWalk>(directory, true);
}

bool CHouseKeeping::Next(CRtString& stem) {
    const CRtString extension = ".sdd";
    CRtString name;
    bool isDirectory = false;
    while (m_walk->Next(name, isDirectory)) {
        if (isDirectory || name.size() <= extension.size() || !RtOs::HasExtension(name, extension))
            continue;
        if (RtOs::FindLastSeparator(name) != std::string_view::npos)
            continue; // POSIX allows a backslash in a name
        stem = name.Left(name.size() - extension.size());
        return true;
    }
    return false;
}
