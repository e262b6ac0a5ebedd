/// @defgroup block Block
/// One block of a cached file: its bytes, the requests of other nodes for it, and its owners.
///
/// - Call the operations on the caller thread (RtRuntime.h). A call on another thread is reported
///   in the log (IFileManager.h), but not prevented: the library does not lock blocks. The
///   reference count is atomic and works on any thread.
/// - A block is *complete* when all its bytes have been written; only then can it be read. The first piece
///   starts at position 0, each later one where the last one ended.
/// - A piece at position 0 of a block that has bytes starts a rewrite: it discards the former bytes.
/// - A block is *resident* when its bytes are in memory. A block that was written in this run is evicted when
///   it is idle (IFMBlock::FreeMemory). A block that was loaded from a cached file of an earlier run and then
///   read stays resident until its file is closed.
/// - The intended limits are 8191 requests and 8191 waiting sinks for each block. If one is exceeded, the
///   library writes an assertion line to the log and continues.
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
/// count: it must live until it has been called or cancelled, even if the file is closed or the manager is
/// uninitialized before.
class IFMBlockSink {
public:
    /// Called on the caller thread. The sink may cancel other sinks, remove the block, detach the file, or
    /// call IFileManager::UnInitialize. It may read again: if the block has a buffer, ReadData calls the sink
    /// at once, from inside this call; otherwise the sink waits for the next load. It must not throw.
    /// @param block the block that was read; it lives during the call. To keep it, add a reference.
    /// @param aResult
    ///     - #RT_OK the block has a buffer. If it is complete (IFMBlock::IsComplete), IFMBlock::ReadData with
    ///       a range returns without waiting. It is not complete if it was still being received when the read
    ///       was requested, or if another sink has just started a rewrite.
    ///     - #RT_ERROR_FAILURE out of memory for the view of the loaded bytes.
    ///     - #RT_ERROR_IO the data file cannot be opened or read, ends before the end of the block, or was
    ///       removed or truncated by another program.
    ///     - #RT_ERROR_NULL_OBJECT out of memory for the bytes.
    ///     - #RT_ERROR_NOT_READY the block is not complete; the read/write thread has stopped; the file was
    ///       closed, or the last reference to the block released, before the load began; or the file no
    ///       longer has its data file, because a new file with the same identifier has displaced it, it was
    ///       temporary and is closed, or another process has changed its files.
    virtual void OnBlockDataReady(IFMBlock* block, int aResult) = 0;

protected:
    virtual ~IFMBlockSink() = default;
};

/// A request of another node for a block.
struct FMRetrieveItem {
    CRtComAutoPtr<ISDUser> m_userNode; ///< the requesting node
    uint32_t m_pri = 0; ///< priority, set by the application (IFMBlock::GetRetrieveType)
};

/// How a request can be answered (IFMBlock::GetRetrieveType).
enum FMRetrieveType : int {
    FM_RETRIEVE_NOT_YET = 0,        ///< server: the block is not complete, and no peer can answer
    FM_RETRIEVE_HERE = 1,           ///< this node has the complete block
    FM_RETRIEVE_PEERS = 2,          ///< server: peers can answer (IFMBlock::GetOwners)
    FM_RETRIEVE_CLIENT_NOT_YET = 3, ///< client: the block is not complete
};

/// One block, returned by IFMFile::GetBlock. It holds a reference on its file.
class IFMBlock : public IRtReferenceControl {
public:
    /// Appends one piece. The piece that completes the block queues a store on the read/write thread; the
    /// call does not wait for it.
    ///
    /// If `dataPos` is 0 and the block has bytes, a rewrite starts. If `blockLen` is unchanged, the block
    /// keeps its range in the data file. Otherwise it gets a new range, and the space of the old one is not
    /// reused; a block at offset 0 of the data file always gets a new range, because 0 also means that no
    /// range has been allocated. Views that were read before keep the old bytes.
    /// @param blockLen length of the whole block in bytes, at least 1 and the same for each piece. The first
    ///     piece allocates a buffer of this length. Another value in a later piece is reported as a mistake, and
    ///     the block keeps the first one.
    /// @param dataPos where the piece starts, in bytes from the start of the block: GetPosition, or 0.
    /// @param data the piece: all readable bytes of the chain. The bytes are copied, and the chain remains
    ///     the caller's. An empty piece at the end of a complete block is a no-op.
    /// @retval RT_OK the bytes are in the block. A store that fails later is not reported: it has a line in
    ///     the log, and each tick retries it.
    /// @retval RT_ERROR_NULL_OBJECT out of memory. If the buffer of the block could not be allocated, the
    ///     block is empty afterwards, and the next piece may have another `blockLen`.
    /// @retval RT_ERROR_INVALID_ARG `data` is null, `blockLen` is 0, `dataPos` is neither 0 nor GetPosition,
    ///     or the piece extends past the end of the block. Nothing changes.
    /// @retval RT_ERROR_NOT_READY the file has been closed. Nothing changes.
    virtual int WriteData(uint32_t blockLen, uint32_t dataPos, CRtMessageBlock* data) = 0;

    /// Asynchronous read: makes the bytes resident, then calls the sink. If the block has a buffer already,
    /// the sink is called before ReadData returns. Otherwise the read/write thread loads the bytes: before
    /// the stores that are queued, but after every 8 loads it runs one store. Several sinks share one load. A
    /// sink that is already waiting does not wait twice. The call does not postpone eviction.
    ///
    /// A sink that requests the next block adds one level of recursion for each block that has a buffer. To
    /// read block after block, request them in a loop, and let the sink run the loop only if it is not running
    /// (examples/loops/transfer.h):
    ///
    ///     for (m_isRunning = true; !m_isLoading && HasNext();) {
    ///         m_isLoading = true; // the sink sets it to false
    ///         if (RT_FAILED(GetNext()->ReadData(this)))
    ///             m_isLoading = false; // the sink is not called
    ///     }
    ///     m_isRunning = false;
    /// @param sink called once, unless it is cancelled first.
    /// @retval RT_OK the sink has been or will be called. If the load fails, or the block is empty, the sink
    ///     receives the result code.
    /// @retval RT_ERROR_NULL_OBJECT out of memory for the event of the load. The sink is not called.
    /// @retval RT_ERROR_INVALID_ARG `sink` is null.
    /// @retval RT_ERROR_NOT_READY the read/write thread is not running: before IFileManager::Initialize or
    ///     after IFileManager::UnInitialize. The sink is not called.
    virtual int ReadData(IFMBlockSink* sink) = 0;

    /// Synchronous read: returns a view of the range. No byte is copied: the view shares the block's
    /// buffer. If the bytes are not resident, the call waits until the read/write thread has loaded them:
    /// after the loads that are queued, and before the stores that are queued, but after every 8 loads it
    /// runs one store. The call postpones eviction.
    /// @param readPos start of the range in bytes from the start of the block.
    /// @param readLen length of the range in bytes.
    /// @param[out] pData the view. The caller owns it and destroys it with CRtMessageBlock::DestroyChained;
    ///     pass `RtReceive(chain)` to have a CRtMessageChain own it. The view stays valid after a rewrite,
    ///     after an eviction and after the block is destroyed. Do not write through it.
    /// @retval RT_OK
    /// @retval RT_ERROR_FAILURE the load failed (the log says why), out of memory for the view, or (Windows) a
    ///     store of a closed file waits for another process: a later read may succeed.
    /// @retval RT_ERROR_NULL_OBJECT out of memory for the bytes.
    /// @retval RT_ERROR_INVALID_ARG the range extends past the end of the block, or starts beyond the bytes
    ///     written so far. An empty block has the length 0.
    /// @retval RT_ERROR_NOT_READY the range is inside the block, but the block is not complete.
    virtual int ReadData(uint32_t readPos, uint32_t readLen, CRtMessageBlock*& pData) = 0;

    /// Cancels an asynchronous read: the sink will not be called. If no other sink waits, a load that has not
    /// begun reads nothing; a load that has begun continues. The caller may destroy the sink after the call.
    /// @param sink the sink.
    /// @retval RT_OK also if the sink was not waiting.
    /// @retval RT_ERROR_INVALID_ARG `sink` is null.
    virtual int CancelReadData(IFMBlockSink* sink) = 0;

    virtual IFMFile* GetFile() = 0; ///< the file, which outlives the block; no reference is added
    virtual const FMFileID& GetFileID() = 0; ///< identifier of the file
    virtual uint32_t GetBlockID() = 0;       ///< identifier of the block
    virtual uint32_t GetTotalLen() = 0; ///< length of the whole block; 0 before the first piece
    virtual uint32_t GetPosition() = 0; ///< bytes written so far: where the next piece starts
    /// The block's own buffer, or null if the block has none. The block owns it: do not change it, and do not
    /// use it after the next call of the library.
    virtual CRtMessageBlock* GetData() = 0;
    /// True when all bytes have been written, or when the block was restored from a block table that gives
    /// its range in the data file.
    virtual bool IsComplete() = 0;
    /// True when the block has a buffer, complete or not: the first piece allocates the buffer.
    virtual bool IsInMemory() = 0;
    /// True when the block is complete, or when it has bytes and its last WriteData call was less than 8192
    /// ms ago: then it is still being received.
    virtual bool IsAlive() = 0;

    /// Records that a node owns a copy of the block, or removes that record. The block holds one reference
    /// for each record. Nodes are compared by object, not by node identifier. An object that was recorded
    /// twice has two records; a removal removes the first one.
    ///
    /// A client keeps any number of records. A server keeps up to 128 owners with public addresses, and up to
    /// 32 others for each IP address; it ignores further ones without a log line. A server also counts its
    /// peer-to-peer owners (ISDUser::IsP2P): each call with `bOwn` adds 1 and each call without it subtracts
    /// 1, whether or not a record changes. So record a node once, and remove it only from a block that has
    /// it.
    /// @param owner the node; null is a no-op with an assertion line in the log.
    /// @param bOwn non-zero: the node owns a copy. 0: it no longer does.
    virtual void SetOwner(ISDUser* owner, int bOwn) = 0;

    virtual bool HasOwner() = 0; ///< true when at least one owner is recorded

    /// Returns a random owner, or null if there is none. A server picks from the owners with public
    /// addresses; if there are none, from the owners with the lowest IP address. No reference is added: the
    /// result is valid until an owner of the block is removed.
    virtual ISDUser* GetOwner() = 0;

    /// Returns addresses of peer-to-peer owners (ISDUser::IsP2P) that the requesting node can fetch the block
    /// from. If the requesting node has no public address, owners with the same IP address come first. Then
    /// come owners with public addresses. Each of the two lists starts at a random owner. The requesting
    /// node itself is not excluded.
    /// @param retrieve the request; only its node is used.
    /// @param[in,out] count in: the number of elements of `items`; out: the number of elements filled. Must
    ///     not be null.
    /// @param[out] items array of `*count` elements.
    /// @retval RT_OK also if no item was filled.
    /// @retval RT_ERROR_NOT_SUPPORTED on a client; `count` is set to 0.
    /// @retval RT_ERROR_INVALID_ARG `retrieve` has no node; `count` is unchanged.
    virtual int GetOwners(const FMRetrieveItem& retrieve, uint16_t* count,
                          SDDataAddressItem* items) = 0;

    /// Appends a request of a node, even if the block has one of this node already. The block holds a
    /// reference on the node until the request is cancelled. A request does not expire, and remains when the
    /// block becomes complete.
    /// @param node the node; null is a no-op with an assertion line in the log.
    /// @param pri the priority.
    virtual void AddRetrieve(ISDUser* node, uint32_t pri) = 0;

    /// Removes the first request of this node object.
    /// @param node the node; null is a no-op with an assertion line in the log.
    /// @returns 1 if there was one; 0 if there was none or `node` is null.
    virtual int CancelRetrieve(ISDUser* node) = 0;

    /// The requests in order of arrival. Do not add or cancel requests while iterating.
    virtual const std::list<FMRetrieveItem>& GetRetrieves() = 0;

    /// Returns how a request can be answered. A server answers #FM_RETRIEVE_PEERS, even if it has the block,
    /// if FMRetrieveItem::m_pri as a signed number is above 1, the requesting node is peer-to-peer, and the
    /// count of peer-to-peer owners is not 0 (SetOwner).
    /// @param retrieve the request.
    /// @returns one of #FMRetrieveType.
    virtual int GetRetrieveType(const FMRetrieveItem& retrieve) = 0;

    /// Evicts the bytes from memory if they were stored in this run and the last WriteData or synchronous
    /// ReadData was more than 240,000 ms ago. If the resident blocks of the process exceed twice the memory
    /// limit (64 MiB on a client, 512 MiB on a server), 120,000 ms are enough. The tick calls FreeMemory; an
    /// application need not.
    /// @returns true if the block still has a buffer.
    virtual bool FreeMemory() = 0;

protected:
    ~IFMBlock() override = default;
};
/// @}
