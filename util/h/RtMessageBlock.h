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

/// Passes a CRtMessageChain as an out argument of type `CRtMessageBlock*&`:
/// `block->ReadData(0, length, RtReceive(chain))`. `chain` is set at the end of that statement.
class RtReceive {
public:
    /// @param chain set by the destructor; the chain that it owned before is destroyed then.
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
/// A message block is not a block of a cached file (IFMBlock). It has a read pointer, a write pointer and an
/// end. The bytes between the read and the write pointer can be read; the bytes between the write pointer and
/// the end can be written. A duplicate shares the buffer and has its own pointers, so that no bytes are
/// copied.
///
/// Ownership: Create, Wrap, CreateCopy and DuplicateChained return a new chain. It is destroyed once, by
/// DestroyChained or by the destructor of CRtMessageChain.
///
/// Threads: use a message block on one thread at a time. Its duplicates may be used on other threads at the
/// same time if no thread writes into the buffer.
class CRtMessageBlock {
public:
    /// Flags of LockReading and LockWriting.
    enum : uint32_t {
        READ_LOCKED = 1, ///< reading is locked
        WRITE_LOCKED = 2 ///< writing is locked
    };

    /// Allocates a block with space for `size` bytes; none is readable yet. Null if out of memory.
    RT_EXPORT static CRtMessageChain Create(uint32_t size);
    /// Returns a block whose readable bytes are `length` bytes of the caller. They are not copied; the block
    /// has no space to write. The bytes must stay valid and unchanged as long as the block or a duplicate
    /// exists. Throws std::bad_alloc if the block itself cannot be allocated.
    RT_EXPORT static CRtMessageChain Wrap(const char* bytes, uint32_t length);
    /// Returns a block whose readable bytes are a copy of `length` bytes. Null if out of memory.
    RT_EXPORT static CRtMessageChain CreateCopy(const char* bytes, uint32_t length);

    CRtMessageBlock(const CRtMessageBlock&) = delete;
    CRtMessageBlock& operator=(const CRtMessageBlock&) = delete;

    /// Number of readable bytes, and free space in bytes, of this block without the rest of the chain.
    ///@{
    uint32_t GetTopLevelLength() const { return static_cast<uint32_t>(m_pWritePtr - m_pReadPtr); }
    uint32_t GetTopLevelSpace() const { return static_cast<uint32_t>(m_pEndPtr - m_pWritePtr); }
    ///@}
    /// The read pointer and the write pointer. If the block is locked for reading or writing, the call writes
    /// an assertion line to the log and returns the pointer.
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
    /// Set and clear the locks of this block, a debugging aid: a locked block can still be read and written,
    /// but the log shows it. They synchronize no threads.
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
    /// Appends a chain to this one; from then on this chain owns it.
    RT_EXPORT void Append(CRtMessageChain chain);

    /// Returns a new chain that shares the buffers and starts with the same pointers and locks. Null if out
    /// of memory.
    RT_EXPORT CRtMessageChain DuplicateChained() const;
    /// Destroys this chain. The last duplicate of a buffer releases it. Call it on the first block of the
    /// chain only.
    RT_EXPORT void DestroyChained();

    /// Number of readable bytes, and free space in bytes, of the whole chain.
    ///@{
    RT_EXPORT uint64_t GetChainedLength() const;
    RT_EXPORT uint64_t GetChainedSpace() const;
    ///@}
    /// Read copies `length` bytes from the chain and moves its read pointers. Write copies `length` bytes
    /// into the chain and moves its write pointers.
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
