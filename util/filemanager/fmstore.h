// CFMStore: one store that was posted to the read/write thread. CFMStores: the stores of one file that have not
// ended, and the table that waits for them.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

#include "FMInfoCodec.h"
#include "RtMessageBlock.h"
#include "fmtable.h"
#include "os/RtSpin.h"

/// A store is identified by its serial. It is pending from its posting until the read/write thread takes
/// it, a rewrite withdraws it, or its event is disposed of without having fired.
class CFMStore {
public:
    CFMStore(uint32_t serial, int64_t pos, CRtMessageChain bytes)
        : m_serial(serial), m_pos(pos), m_length(bytes->GetTopLevelLength()),
          m_bytes(std::move(bytes)) {}
    CFMStore(const CFMStore&) = delete;
    CFMStore& operator=(const CFMStore&) = delete;

    uint32_t GetSerial() const { return m_serial; }
    int64_t GetPos() const { return m_pos; }
    uint32_t GetLength() const { return m_length; }
    int64_t GetEnd() const { return m_pos + m_length; }
    /// Null after the store was withdrawn.
    CRtMessageBlock* GetBytes() const { return m_bytes.get(); }

protected:
    ~CFMStore() = default;
    /// The store is being written. Precondition: the lock of the stores is held.
    bool IsTaken() const { return m_isTaken; }

private:
    friend class CFMStores;
    const uint32_t m_serial;
    const int64_t m_pos;
    const uint32_t m_length;
    CRtMessageChain m_bytes;
    // Links of the pending list, in the order of posting.
    bool m_isPending = false;
    bool m_isTaken = false;
    CFMStore* m_pPrevious = nullptr;
    CFMStore* m_pNext = nullptr;
};

/// Shared by both threads. Its lock guards all members, and the fields of a block that both threads use. The
/// lock is never held during a disk operation.
class CFMStores {
public:
    using Lock = std::unique_lock<std::mutex>;
    [[nodiscard]] Lock LockShared() { return SpinThenLock(m_mutex); }

    // --- With the lock held -----------------------------------------------------------------------
    uint32_t NextSerial() { return m_serial += 2; }
    void Add(CFMStore& store);
    /// Withdraws a pending store: its event becomes a no-op. Returns its bytes, which the caller releases
    /// after the lock; null if the store is not pending.
    CRtMessageChain Withdraw(CFMStore& store);
    /// Takes `first`, and pending stores whose ranges continue its range, for one write. Returns their number:
    /// 0 if `first` is no longer pending, because it was withdrawn or written by an earlier event.
    size_t TakeBatch(CFMStore& first, std::span<CFMStore*> batch);
    /// Ends a store that was taken. `entry`: the stored range, empty if the store failed. Returns whether the
    /// disk entry has begun a new epoch since the previous store ended.
    [[nodiscard]] bool End(CFMStore& store, const FMBlockEntry& entry, uint32_t epoch);
    /// The time that the stores have waited for other processes since the file was closed. Read/write thread, without
    /// the lock.
    std::chrono::nanoseconds& DelaysOfLast() { return m_delaysOfLast; }
    /// No store is pending or running.
    bool IsIdle() const { return !m_pFirst && m_running == 0; }
    FMTable* GetTable() { return m_table.get(); }
    void SetTable(std::unique_ptr<FMTable> table) { m_table = std::move(table); }
    std::unique_ptr<FMTable> TakeTable() { return std::move(m_table); }

private:
    void Unlink(CFMStore& store);
    CFMStore* Take(CFMStore& store);

    std::mutex m_mutex;
    CFMStore* m_pFirst = nullptr;
    CFMStore* m_pLast = nullptr;
    uint32_t m_running = 0;
    uint32_t m_epoch = FM_FIRST_EPOCH; // of the last store that ended
    uint32_t m_serial = 1;             // the last one used; odd, because 0 is none
    std::unique_ptr<FMTable> m_table;  // pending
    std::chrono::nanoseconds m_delaysOfLast{};
};
