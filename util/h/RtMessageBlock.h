/// @defgroup bytes Bytes and references
/// Message chains, the byte stream, and reference-counted objects.
/// @{
#pragma once

#include <cstdint>
#include <memory>

#include "RtExport.h"
#include "RtLog.h"
#include "RtResult.h"
#include "RtString.h"

class CRtMessageBlock;

/// Deleter of CRtMessageChain.
struct CRtDestroyChained {
    /// Calls CRtMessageBlock::DestroyChained.
    RT_EXPORT void operator()(CRtMessageBlock* chain) const;
};
/// Owns a chain, or is empty.
using CRtMessageChain = std::unique_ptr<CRtMessageBlock, CRtDestroyChained>;

/// Receives a chain from an out argument: `block->ReadData(0, length, RtReceive(chain))`. The chain is set
/// at the end of that statement.
class RtReceive {
public:
    /// @param chain receives the chain; what it owned before is destroyed.
    explicit RtReceive(CRtMessageChain& chain) : m_chain(chain) {}
    ~RtReceive() { m_chain.reset(m_pRaw); }
    RtReceive(const RtReceive&) = delete;
    RtReceive& operator=(const RtReceive&) = delete;
    /// The out argument.
    operator CRtMessageBlock*&() { return m_pRaw; }

private:
    CRtMessageChain& m_chain;
    CRtMessageBlock* m_pRaw = nullptr;
};

/// A buffer of bytes, or a chain of them.
///
/// Each block has a read pointer, a write pointer and an end: the bytes between the first two can be read,
/// the space up to the end can be written. Duplicates share the buffer and have pointers of their own, so a
/// duplicate copies no bytes.
///
/// Ownership: Create, Wrap, CreateCopy and DuplicateChained return a chain; DestroyChained ends it, once.
/// CRtMessageChain does so in its destructor.
///
/// Threads: one thread at a time for each block. Duplicates of one buffer may be used on different threads
/// once its bytes are no longer written.
class CRtMessageBlock {
public:
    /// Lock flags (LockReading, LockWriting).
    enum : uint32_t {
        READ_LOCKED = 1, ///< reading is locked
        WRITE_LOCKED = 2 ///< writing is locked
    };

    /// Allocates an empty block with space for `size` bytes, uninitialised. Null if out of memory.
    RT_EXPORT static CRtMessageChain Create(uint32_t size);
    /// Makes a block over `length` bytes of the caller, without copying them and without space to write.
    /// The bytes must stay valid and unchanged as long as the block or a duplicate exists. Throws
    /// std::bad_alloc if the block itself cannot be allocated.
    RT_EXPORT static CRtMessageChain Wrap(const char* bytes, uint32_t length);
    /// Allocates a block with a copy of `length` bytes. Null if out of memory.
    RT_EXPORT static CRtMessageChain CreateCopy(const char* bytes, uint32_t length);

    CRtMessageBlock(const CRtMessageBlock&) = delete;
    CRtMessageBlock& operator=(const CRtMessageBlock&) = delete;

    /// Readable bytes, and free space in bytes, of this block alone.
    ///@{
    uint32_t GetTopLevelLength() const { return static_cast<uint32_t>(m_pWritePtr - m_pReadPtr); }
    uint32_t GetTopLevelSpace() const { return static_cast<uint32_t>(m_pEndPtr - m_pWritePtr); }
    ///@}
    /// The read and the write pointer. If the block is locked that way, an assertion line is written; the
    /// pointer is returned all the same.
    ///@{
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
    ///@}
    /// Set and clear the locks of this block. A lock prevents nothing: it makes wrong uses visible in the log.
    ///@{
    void LockReading() { m_Flag |= READ_LOCKED; }
    void UnlockReading() { m_Flag &= ~uint32_t{READ_LOCKED}; }
    void LockWriting() { m_Flag |= WRITE_LOCKED; }
    void UnlockWriting() { m_Flag &= ~uint32_t{WRITE_LOCKED}; }
    ///@}

    /// Move a pointer of this block forward.
    /// @param aStep number of bytes.
    /// @retval RT_OK
    /// @retval RT_ERROR_OUT_OF_RANGE the step is longer than the readable bytes or than the free space. The
    ///     pointer does not move; an assertion line is written.
    ///@{
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
    ///@}
    /// Sets both pointers of this block so that exactly a range of its buffer is readable.
    /// @param readPos start of the range in bytes from the start of the buffer.
    /// @param length length of the range in bytes.
    /// @retval RT_OK
    /// @retval RT_ERROR_OUT_OF_RANGE the range is not inside the buffer. The pointers do not move.
    RT_EXPORT int SetTopLevelRange(uint32_t readPos, uint32_t length);

    /// The next block of the chain, or null. The chain owns it.
    CRtMessageBlock* GetNext() const { return m_pNext; }
    /// Adds a chain at the end of this one, and passes it to this one's owner.
    RT_EXPORT void Append(CRtMessageChain chain);

    /// Makes a chain over the same buffers, with the same pointers and locks. Null if out of memory.
    RT_EXPORT CRtMessageChain DuplicateChained() const;
    /// Destroys this chain. A buffer is released with its last duplicate. Call it on the first block only.
    RT_EXPORT void DestroyChained();

    /// Readable bytes, and free space in bytes, of the whole chain.
    ///@{
    RT_EXPORT uint64_t GetChainedLength() const;
    RT_EXPORT uint64_t GetChainedSpace() const;
    ///@}
    /// Copy `length` bytes out of or into the chain, and move its pointers.
    /// @retval RT_OK
    /// @retval RT_ERROR_OUT_OF_RANGE the chain has fewer readable bytes, or less space. Nothing is copied.
    ///@{
    RT_EXPORT int Read(void* bytes, uint32_t length);
    RT_EXPORT int Write(const void* bytes, uint32_t length);
    ///@}
    /// Returns a copy of all readable bytes. The pointers do not move.
    RT_EXPORT CRtString FlattenChained() const;

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
/// @}
