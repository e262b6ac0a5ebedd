#include "housekeeping.h"

#include "fmrules.h"

void CHouseKeeping::Open(const CRtString& directory) {
    m_walk = std::make_unique<RtOs::DirectoryWalk>(directory, true);
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
