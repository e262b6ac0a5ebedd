#include "RtMessageBlock.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

// The count of a shared buffer; the bytes follow it in the same allocation.
struct CRtMessageBlock::CRtDataBlock {
    std::atomic<uint32_t> references{1};

    static CRtDataBlock* Make(uint32_t size, char*& bytes) {
        if (size > SIZE_MAX - sizeof(CRtDataBlock))
            return nullptr;
        void* memory = ::operator new(sizeof(CRtDataBlock) + size, std::nothrow);
        if (!memory)
            return nullptr;
        bytes = static_cast<char*>(memory) + sizeof(CRtDataBlock);
        return new (memory) CRtDataBlock;
    }
    void Release() {
        if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            this->~CRtDataBlock();
            ::operator delete(this);
        }
    }
};

void CRtDestroyChained::operator()(CRtMessageBlock* chain) const { chain->DestroyChained(); }

CRtMessageBlock::CRtMessageBlock(CRtDataBlock* data, char* bytes, uint32_t size)
    : m_pData(data), m_pBasePtr(bytes), m_pReadPtr(bytes), m_pWritePtr(bytes),
      m_pEndPtr(bytes + size) {}

CRtMessageBlock::~CRtMessageBlock() {
    if (m_pData)
        m_pData->Release();
}

CRtMessageChain CRtMessageBlock::Create(uint32_t size) {
    char* bytes = nullptr;
    CRtDataBlock* data = CRtDataBlock::Make(size, bytes);
    if (!data)
        return nullptr;
    auto* block = new (std::nothrow) CRtMessageBlock(data, bytes, size);
    if (!block)
        data->Release();
    return CRtMessageChain(block);
}

CRtMessageChain CRtMessageBlock::Wrap(const char* bytes, uint32_t length) {
    // Nothing writes through this pointer: the block has no space.
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
        auto* copy = new (std::nothrow) CRtMessageBlock(block->m_pData, block->m_pBasePtr, size);
        if (!copy)
            return nullptr;
        if (copy->m_pData)
            copy->m_pData->references.fetch_add(1, std::memory_order_relaxed);
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
        CRtMessageBlock* next = block->m_pNext;
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
    bytes.reserve(static_cast<size_t>(GetChainedLength()));
    for (const CRtMessageBlock* block = this; block; block = block->m_pNext)
        bytes.append(block->m_pReadPtr, block->GetTopLevelLength());
    return CRtString(std::move(bytes));
}
