#include "housekeeping.h"

#include "fmrules.h"

bool CHouseKeeping::Open(const CRtString& directory) {
    m_walk = std::make_unique<RtOs::DirectoryWalk>(directory, true);
    return m_walk->IsOpen();
}

bool CHouseKeeping::Next(CRtString& stem) {
    CRtString name;
    bool isDirectory = false;
    while (m_walk->Next(name, isDirectory)) {
        if (!isDirectory && FMTakeStem(name, FM_DATA_EXTENSION, stem))
            return true;
    }
    return false;
}
