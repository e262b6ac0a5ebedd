// CFMBlock: one block of a cached file, behind IFMBlock, in its two kinds.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <span>
#include <vector>

#include "FMInfoCodec.h"
#include "IFMBlock.h"
#include "RtReferenceControl.h"

class CFMFile;
class CFMStore;
class IRtEvent;

constexpr uint32_t cmax_check_owners = 8192;
constexpr uint32_t cmax_block_data_len = 16777216;

enum FMBlockState : uint32_t {
    BLOCK_STATE_EMPTY = 0,
    BLOCK_STATE_FILLING = 1,
    BLOCK_STATE_COMPLETE = 2, ///< all bytes are here, or were when the file was loaded
    BLOCK_STATE_STORED = 3,   ///< the bytes in memory, if any, are the bytes on disk
};

/// Threads: the caller thread, except WriteToFile and ReadFromFile. What the read/write thread reads
/// (length, position, place, store) the caller thread changes under the file's transfer mutex. The last
/// reference may be released on either thread.
class CFMBlock : public CRtCounted<IFMBlock> {
public:
    CFMBlock(CFMFile* file, uint32_t blockID, uint64_t now);

    int WriteData(uint32_t blockLen, uint32_t dataPos, CRtMessageBlock* data) noexcept override;
    int ReadData(IFMBlockSink* sink) noexcept override;
    int ReadData(uint32_t readPos, uint32_t readLen, CRtMessageBlock*& pData) noexcept override;
    int CancelReadData(IFMBlockSink* sink) noexcept override;
    IFMFile* GetFile() override;
    const FMFileID& GetFileID() override;
    uint32_t GetBlockID() override { return m_blockID; }
    uint32_t GetTotalLen() override { return m_totalLen; }
    uint32_t GetPosition() override { return m_position; }
    CRtMessageBlock* GetData() override { return m_data.get(); }
    bool IsComplete() override { return m_totalLen == m_position && m_totalLen != 0; }
    bool IsInMemory() override { return m_data != nullptr; }
    bool IsAlive() override;
    int GetOwners(const FMRetrieveItem& retrieve, uint16_t* count,
                  SDDataAddressItem* items) noexcept override;
    void AddRetrieve(ISDUser* node, uint32_t pri) noexcept override;
    int CancelRetrieve(ISDUser* node) noexcept override;
    const std::list<FMRetrieveItem>& GetRetrieves() override { return m_retrieves; }
    bool FreeMemory() noexcept override;

    /// Both on the read/write thread.
    int WriteToFile(CRtMessageBlock* aData);
    /// The stores of neighbours at once. False when they have to be run one by one, because one of them
    /// is out of date, has an entry on disk or the write failed.
    static bool WriteTogether(std::span<CFMStore* const> stores);
    int ReadFromFile(uint32_t len, int bSync);
    void OnDataReady(int aResult, CRtMessageBlock* aData);

    /// What the file's table says of this block: length and place only of bytes that are, or are going
    /// to be, on disk.
    FMBlockEntry Describe();
    /// Takes what a stored entry says. Before anybody else sees the block.
    struct Origin {
        uint32_t entryAt;   ///< where the entry lies in the information file
        bool placeIsShared; ///< a damaged table names the range for another block too
        bool isDoubtful;    ///< and that one has its bytes there as well
    };
    void Restore(const FMBlockEntry& entry, const Origin& origin);
    bool IsStorePending();
    bool IsStored() const { return m_state == BLOCK_STATE_STORED; }
    bool IsStoreFailed() const { return m_storeFailed.load(std::memory_order_acquire); }
    /// Posts the store of a complete block again whose store has failed.
    void RetryStore();

protected:
    ~CFMBlock() override;

private:
    // Sinks that one completion is calling. A sink may cause another completion from inside its call.
    struct CallRound {
        std::list<IFMBlockSink*> sinks;
        CallRound* outer;
    };

    bool CheckValid();
    bool IsLost() const;
    void AllocData();
    void FreeData();
    void SetData(CRtMessageBlock* aData);
    int CheckPiece(uint32_t blockLen, uint32_t dataPos, const CRtMessageBlock* data);
    int BeginPiece(uint32_t blockLen, bool rewrite);
    void BeginRewrite(uint32_t blockLen);
    void Forget();
    int PrepareBuffer(uint32_t blockLen);
    void Complete();
    void PostStore();
    void WithdrawStore();
    void EndStore(int result);
    bool IsStoreOf(const CFMStore& store) const;
    int PostLoad(int bSync);
    int LoadBytes(uint32_t len, CRtMessageChain& buffer);
    bool IsWaiting(const IFMBlockSink* sink) const;
    void CallSinks(int result);

    CRtComAutoPtr<CFMFile> m_file;
    const uint32_t m_blockID;
    uint32_t m_totalLen = 0; // under the transfer mutex
    // Under the transfer mutex where it begins or ends: in between nobody else asks.
    std::atomic<uint32_t> m_position{0};
    std::list<FMRetrieveItem> m_retrieves;
    CRtMessageChain m_data;
    uint64_t m_lastAccessTime;
    int64_t m_posInFile = 0; // under the transfer mutex
    Origin m_origin{};       // under the transfer mutex
    size_t m_gapsBefore = 0; // the file's, when the bytes on disk were written; under the mutex
    std::atomic<uint32_t> m_state{BLOCK_STATE_EMPTY};
    std::list<IFMBlockSink*> m_readsinks;

    // The store that stands for the bytes in memory, from its posting to its end; under the transfer
    // mutex. A store whose bytes are not these is out of date.
    const char* m_storeBytes = nullptr;
    IRtEvent* m_storeEvent = nullptr; // while it is queued
    std::atomic<bool> m_storeFailed{false};

    // Loads for sinks that have not come back, and how many of the oldest were asked for before the
    // present bytes were begun. Completions come in the order of their loads.
    uint32_t m_loadsUnderWay = 0;
    uint32_t m_staleLoads = 0;
    int m_syncLoadResult = 0; // written by the load that the caller thread waits for
    CallRound* m_calling = nullptr;

protected:
    // Last, so that the owners go before the file.
    std::vector<CRtComAutoPtr<ISDUser>> m_owners;
    uint16_t m_p2pOwnerCount = 0; // wraps
};

class CFMClientBlock final : public CFMBlock {
public:
    using CFMBlock::CFMBlock;

    void SetOwner(ISDUser* owner, int bOwn) noexcept override;
    bool HasOwner() override;
    ISDUser* GetOwner() override;
    int GetRetrieveType(const FMRetrieveItem& retrieve) override;

private:
    ~CFMClientBlock() override = default;
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

    ~CFMServerBlock() override = default;
    void AddPublicOwner(ISDUser* owner);
    void AddNetOwner(ISDUser* owner);
    void RemovePublicOwner(ISDUser* owner);
    void RemoveNetOwner(ISDUser* owner);
    void LogPublicOwner(ISDUser* owner, const char* verb);
    void LogNetOwner(ISDUser* owner, const char* verb, size_t groupSize, const char* tail);
    static uint16_t FillItems(const OwnerList& owners, uint16_t capacity, SDDataAddressItem* items);

    std::map<uint32_t, OwnerList> m_netOwners; // owners that are not public, by their IP address
};
