// CRtMessageBlock: a chained buffer of bytes. Each block of a chain has a read pointer, a write pointer
// and an end over a buffer that duplicates share: a duplicate costs no copy of the bytes, and moves its
// own two pointers.
//
// Ownership: a chain is made with Create, Wrap or DuplicateChained and ended with DestroyChained, once
// for each; CRtMessageChain does that by itself. Threads: one thread at a time per block; duplicates of
// one buffer may live on different threads as long as nobody writes the bytes any more.
#pragma once

#include <cstdint>
#include <memory>

#include "RtExport.h"
#include "RtLog.h"
#include "RtResult.h"
#include "RtString.h"

class CRtMessageBlock;

struct RT_EXPORT CRtDestroyChained {
    void operator()(CRtMessageBlock* chain) const;
};
/// Owns a chain.
using CRtMessageChain = std::unique_ptr<CRtMessageBlock, CRtDestroyChained>;

/// For an out argument that hands a chain over: block->ReadData(0, length, RtReceive(chain)). The chain
/// is there from the end of that expression on.
class RtReceive {
public:
    explicit RtReceive(CRtMessageChain& chain) : m_chain(chain) {}
    ~RtReceive() { m_chain.reset(m_pRaw); }
    RtReceive(const RtReceive&) = delete;
    RtReceive& operator=(const RtReceive&) = delete;
    operator CRtMessageBlock*&() { return m_pRaw; }

private:
    CRtMessageChain& m_chain;
    CRtMessageBlock* m_pRaw = nullptr;
};

class RT_EXPORT CRtMessageBlock {
public:
    enum : uint32_t { READ_LOCKED = 1, WRITE_LOCKED = 2 };

    /// A block with an empty buffer of `size` bytes, which are not cleared. Null when there is no memory.
    static CRtMessageChain Create(uint32_t size);
    /// A block that reads `length` bytes of its user's, who keeps them alive and unchanged as long as
    /// this block or a duplicate is in use. There is no space to write.
    static CRtMessageChain Wrap(const char* bytes, uint32_t length);
    /// A block that holds a copy of the bytes. Null when there is no memory.
    static CRtMessageChain CreateCopy(const char* bytes, uint32_t length);

    CRtMessageBlock(const CRtMessageBlock&) = delete;
    CRtMessageBlock& operator=(const CRtMessageBlock&) = delete;

    /// Bytes that can be read from this block alone, and bytes that can still be written to it.
    uint32_t GetTopLevelLength() const { return static_cast<uint32_t>(m_pWritePtr - m_pReadPtr); }
    uint32_t GetTopLevelSpace() const { return static_cast<uint32_t>(m_pEndPtr - m_pWritePtr); }
    /// Both log a line when the block is locked that way, and answer the pointer all the same.
    const char* GetTopLevelReadPtr() const {
        RT_CHECK(SOURCE, RT_BIT_DISABLED(m_Flag, READ_LOCKED),
                 "RT_BIT_DISABLED(m_Flag, READ_LOCKED)");
        return m_pReadPtr;
    }
    char* GetTopLevelWritePtr() const {
        RT_CHECK(SOURCE, RT_BIT_DISABLED(m_Flag, WRITE_LOCKED),
                 "RT_BIT_DISABLED(m_Flag, WRITE_LOCKED)");
        return m_pWritePtr;
    }
    void LockReading() { m_Flag |= READ_LOCKED; }
    void UnlockReading() { m_Flag &= ~uint32_t{READ_LOCKED}; }
    void LockWriting() { m_Flag |= WRITE_LOCKED; }
    void UnlockWriting() { m_Flag &= ~uint32_t{WRITE_LOCKED}; }

    /// Both step this block's pointer: 0, or 10009 with a line and without moving when the step leaves
    /// the readable bytes or the buffer.
    int AdvanceTopLevelReadPtr(uint32_t aStep) {
        if (!RT_CHECK(SOURCE, aStep <= GetTopLevelLength(), "m_pWritePtr >= m_pReadPtr + aStep"))
            return RT_ERROR_OUT_OF_RANGE;
        m_pReadPtr += aStep;
        return RT_OK;
    }
    int AdvanceTopLevelWritePtr(uint32_t aStep) {
        if (!RT_CHECK(SOURCE, aStep <= GetTopLevelSpace(), "m_pWritePtr + aStep <= m_pEndPtr"))
            return RT_ERROR_OUT_OF_RANGE;
        m_pWritePtr += aStep;
        return RT_OK;
    }
    /// Limits this single block to the bytes from `readPos` up to `readPos` + `length`, counted from
    /// the start of the buffer. 0, or 10009 without moving when they do not lie in the buffer.
    int SetTopLevelRange(uint32_t readPos, uint32_t length);

    /// The next block of the chain, still owned by the chain, or null.
    CRtMessageBlock* GetNext() const { return m_pNext; }
    /// Adds a chain at the end of this one, which owns it then.
    void Append(CRtMessageChain chain);

    /// A chain over the same buffers, with the pointers as they stand here. Null when there is no memory.
    CRtMessageChain DuplicateChained() const;
    /// Ends this chain; buffers go when their last duplicate does.
    void DestroyChained();

    /// Readable bytes, and free space, of the whole chain.
    uint64_t GetChainedLength() const;
    uint64_t GetChainedSpace() const;
    /// Moves bytes out of or into the chain and its pointers with them. 0, or 10009 without moving a
    /// byte when the chain holds or takes fewer.
    int Read(void* bytes, uint32_t length);
    int Write(const void* bytes, uint32_t length);
    /// All readable bytes as one string; the pointers stay.
    CRtString FlattenChained() const;

private:
    struct CRtDataBlock;
    explicit CRtMessageBlock(CRtDataBlock* data, char* bytes, uint32_t size);
    ~CRtMessageBlock() = default;

    static constexpr char SOURCE[] = "util/h/RtMessageBlock";

    CRtMessageBlock* m_pNext = nullptr;
    CRtDataBlock* m_pData; // shared by duplicates; null over wrapped bytes
    char* m_pBasePtr;
    char* m_pReadPtr;
    char* m_pWritePtr;
    char* m_pEndPtr;
    uint32_t m_Flag = 0;
};
