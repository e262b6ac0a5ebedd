/// @defgroup block Block
/// One block of a cached file: its bytes, the requests of other nodes for it, and its owners.
///
/// - Caller thread only, except the reference count. The library neither checks nor locks this.
/// - A block is written from position 0 upward, each piece where the last one ended. Its bytes can be read
///   after the last piece.
/// - Writing at position 0 again discards the former bytes immediately.
/// - Blocks written in this run are evicted from memory when idle (IFMBlock::FreeMemory). A block that was
///   restored from disk and read stays resident until its file is closed.
/// - Fewer than 8192 requests and 8192 waiting sinks per block; beyond that the library writes an assertion
///   line to the log and continues.
/// @{
#pragma once

#include <cstdint>
#include <list>

#include "FMFileID.h"
#include "ISDUser.h"
#include "RtExport.h"
#include "RtMessageBlock.h"
#include "RtReferenceControl.h"

class IFMBlock;
class IFMFile;

/// Receives the completion of an asynchronous read. The application implements it. A sink has no reference
/// count: it must live until it has been called or cancelled.
class IFMBlockSink {
public:
    /// Called on the caller thread. It may read again (that request waits for the next load), cancel
    /// other sinks, remove the block, detach the file, or call IFileManager::UnInitialize. It must not throw.
    /// @param block the block that was read, without a reference for the sink.
    /// @param aResult
    ///     - #RT_OK the bytes are resident: IFMBlock::ReadData with a range does not wait, unless a sink
    ///       called just before this one has started a rewrite.
    ///     - #RT_ERROR_FAILURE out of memory for the view of the loaded bytes.
    ///     - #RT_ERROR_IO the data file cannot be opened or read, ends before the end of the block, or lost
    ///       the bytes when it was truncated.
    ///     - #RT_ERROR_NULL_OBJECT out of memory for the bytes.
    ///     - #RT_ERROR_NOT_READY the block is not complete; or its file can no longer use its data file
    ///       (it was displaced or removed, or another process has changed it).
    virtual void OnBlockDataReady(IFMBlock* block, int aResult) = 0;

protected:
    virtual ~IFMBlockSink() = default;
};

/// A request of another node for a block.
struct FMRetrieveItem {
    CRtComAutoPtr<ISDUser> m_userNode; ///< the requesting node
    uint32_t m_pri = 0; ///< priority, defined by the application; a server names peers only above 1
};

/// How a request can be answered (IFMBlock::GetRetrieveType).
enum FMRetrieveType : int {
    FM_RETRIEVE_NOT_YET = 0,        ///< server: not complete, and no peer can be named
    FM_RETRIEVE_HERE = 1,           ///< this node has the complete block
    FM_RETRIEVE_PEERS = 2,          ///< server: peers have it (IFMBlock::GetOwners)
    FM_RETRIEVE_CLIENT_NOT_YET = 3, ///< client: the block is not complete
};

/// One block. IFMFile::GetBlock hands it out. The block keeps its file alive.
class IFMBlock : public IRtReferenceControl {
public:
    /// Appends one piece. The piece that completes the block queues its store.
    ///
    /// `dataPos` 0 on a block that has bytes starts a rewrite. If `blockLen` is unchanged, the block keeps
    /// its place in the data file (except a block at offset 0); otherwise it gets a new place, and the old
    /// space is not reused. Views that were read before keep the old bytes.
    /// @param blockLen length of the whole block in bytes, the same for each piece. The first piece fixes it
    ///     and allocates the memory for all of it.
    /// @param dataPos where the piece starts, in bytes from the start of the block.
    /// @param data the piece: all readable bytes of the chain. It is copied and remains the caller's. An
    ///     empty piece at the end of a complete block is a no-op.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT out of memory. If the memory for the block was missing, the block is
    ///     empty afterwards, and the next piece may have another `blockLen`.
    /// @retval RT_ERROR_INVALID_ARG `data` is null, `blockLen` is 0, the piece does not start where the last
    ///     one ended, or it extends past the end of the block. Nothing changes.
    /// @retval RT_ERROR_NOT_READY the file has been closed. Nothing changes.
    virtual int WriteData(uint32_t blockLen, uint32_t dataPos, CRtMessageBlock* data) = 0;

    /// Asynchronous read: makes the bytes resident, then calls the sink. If they are resident already, the
    /// sink is called before this returns. Several sinks share one load; a sink that is already waiting is
    /// called once. The call does not count as an access that postpones eviction.
    /// @param sink called once, unless cancelled first.
    /// @retval RT_OK the sink has been or will be called. A load that fails, also one of an incomplete
    ///     block, is reported to the sink.
    /// @retval RT_ERROR_NULL_OBJECT out of memory for the load's event. The sink is not called.
    /// @retval RT_ERROR_INVALID_ARG `sink` is null.
    /// @retval RT_ERROR_NOT_READY the read/write thread is not running. The sink is not called.
    virtual int ReadData(IFMBlockSink* sink) = 0;

    /// Synchronous read: returns a view of the range. No byte is copied: the view shares the block's
    /// buffer. If the bytes are not resident, the call waits for the read/write thread to load them.
    /// Counts as an access that postpones eviction.
    /// @param readPos start of the range in bytes.
    /// @param readLen length of the range in bytes.
    /// @param[out] pData the view. The caller owns it and ends it with CRtMessageBlock::DestroyChained
    ///     (RtReceive does both). It stays valid after a rewrite, an eviction and the end of the block. Do not
    ///     write through it.
    /// @retval RT_OK
    /// @retval RT_ERROR_FAILURE the load failed (the log says why), or out of memory for the view.
    /// @retval RT_ERROR_NULL_OBJECT out of memory for the bytes.
    /// @retval RT_ERROR_INVALID_ARG the range is not inside the block.
    /// @retval RT_ERROR_NOT_READY the block is not complete.
    virtual int ReadData(uint32_t readPos, uint32_t readLen, CRtMessageBlock*& pData) = 0;

    /// Cancels an asynchronous read: the sink will not be called. A load in flight continues.
    /// @retval RT_OK also if the sink was not waiting.
    /// @retval RT_ERROR_INVALID_ARG `sink` is null.
    virtual int CancelReadData(IFMBlockSink* sink) = 0;

    /// The file, without a reference for the caller; it lives at least as long as the block.
    virtual IFMFile* GetFile() = 0;
    /// Identifiers of the file and of the block.
    ///@{
    virtual const FMFileID& GetFileID() = 0;
    virtual uint32_t GetBlockID() = 0;
    ///@}
    /// Length of the whole block in bytes; 0 before the first piece.
    virtual uint32_t GetTotalLen() = 0;
    /// Bytes written so far: where the next piece starts.
    virtual uint32_t GetPosition() = 0;
    /// The block's own buffer, or null if the bytes are not resident. It remains the block's: do not change
    /// it, and do not keep it past the next call.
    virtual CRtMessageBlock* GetData() = 0;
    /// True when all pieces have been written, or when the block was restored from disk with its bytes.
    virtual bool IsComplete() = 0;
    /// True when the block has a buffer; an incomplete block has one, too.
    virtual bool IsInMemory() = 0;
    /// True when the block is complete, or is still being received: it has bytes, and its last WriteData
    /// call was less than 8192 ms ago.
    virtual bool IsAlive() = 0;

    /// Records that a node owns a copy of the block, or no longer does. The block holds one reference for
    /// each record. Owners are compared by object, not by node identifier: the same object recorded twice
    /// is there twice, and a removal takes the first.
    ///
    /// A server keeps up to 128 owners with public addresses, and up to 32 others for each IP address; it
    /// silently drops more. It counts peer-to-peer owners by the calls alone: each call with `bOwn` adds
    /// one, each call without removes one. So record a node once, and remove it only where it was recorded.
    /// @param owner the node; null is a no-op with an assertion line in the log.
    /// @param bOwn non-zero: the node owns a copy. 0: it no longer does.
    virtual void SetOwner(ISDUser* owner, int bOwn) = 0;

    /// True when at least one owner is recorded.
    virtual bool HasOwner() = 0;

    /// Returns a random owner, or null if there is none. A server picks from the public owners; if it has
    /// none, from those of the lowest IP address. No reference is added: use the result before the next
    /// SetOwner.
    virtual ISDUser* GetOwner() = 0;

    /// Returns addresses of peer-to-peer owners for the requesting node, starting at a random one. If that
    /// node has no public address, owners with the same IP address come first; then public owners. The
    /// requester itself is not excluded.
    /// @param retrieve the request; only its node matters.
    /// @param[in,out] count in: the capacity of `items`; out: the number of items filled.
    /// @param[out] items array of at least `count` items.
    /// @retval RT_OK also if no item was filled.
    /// @retval RT_ERROR_NOT_SUPPORTED on a client; `count` is set to 0.
    /// @retval RT_ERROR_INVALID_ARG `retrieve` has no node; `count` is unchanged.
    virtual int GetOwners(const FMRetrieveItem& retrieve, uint16_t* count,
                          SDDataAddressItem* items) = 0;

    /// Appends a request of a node, even if it has one already. The block holds a reference on the node
    /// until the request is cancelled. Requests neither expire nor end when the block completes.
    /// @param node the node; null is a no-op with an assertion line in the log.
    /// @param pri the priority.
    virtual void AddRetrieve(ISDUser* node, uint32_t pri) = 0;

    /// Removes the first request of this node object.
    /// @returns 1 if there was one; 0 if there was none or `node` is null.
    virtual int CancelRetrieve(ISDUser* node) = 0;

    /// The requests in order of arrival. Do not add or cancel requests while iterating.
    virtual const std::list<FMRetrieveItem>& GetRetrieves() = 0;

    /// Says how a request can be answered. A server prefers peers to its own copy if the priority, as a
    /// signed number, is above 1, the node is peer-to-peer, and such owners are recorded.
    /// @returns one of #FMRetrieveType.
    virtual int GetRetrieveType(const FMRetrieveItem& retrieve) = 0;

    /// Evicts the bytes if they are stored and the last access was more than 240,000 ms ago; 120,000 ms if
    /// the resident blocks of the process exceed twice the memory limit (64 MiB on a client, 512 MiB on a
    /// server). The tick calls it; an application rarely needs to.
    /// @returns whether the bytes are resident afterwards.
    virtual bool FreeMemory() = 0;

protected:
    ~IFMBlock() override = default;
};
/// @}
