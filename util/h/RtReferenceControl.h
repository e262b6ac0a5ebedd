/// @addtogroup bytes
/// @{
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "RtExport.h"
#include "RtLog.h"

/// The base of all reference-counted interfaces. Thread-safe: the counts are atomic.
class IRtReferenceControl {
public:
    /// AddReference adds one reference. ReleaseReference releases one; when it releases the last one, it
    /// destroys the object on the calling thread.
    /// @returns the new count.
    ///@{
    virtual uint32_t AddReference() = 0;
    virtual uint32_t ReleaseReference() = 0;
    ///@}

protected:
    virtual ~IRtReferenceControl() = default;
};

/// Reference count for a class whose objects are allocated with `new`. The count starts at 0. Thread-safe.
class CRtReferenceControl {
public:
    CRtReferenceControl(const CRtReferenceControl&) = delete;
    CRtReferenceControl& operator=(const CRtReferenceControl&) = delete;

    /// @copydoc IRtReferenceControl::AddReference
    uint32_t AddReference() { return m_count.fetch_add(1, std::memory_order_relaxed) + 1; }
    /// Adds a reference unless the last one has already been released. It serves lists of plain pointers
    /// whose objects remove themselves in their destructor, under the lock of the list. Call it under that
    /// lock.
    /// @returns false if the last reference has been released: the destructor is running and waits for the
    ///     lock.
    bool TryAddReference() {
        uint32_t count = m_count.load(std::memory_order_relaxed);
        while (count != 0) {
            if (m_count.compare_exchange_weak(count, count + 1, std::memory_order_relaxed))
                return true;
        }
        return false;
    }
    /// @copydoc IRtReferenceControl::ReleaseReference
    uint32_t ReleaseReference() {
        const uint32_t left = DropReference();
        if (left == 0)
            delete this;
        return left;
    }

protected:
    CRtReferenceControl() = default;
    virtual ~CRtReferenceControl() = default;
    /// Whether the calling code holds the only reference: then no other thread can add one.
    bool IsLastReference() const { return m_count.load(std::memory_order_acquire) == 1; }
    /// Subtracts one reference without destroying the object.
    uint32_t DropReference() {
        // Acquire and release: everything other holders did is visible to the destructor.
        return m_count.fetch_sub(1, std::memory_order_acq_rel) - 1;
    }

private:
    std::atomic<uint32_t> m_count{0};
};

/// Implements the reference count of an interface. For example, an application implements its nodes as
/// `class Node final : public CRtCounted<ISDUser>`. The count starts at 0.
template <class Interface>
class CRtCounted : public Interface, public CRtReferenceControl {
public:
    /// See IRtReferenceControl.
    ///@{
    uint32_t AddReference() override { return CRtReferenceControl::AddReference(); }
    uint32_t ReleaseReference() override {
        const uint32_t left = DropReference();
        if (left == 0)
            delete this;
        return left;
    }
    ///@}
};

/// Smart pointer to a reference-counted object. It holds one reference, or is null. Dereferencing a null
/// pointer writes an assertion line, then has undefined behaviour.
template <class T>
class CRtComAutoPtr {
public:
    /// Without an argument the pointer is null. With `object`, which may be null, it adds a reference.
    /// Copying adds a reference; moving passes it on.
    ///@{
    CRtComAutoPtr() = default;
    CRtComAutoPtr(T* object) : m_pRawPtr(object) {
        if (m_pRawPtr)
            m_pRawPtr->AddReference();
    }
    CRtComAutoPtr(const CRtComAutoPtr& other) : CRtComAutoPtr(other.m_pRawPtr) {}
    CRtComAutoPtr(CRtComAutoPtr&& other) noexcept
        : m_pRawPtr(std::exchange(other.m_pRawPtr, nullptr)) {}
    ///@}
    ~CRtComAutoPtr() { Reset(); }

    /// Takes the new reference, then releases the old one.
    CRtComAutoPtr& operator=(CRtComAutoPtr other) noexcept {
        std::swap(m_pRawPtr, other.m_pRawPtr);
        return *this;
    }

    /// Returns a pointer that takes over a reference of the caller; no reference is added.
    static CRtComAutoPtr Adopt(T* object) {
        CRtComAutoPtr pointer;
        pointer.m_pRawPtr = object;
        return pointer;
    }
    /// Releases the reference, and returns the null pointer as an out argument that receives a reference:
    /// `manager->CreateFile(file.Receive(), info)`.
    T*& Receive() {
        Reset();
        return m_pRawPtr;
    }
    /// Sets the pointer to null and returns the object. The caller has to release the reference.
    T* Detach() { return std::exchange(m_pRawPtr, nullptr); }
    /// Sets the pointer to null, then releases the reference. In that order, because the destructor of the
    /// object may use this pointer.
    void Reset() {
        if (T* object = Detach())
            object->ReleaseReference();
    }
    /// Access to the object; no reference is added.
    ///@{
    T* Get() const { return m_pRawPtr; }
    explicit operator bool() const { return m_pRawPtr != nullptr; }
    T* operator->() const {
        RT_CHECK("util/h/RtReferenceControl", m_pRawPtr, "m_pRawPtr");
        return m_pRawPtr;
    }
    T& operator*() const {
        RT_CHECK("util/h/RtReferenceControl", m_pRawPtr, "m_pRawPtr");
        return *m_pRawPtr;
    }
    ///@}

private:
    T* m_pRawPtr = nullptr;
};
/// @}
