// CFMBlock: one block of a cached file, implements IFMBlock; CFMClientBlock and CFMServerBlock derive from it.
//
// The state of a block, m_state. The number below each state is its FMBlockState.
//
//              piece            last piece          taken            written
//    Empty ──────────► Filling ──────────► Queued ──────────► Writing ──────────► Stored
//      0                  1                   2                   2                  3
//                                             ▲         failed    │
//                                             └──────── Failed ◄──┘       Restored: complete in a table
//                                               tick      2                   2     that was loaded
//
//  - A rewrite leads from any state to Filling: new buffer, new serial, the pending store withdrawn.
//  - Stored and Restored: the bytes are on disk as long as m_onDisk.epoch is the disk entry's epoch; otherwise
//    they are lost there. If they are resident, the next tick queues them again.
//  - Stored: the buffer is released when the block has been idle (FreeMemory). A read loads it again.
//
// At most one asynchronous load is in flight (m_load). It is posted, then it begins on the read/write thread,
// and its completion ends it on the caller thread. Until it has begun it can be withdrawn, and a new request
// revokes the withdrawal. A withdrawn load reads nothing, and nor does one that finds a rewritten block, which
// is resident. If the serial of the bytes that a load has read is no longer the block's, it is stale: its
// result is dropped, and if sinks wait, the next load starts.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <span>
#include <vector>

#include "FMDurability.h"
#include "FMInfoCodec.h"
#include "IFMBlock.h"
#include "RtReferenceControl.h"
#include "fmblockowner.h"
#include "fmfunctor.h"
#include "statistics.h"

class CFMStoreEvent;

constexpr uint32_t cmax_check_owners = 8192;
constexpr uint32_t cmax_block_data_len = FM_BLOCK_BYTES_MAX;
constexpr int64_t cmax_filea_data_len = FM_FILE_BYTES_MAX;

enum FMBlockState : uint32_t {
    BLOCK_STATE_EMPTY = 0,
    BLOCK_STATE_FILLING = 1,
    BLOCK_STATE_COMPLETE = 2, ///< all bytes were written, or a table was loaded
    BLOCK_STATE_STORED = 3,   ///< the bytes in memory, if any, are the bytes on disk
};

/// Threads: the caller thread, except WriteToFile and ReadFromFile. Members that the read/write thread uses are
/// marked "shared": the caller thread changes them under the lock of the file's CFMStores, unless the state is
/// Empty or Filling, in which the read/write thread does not read them. The last reference may be
/// released on either thread.
class CFMBlock : public CRtCounted<IFMBlock> {
public:
    CFMBlock(CFMBlockOwner* file, uint32_t blockID, uint64_t now);

    int WriteData(uint32_t blockLen, uint32_t dataPos, CRtMessageBlock* data) noexcept override;
    int ReadData(IFMBlockSink* sink) noexcept override;
    int ReadData(uint32_t readPos, uint32_t readLen, CRtMessageBlock*& pData) noexcept override;
    int CancelReadData(IFMBlockSink* sink) noexcept override;
    IFMFile* GetFile() override { return m_file.Get(); }
    const FMFileID& GetFileID() override { return m_file->GetFileInfo().fileID; }
    uint32_t GetBlockID() override { return m_blockID; }
    uint32_t GetTotalLen() override;
    uint32_t GetPosition() override;
    CRtMessageBlock* GetData() override;
    bool IsComplete() override;
    bool IsInMemory() override;
    bool IsAlive() override;
    int GetOwners(const FMRetrieveItem& retrieve, uint16_t* count,
                  SDDataAddressItem* items) noexcept override;
    void AddRetrieve(ISDUser* node, uint32_t pri) noexcept override;
    int CancelRetrieve(ISDUser* node) noexcept override;
    const std::list<FMRetrieveItem>& GetRetrieves() override;
    bool FreeMemory() noexcept override;

    // --- Read/write thread ------------------------------------------------------------------------
    /// Writes `aData`, the bytes of `store`, and ends the store. RT_OK; RT_ERROR_NOT_READY: superseded,
    /// incomplete, or no data file; else the disk entry's result.
    int WriteToFile(CRtMessageBlock* aData, CFMStore& store);
    int ReadFromFile(uint32_t len, int bSync);

    // --- Caller thread ----------------------------------------------------------------------------
    void OnDataReady(int aResult, CRtMessageBlock* aData);
    /// The table entry of this block; length and offset only if the bytes are in the data file. `serial`: the
    /// pending, running or failed store, else 0. Precondition: the lock of the stores is held.
    FMBlockEntry Describe(uint32_t epoch, uint32_t& serial) const;
    /// Restores the block from a table entry, before another thread has access to the block.
    void Restore(const FMBlockEntry& entry, uint32_t epoch);
    /// The end of its range in the data file, if the bytes are on disk; else 0.
    int64_t GetStoredEnd(uint32_t epoch) const {
        return IsOnDisk() && m_onDisk.epoch == epoch ? m_posInFile + m_totalLen : 0;
    }
    /// Queues the store again if it has failed, or if the bytes are resident but lost on disk.
    void RetryStore();
    /// A load that has not begun reads nothing, unless another read is requested before. Precondition: the
    /// lock of the stores is held.
    void WithdrawLoad();
    FMBlockState GetState() const;
    FMBlockStatus GetStatus() const;
    /// The data file contains the bytes, as far as this process knows.
    bool IsOnDiskNow() const;
    /// The table that was loaded says that the bytes are beyond the end of the data file.
    bool IsDamaged() const { return m_state == State::Restored && m_onDisk.epoch == 0; }
    /// In addition, the table on disk names them.
    bool SurvivesKill() const { return m_onDisk.isNamed && IsOnDiskNow(); }
    /// Whether the table that has just been written names the bytes.
    void SetNamed(bool isNamed) { m_onDisk.isNamed = isNamed; }
    bool IsStored() const { return GetState() == BLOCK_STATE_STORED; }

protected:
    ~CFMBlock() override;
    /// Releases everything but the file, in the prescribed order. The destructors of the derived classes call
    /// it, so that their own members are released after it.
    void ReleaseMembers();
    FMBlockCondition GetCondition() const;
    bool IsFull() const { return m_totalLen == m_position && m_totalLen != 0; }
    /// False if a pointer argument is null; logs the failed assertion.
    static bool IsGiven(const void* object, const char* expression);

private:
    friend class CFMStoreEvent;
    enum class State : uint32_t { Empty, Filling, Queued, Writing, Stored, Failed, Restored };
    struct Load {
        enum class State : uint8_t {
            None,
            Posted,
            Withdrawn,
            Begun,
            Skipped, ///< it was withdrawn when it began: it reads nothing
        };
        State state = State::None;
        uint32_t serial = 0; ///< in state Begun: of the bytes that it reads; 0: it reads none
        CFMStatistics::Clock::time_point posted;
    };
    /// What is known of the bytes on disk.
    struct OnDisk {
        uint32_t epoch = 0;   ///< of the disk entry, in which they were stored; shared
        bool isNamed = false; ///< the table on disk names them
    };
    /// The sinks that one completion has still to call. Nests: a sink may cause another completion.
    struct CallRound {
        std::list<IFMBlockSink*> sinks;
        CallRound* outer;
    };

    bool CheckValid();
    void AllocData();
    void FreeData();
    void SetData(CRtMessageBlock* aData);
    int CheckPiece(uint32_t blockLen, uint32_t dataPos, const CRtMessageBlock* data);
    void BeginRewrite(uint32_t blockLen);
    int PrepareBuffer(uint32_t blockLen);
    void AllocPosition();
    CRtString GetLogName() const;
    void ForgetLength();
    void SetState(State state);
    static CFMStatistics::Counter CounterOf(State state);
    static bool IsUnstored(CFMStatistics::Counter state);
    void PostStore();
    CFMDiskEntry::Stored StoreBytes(CRtMessageBlock* aData, const CFMStore& store);
    void EndStore(CFMStore& store, CFMDiskEntry::Stored stored);
    void FailStore();
    bool IsOnDisk() const {
        const State state = m_state.load(std::memory_order_acquire);
        return state == State::Stored || state == State::Restored;
    }
    int LoadAndWait();
    int PostLoad();
    bool JoinLoad();
    bool BeginLoad();
    int LoadBytes(uint32_t len, int bSync, CRtMessageChain& buffer);
    bool IsWaiting(const IFMBlockSink* sink) const;
    void CallSinks(int result);

    CRtComAutoPtr<CFMBlockOwner> m_file;
    const uint32_t m_blockID;
    uint32_t m_totalLen = 0; // shared
    uint32_t m_position = 0;
    std::list<FMRetrieveItem> m_retrieves;
    CRtMessageChain m_data; // the read/write thread uses it only while the caller thread waits
    uint64_t m_lastAccessTime;
    int64_t m_posInFile = 0; // shared
    std::atomic<State> m_state{
        State::Empty}; // shared; changed under the lock once the block is complete
    std::list<IFMBlockSink*> m_readsinks;
    uint32_t m_serial = 1; // of the bytes: changes with each rewrite and each posted store; shared
    OnDisk m_onDisk;
    CFMStoreEvent* m_store = nullptr; // in state Queued: the pending store; shared
    Load m_load;                      // the asynchronous load in flight; shared
    CallRound* m_calling = nullptr;

protected:
    // Last, so that the owners are released before the file.
    std::vector<CRtComAutoPtr<ISDUser>> m_owners;
    uint16_t m_p2pOwnerCount = 0; // wraps
};

/// The event of a store, posted once for each completed block. It writes the block together with adjacent
/// pending blocks; the events of those blocks are then no-ops.
class CFMStoreEvent final : public CFMFunctorBase, public CFMStore {
public:
    CFMStoreEvent(CFMBlock* block, uint32_t serial, int64_t pos, CRtMessageChain bytes)
        : CFMStore(serial, pos, std::move(bytes)), m_block(block) {}
    /// If the event has not fired, the store ends as failed.
    ~CFMStoreEvent() override;
    int OnEventFire() override;

private:
    static bool WriteTogether(std::span<CFMStore* const> batch);

    const CRtComAutoPtr<CFMBlock> m_block;
    const CFMStatistics::Clock::time_point m_posted = CFMStatistics::Clock::now();
    bool m_hasRun = false;
};

class CFMClientBlock final : public CFMBlock {
public:
    using CFMBlock::CFMBlock;

    void SetOwner(ISDUser* owner, int bOwn) noexcept override;
    bool HasOwner() override;
    ISDUser* GetOwner() override;
    int GetRetrieveType(const FMRetrieveItem& retrieve) override;

private:
    ~CFMClientBlock() override { ReleaseMembers(); }
};

class CFMServerBlock final : public CFMBlock {
public:
    using CFMBlock::CFMBlock;

    void SetOwner(ISDUser* owner, int bOwn) noexcept override;
    bool HasOwner() override;
    ISDUser* GetOwner() override;
    int GetOwners(const FMRetrieveItem& retrieve, uint16_t* count,
                  SDDataAddressItem* items) noexcept override;
    int GetRetrieveType(const FMRetrieveItem& retrieve) override;

private:
    using OwnerList = std::vector<CRtComAutoPtr<ISDUser>>;

    ~CFMServerBlock() override { ReleaseMembers(); }
    void AddPublicOwner(ISDUser* owner);
    void AddNetOwner(ISDUser* owner);
    void RemovePublicOwner(ISDUser* owner);
    void RemoveNetOwner(ISDUser* owner);
    void LogPublicOwner(ISDUser* owner, const char* verb);
    void LogNetOwner(ISDUser* owner, const char* verb, size_t groupSize, const char* tail);
    static uint16_t FillItems(const OwnerList& owners, uint16_t capacity, SDDataAddressItem* items);

    std::map<uint32_t, OwnerList> m_netOwners; // owners that are not public, by their IP address
};
