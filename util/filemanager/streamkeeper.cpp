#include "streamkeeper.h"

#include <algorithm>

#include "os/RtOs.h"

namespace {

// Leave half of the limit to the application's own files and sockets.
uint32_t Limit() {
    constexpr uint32_t most = 4096;
    return std::clamp(RtOs::GetStreamLimit() / 2, 4U, most);
}

} // namespace

CStreamKeeper& CStreamKeeper::Instance() {
    static CStreamKeeper* keeper = new CStreamKeeper; // disk files may outlive static objects
    return *keeper;
}

// One thread at a time uses a stream, so the count needs no lock.
CStreamKeeper::CUse::CUse(CKeptStream& stream) : m_stream(stream) {
    if (m_stream.m_uses++ == 0)
        Instance().BeginUse(m_stream);
}

CStreamKeeper::CUse::~CUse() {
    if (--m_stream.m_uses == 0)
        Instance().EndUse(m_stream);
}

void CStreamKeeper::BeginUse(CKeptStream& stream) {
    const std::lock_guard lock(m_mutex);
    m_inUse.push_back(&stream);
    if (stream.m_kept)
        Unlink(stream);
}

void CStreamKeeper::EndUse(CKeptStream& stream) {
    const std::lock_guard lock(m_mutex);
    std::erase(m_inUse, &stream);
    if (stream.HasStream())
        Link(stream);
}

CRtString CStreamKeeper::GetNamesInUse() {
    const std::lock_guard lock(m_mutex);
    CRtString names;
    for (const CKeptStream* file : m_inUse)
        names += " " + file->GetFileName();
    return names;
}

void CStreamKeeper::MakeRoom() {
    const std::lock_guard lock(m_mutex);
    if (m_open >= m_limit) // it may have been raised; if it was lowered, the next open fails
        m_limit = Limit();
    while (m_open >= m_limit)
        CloseOldest();
}

bool CStreamKeeper::GiveBack() {
    const std::lock_guard lock(m_mutex);
    m_limit = Limit();
    const uint32_t target = m_open / 2;
    const bool any = m_open > 0;
    while (m_open > target)
        CloseOldest();
    return any;
}

// Precondition: a stream is in the list.
void CStreamKeeper::CloseOldest() {
    CKeptStream& file = *m_pOldest;
    Unlink(file);
    file.CloseStream();
}

void CStreamKeeper::Link(CKeptStream& stream) {
    stream.m_kept = true;
    stream.m_pOlder = m_pNewest;
    stream.m_pNewer = nullptr;
    (m_pNewest ? m_pNewest->m_pNewer : m_pOldest) = &stream;
    m_pNewest = &stream;
    ++m_open;
}

void CStreamKeeper::Unlink(CKeptStream& stream) {
    stream.m_kept = false;
    (stream.m_pOlder ? stream.m_pOlder->m_pNewer : m_pOldest) = stream.m_pNewer;
    (stream.m_pNewer ? stream.m_pNewer->m_pOlder : m_pNewest) = stream.m_pOlder;
    --m_open;
}
