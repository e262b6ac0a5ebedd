#include "fmstore.h"

#include <utility>

namespace {

// Larger writes gain nothing from batching.
constexpr uint32_t MAX_COALESCED_STORE = 64 * 1024;

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

size_t CFMStores::TakeBatch(CFMStore& first, std::span<CFMStore*> batch) {
    size_t count = 0;
    CFMStore* store = first.m_isPending ? &first : nullptr;
    while (store) {
        CFMStore* const next = store->m_pNext;
        Unlink(*store);
        store->m_isTaken = true;
        batch[count++] = store;
        const bool fits = next && count < batch.size() && next->m_pos == store->GetEnd() &&
                          store->m_length <= MAX_COALESCED_STORE &&
                          next->m_length <= MAX_COALESCED_STORE;
        store = fits ? next : nullptr;
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
