// IFMBlock: one block of a cached file.
//
// Caveats first:
//  - Every operation belongs on thread number 3, except AddReference and ReleaseReference. There is no
//    check and no lock against other use.
//  - A block is written from position 0 upward, each piece where the last one ended, all with the same
//    block length. Bytes can be read once the last piece is in.
//  - A block that is written again from position 0 loses its former bytes at once.
//  - A block restored from disk whose bytes were read again keeps them in memory until its file is
//    closed; only blocks written in this run are released when idle.
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

/// Told when the bytes of a block are in memory, or cannot be.
class IFMBlockSink {
public:
    /// On thread number 3. `aResult` 0: the bytes can be read now, IFMBlock::ReadData with a range will
    /// not wait (unless a sink that was called just before has begun the block anew). Otherwise: 10006
    /// the data file could not be read or ends before the block's end, 10007 no memory for the bytes,
    /// 10015 the block is not complete or has no data file (any more).
    /// The sink may do anything from here: ask again (it then waits for the next load), cancel another,
    /// remove the block, detach the file, uninitialise the manager. It does not throw. `block` carries no
    /// reference.
    virtual void OnBlockDataReady(IFMBlock* block, int aResult) = 0;

protected:
    virtual ~IFMBlockSink() = default;
};

/// A request of another node for a block.
struct FMRetrieveItem {
    CRtComAutoPtr<ISDUser> m_userNode;
    uint32_t m_pri = 0; ///< priority, the caller's; a server names peers only above 1
};

/// Answers of IFMBlock::GetRetrieveType.
enum FMRetrieveType : int {
    FM_RETRIEVE_NOT_YET = 0,        ///< server: neither bytes nor peers
    FM_RETRIEVE_HERE = 1,           ///< this node holds the whole block
    FM_RETRIEVE_PEERS = 2,          ///< server: the requester can be sent to owners, GetOwners
    FM_RETRIEVE_CLIENT_NOT_YET = 3, ///< client: not here
};

class IFMBlock : public IRtReferenceControl {
public:
    /// Appends one piece.
    /// `blockLen`: the block's length in bytes, the same with every piece; the first piece fixes it and
    /// gets the memory for all of it. `dataPos`: where the piece begins, in bytes. `data`: the piece, all
    /// readable bytes of the chain; it stays the caller's and is not changed.
    /// The piece that completes the block hands the store to disk to the read/write thread.
    /// `dataPos` 0 on a block that has bytes begins it anew; with another `blockLen` it gets a new place
    /// in the data file.
    /// 0; 10007 no memory for the block; 10008 `data` null, `blockLen` 0, the piece does not begin where
    /// the last one ended, or it would pass the block's end; 10015 the file has been closed. Nothing
    /// changes then, but that a block that was to be begun anew is empty after a 10007.
    virtual int WriteData(uint32_t blockLen, uint32_t dataPos, CRtMessageBlock* data) = 0;

    /// Asks for the bytes to be brought into memory. When they are there already the sink is called
    /// before this returns, else later. The sink is not counted: it must live until it is called or
    /// cancelled. The same sink asking twice is called once. Does not count as an access that keeps the
    /// bytes from being released.
    /// 0; 10008 `sink` null; 10007, 10015 the load could not be handed to the read/write thread, for want
    /// of memory or because it has stopped (the sink will not be called).
    virtual int ReadData(IFMBlockSink* sink) = 0;

    /// Hands out the bytes from `readPos` up to `readPos` + `readLen` as a view of the block's memory: no
    /// byte is copied. Waits for the read/write thread when they have to come from disk. The caller owns
    /// `pData` and ends it with DestroyChained; the view stays good whatever happens to the block.
    /// 0; 10001 the bytes could not be read; 10007 no memory for them; 10008 the range lies outside the
    /// block; 10015 the block is not complete. `pData` is set on success only.
    virtual int ReadData(uint32_t readPos, uint32_t readLen, CRtMessageBlock*& pData) = 0;

    /// The sink will not be called any more. 0, also when it did not wait; 10008 `sink` null.
    virtual int CancelReadData(IFMBlockSink* sink) = 0;

    /// The file, no reference added; it lives as long as the block.
    virtual IFMFile* GetFile() = 0;
    virtual const FMFileID& GetFileID() = 0;
    virtual uint32_t GetBlockID() = 0;
    /// Length in bytes, 0 before the first piece.
    virtual uint32_t GetTotalLen() = 0;
    /// Bytes written so far.
    virtual uint32_t GetPosition() = 0;
    /// The block's own memory or null; the block's, never to be destroyed or changed.
    virtual CRtMessageBlock* GetData() = 0;
    virtual bool IsComplete() = 0;
    virtual bool IsInMemory() = 0;
    /// Complete, or received a piece within the last 8192 ms.
    virtual bool IsAlive() = 0;

    /// Records that a node owns a copy (`bOwn` non-zero) or no longer does. Owners are told apart by
    /// object, and one that is recorded twice is there twice. A reference is held on each.
    /// A server keeps at most 128 public owners and 32 per address of the others; more are dropped. It
    /// counts peer-to-peer owners by these calls alone, for GetRetrieveType: a node has to be recorded
    /// once, and taken out only where it was recorded.
    /// A null owner changes nothing.
    virtual void SetOwner(ISDUser* owner, int bOwn) = 0;
    virtual bool HasOwner() = 0;
    /// An owner chosen at random, or null. No reference: to be used before the next SetOwner.
    virtual ISDUser* GetOwner() = 0;
    /// Addresses of peer-to-peer owners for the node of `retrieve`: those behind its own address first,
    /// then public ones. `count`: in, the size of `items`; out, how many were filled.
    /// 0 (also with none filled); 10004 on a client (count 0); 10008 a retrieve without node.
    virtual int GetOwners(const FMRetrieveItem& retrieve, uint16_t* count,
                          SDDataAddressItem* items) = 0;

    /// Records a request of `node`, with a reference, also when it has one already. A null node changes
    /// nothing.
    virtual void AddRetrieve(ISDUser* node, uint32_t pri) = 0;
    /// Drops the first request of that very object: 1, or 0 when there is none.
    virtual int CancelRetrieve(ISDUser* node) = 0;
    /// The requests in order of arrival. Not to be changed by calls while it is walked.
    virtual const std::list<FMRetrieveItem>& GetRetrieves() = 0;
    /// Which answer a request of this block gets, an FMRetrieveType.
    virtual int GetRetrieveType(const FMRetrieveItem& retrieve) = 0;

    /// Releases the bytes of a block that is stored and has been idle for more than 240,000 ms (120,000
    /// when the blocks in memory exceed twice the limit). Answers whether the bytes are in memory still.
    virtual bool FreeMemory() = 0;

protected:
    ~IFMBlock() override = default;
};
