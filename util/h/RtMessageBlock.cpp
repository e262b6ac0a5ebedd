#include "RtMessageBlock.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "os/RtOs.h"

// The header of a shared buffer. One allocation holds the header, the block it was created with, room for a
// second block, and the bytes; it lives until the last block over the buffer is destroyed. Most buffers have
// one duplicate at a time, for a store or for a reader: that one is made in the room.
struct CRtMessageBlock::CRtDataBlock {
    /// The number of blocks over the buffer, plus ROOM_TAKEN while the room holds one of them.
    std::atomic<uint32_t> references{1};
    static constexpr uint32_t ROOM_TAKEN = uint32_t{1} << 31;
    const bool isPages; // of RtOs::AllocatePages

    static constexpr size_t FIRST_AT = 8;
    static constexpr size_t ROOM_AT = FIRST_AT + sizeof(CRtMessageBlock);
    static constexpr size_t BYTES_AT = ROOM_AT + sizeof(CRtMessageBlock);
    // Processors and kernels copy a large buffer several times faster if it starts at a cache line.
    static constexpr size_t CACHE_LINE = 64;
    static constexpr uint32_t LARGE = 4096;
    // The system allocates address space in units of 64 KiB, so that a smaller buffer would waste more than a quarter.
    static constexpr size_t PAGES = size_t{256} << 10;

    explicit CRtDataBlock(bool inPages) : isPages(inPages) {}

    void* PlaceOfFirst() { return reinterpret_cast<char*>(this) + FIRST_AT; }
    void* Room() { return reinterpret_cast<char*>(this) + ROOM_AT; }
    /// Memory for one more block, which is counted; null if the allocation failed.
    void* AddBlock() {
        uint32_t before = references.load(std::memory_order_relaxed);
        while ((before & ROOM_TAKEN) == 0) {
            if (references.compare_exchange_weak(before, (before + 1) | ROOM_TAKEN,
                                                 std::memory_order_acquire,
                                                 std::memory_order_relaxed))
                return Room();
        }
        void* const place = ::operator new(sizeof(CRtMessageBlock), std::nothrow);
        if (place)
            references.fetch_add(1, std::memory_order_relaxed);
        return place;
    }
    /// Destroys a block over this buffer, and with the last one the buffer.
    void RemoveBlock(CRtMessageBlock* block) {
        const uint32_t share = block == Room() ? ROOM_TAKEN + 1 : 1;
        if (block == Room() || block == PlaceOfFirst())
            block->~CRtMessageBlock();
        else
            delete block;
        if (references.fetch_sub(share, std::memory_order_acq_rel) == share) {
            const bool wasPages = isPages;
            this->~CRtDataBlock();
            if (wasPages)
                RtOs::FreePages(this);
            else
                ::operator delete(this);
        }
    }
};

void CRtDestroyChained::operator()(CRtMessageBlock* chain) const { chain->DestroyChained(); }

CRtMessageBlock::CRtMessageBlock(CRtDataBlock* data, char* bytes, uint32_t size)
    : m_pData(data), m_pBasePtr(bytes), m_pReadPtr(bytes), m_pWritePtr(bytes),
      m_pEndPtr(bytes + size) {}

CRtMessageChain CRtMessageBlock::Create(uint32_t size) {
    static_assert(sizeof(CRtDataBlock) <= CRtDataBlock::FIRST_AT &&
                  CRtDataBlock::FIRST_AT % alignof(CRtMessageBlock) == 0);
    const size_t slack = size >= CRtDataBlock::LARGE ? CRtDataBlock::CACHE_LINE - 1 : 0;
    if (size > SIZE_MAX - CRtDataBlock::BYTES_AT - slack)
        return nullptr;
    size_t space = slack + size;
    const size_t total = CRtDataBlock::BYTES_AT + space;
    void* memory = size >= CRtDataBlock::PAGES ? RtOs::AllocatePages(total) : nullptr;
    const bool isPages = memory != nullptr;
    if (!memory)
        memory = ::operator new(total, std::nothrow);
    if (!memory)
        return nullptr;
    void* bytes = static_cast<char*>(memory) + CRtDataBlock::BYTES_AT;
    if (slack > 0)
        std::align(CRtDataBlock::CACHE_LINE, size, bytes, space);
    auto* const data = new (memory) CRtDataBlock(isPages);
    return CRtMessageChain(new (data->PlaceOfFirst())
                               CRtMessageBlock(data, static_cast<char*>(bytes), size));
}

CRtMessageChain CRtMessageBlock::Wrap(const char* bytes, uint32_t length) {
    // The block has no space, so nothing writes through this pointer.
    CRtMessageChain block(new CRtMessageBlock(nullptr, const_cast<char*>(bytes), length));
    block->m_pWritePtr = block->m_pEndPtr;
    return block;
}

CRtMessageChain CRtMessageBlock::CreateCopy(const char* bytes, uint32_t length) {
    CRtMessageChain block = Create(length);
    if (block)
        block->Write(bytes, length);
    return block;
}

int CRtMessageBlock::SetTopLevelRange(uint32_t readPos, uint32_t length) {
    const auto size = static_cast<uint64_t>(m_pEndPtr - m_pBasePtr);
    if (uint64_t{readPos} + length > size)
        return RT_ERROR_OUT_OF_RANGE;
    m_pReadPtr = m_pBasePtr + readPos;
    m_pWritePtr = m_pReadPtr + length;
    return RT_OK;
}

void CRtMessageBlock::Append(CRtMessageChain chain) {
    CRtMessageBlock* last = this;
    while (last->m_pNext)
        last = last->m_pNext;
    last->m_pNext = chain.release();
}

CRtMessageChain CRtMessageBlock::DuplicateChained() const {
    CRtMessageChain first;
    CRtMessageBlock** link = nullptr;
    for (const CRtMessageBlock* block = this; block; block = block->m_pNext) {
        const auto size = static_cast<uint32_t>(block->m_pEndPtr - block->m_pBasePtr);
        void* const place = block->m_pData ? block->m_pData->AddBlock()
                                           : ::operator new(sizeof(CRtMessageBlock), std::nothrow);
        if (!place)
            return nullptr;
        auto* copy = new (place) CRtMessageBlock(block->m_pData, block->m_pBasePtr, size);
        copy->m_pReadPtr = block->m_pReadPtr;
        copy->m_pWritePtr = block->m_pWritePtr;
        copy->m_Flag = block->m_Flag;
        if (link)
            *link = copy;
        else
            first.reset(copy);
        link = &copy->m_pNext;
    }
    return first;
}

void CRtMessageBlock::DestroyChained() {
    CRtMessageBlock* block = this;
    while (block) {
        CRtMessageBlock* const next = block->m_pNext;
        if (block->m_pData)
            block->m_pData->RemoveBlock(block);
        else
            delete block;
        block = next;
    }
}

uint64_t CRtMessageBlock::GetChainedLength() const {
    uint64_t length = 0;
    for (const CRtMessageBlock* block = this; block; block = block->m_pNext)
        length += block->GetTopLevelLength();
    return length;
}

uint64_t CRtMessageBlock::GetChainedSpace() const {
    uint64_t space = 0;
    for (const CRtMessageBlock* block = this; block; block = block->m_pNext)
        space += block->GetTopLevelSpace();
    return space;
}

int CRtMessageBlock::Read(void* bytes, uint32_t length) {
    if (GetChainedLength() < length)
        return RT_ERROR_OUT_OF_RANGE;
    char* to = static_cast<char*>(bytes);
    for (CRtMessageBlock* block = this; length > 0; block = block->m_pNext) {
        const uint32_t part = std::min(length, block->GetTopLevelLength());
        std::memcpy(to, block->m_pReadPtr, part);
        block->m_pReadPtr += part;
        to += part;
        length -= part;
    }
    return RT_OK;
}

int CRtMessageBlock::Write(const void* bytes, uint32_t length) {
    if (GetChainedSpace() < length)
        return RT_ERROR_OUT_OF_RANGE;
    const char* from = static_cast<const char*>(bytes);
    for (CRtMessageBlock* block = this; length > 0; block = block->m_pNext) {
        const uint32_t part = std::min(length, block->GetTopLevelSpace());
        std::memcpy(block->m_pWritePtr, from, part);
        block->m_pWritePtr += part;
        from += part;
        length -= part;
    }
    return RT_OK;
}

CRtString CRtMessageBlock::FlattenChained() const {
    std::string bytes;
    for (const CRtMessageBlock* block = this; block; block = block->m_pNext)
        bytes.append(block->m_pReadPtr, block->GetTopLevelLength());
    return CRtString(std::move(bytes));
}
