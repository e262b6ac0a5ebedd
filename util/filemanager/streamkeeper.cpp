#include "streamkeeper.h"

#include <algorithm>
#include <cstdio>

#include "diskfile.h"
#include "os/RtOs.h"

namespace {

// The rest of the process has streams and sockets of its own: it keeps the larger half.
uint32_t Limit() {
    constexpr uint32_t most = 4096;
    return std::clamp(RtOs::GetStreamLimit() / 2, 4U, most);
}

} // namespace

CStreamKeeper& CStreamKeeper::Instance() {
    static CStreamKeeper* keeper = new CStreamKeeper; // disk files may outlive static objects
    return *keeper;
}

// One thread at a time uses a file: it alone counts the uses inside another.
CStreamKeeper::CUse::CUse(CDiskFile& file) : m_file(file) {
    if (m_file.m_uses++ == 0)
        Instance().BeginUse(m_file);
}

CStreamKeeper::CUse::~CUse() {
    if (--m_file.m_uses == 0)
        Instance().EndUse(m_file);
}

void CStreamKeeper::BeginUse(CDiskFile& file) {
    const std::lock_guard lock(m_mutex);
    m_inUse.push_back(&file);
    if (file.m_kept)
        Unlink(file);
}

void CStreamKeeper::EndUse(CDiskFile& file) {
    const std::lock_guard lock(m_mutex);
    std::erase(m_inUse, &file);
    if (file.m_pFile)
        Link(file);
}

CRtString CStreamKeeper::GetNamesInUse() {
    const std::lock_guard lock(m_mutex);
    CRtString names;
    for (const CDiskFile* file : m_inUse)
        names += " " + file->GetFileName();
    return names;
}

void CStreamKeeper::MakeRoom() {
    const std::lock_guard lock(m_mutex);
    if (m_open >= m_limit) // it may have been raised; where it was lowered, the system refuses one
        m_limit = Limit();
    while (m_open >= m_limit && CloseOldest()) {
    }
}

bool CStreamKeeper::GiveBack() {
    const std::lock_guard lock(m_mutex);
    m_limit = Limit();
    const uint32_t target = m_open / 2;
    const bool any = m_open > 0;
    while (m_open > target && CloseOldest()) {
    }
    return any;
}

bool CStreamKeeper::CloseOldest() {
    CDiskFile* file = m_pOldest;
    if (!file)
        return false;
    Unlink(*file);
    file->CloseStream();
    return true;
}

void CStreamKeeper::Link(CDiskFile& file) {
    file.m_kept = true;
    file.m_pOlder = m_pNewest;
    file.m_pNewer = nullptr;
    (m_pNewest ? m_pNewest->m_pNewer : m_pOldest) = &file;
    m_pNewest = &file;
    ++m_open;
}

void CStreamKeeper::Unlink(CDiskFile& file) {
    file.m_kept = false;
    (file.m_pOlder ? file.m_pOlder->m_pNewer : m_pOldest) = file.m_pNewer;
    (file.m_pNewer ? file.m_pNewer->m_pOlder : m_pNewest) = file.m_pOlder;
    --m_open;
}
