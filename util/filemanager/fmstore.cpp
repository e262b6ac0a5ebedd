#include "fmstore.h"

#include <utility>

namespace {

// Larger writes gain nothing from batching.
constexpr uint32_t MAX_COALESCED_STORE = 64 * 1024;
// Pending stores that are examined for adjacent ranges: other stores may lie between them in the list.
constexpr int MAX_SCANNED = 128;

} // namespace

void CFMStores::Add(CFMStore& store) {
    store.m_isPending = true;
    store.m_pPrevious = m_pLast;
    (m_pLast ? m_pLast->m_pNext : m_pFirst) = &store;
    m_pLast = &store;
}

void CFMStores::Unlink(CFMStore& store) {
    (store.m_pPrevious ? store.m_pPrevious->m_pNext : m_pFirst) = store.m_pNext;
    (store.m_pNext ? store.m_pNext->m_pPrevious : m_pLast) = store.m_pPrevious;
    store.m_isPending = false;
}

CRtMessageChain CFMStores::Withdraw(CFMStore& store) {
    if (!store.m_isPending)
        return nullptr;
    Unlink(store);
    return std::move(store.m_bytes);
}

// Returns the store behind it.
CFMStore* CFMStores::Take(CFMStore& store) {
    CFMStore* const next = store.m_pNext;
    Unlink(store);
    store.m_isTaken = true;
    return next;
}

size_t CFMStores::TakeBatch(CFMStore& first, std::span<CFMStore*> batch) {
    if (!first.m_isPending)
        return 0;
    CFMStore* next = Take(first);
    batch[0] = &first;
    size_t count = 1;
    if (first.m_length > MAX_COALESCED_STORE)
        next = nullptr;
    for (int scanned = 0; next && count < batch.size() && scanned < MAX_SCANNED; ++scanned) {
        CFMStore& store = *next;
        const bool fits =
            store.m_pos == batch[count - 1]->GetEnd() && store.m_length <= MAX_COALESCED_STORE;
        next = fits ? Take(store) : store.m_pNext;
        if (fits)
            batch[count++] = &store;
    }
    m_running += static_cast<uint32_t>(count);
    return count;
}

bool CFMStores::End(CFMStore& store, const FMBlockEntry& entry, uint32_t epoch) {
    --m_running;
    store.m_isTaken = false;
    if (m_table && entry.totalLen > 0)
        m_table->Settle(store.GetSerial(), entry, epoch);
    return std::exchange(m_epoch, epoch) != epoch;
}
