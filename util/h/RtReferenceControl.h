// Counted objects: the interface, the base that counts, and the pointer that holds a reference.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "RtExport.h"
#include "RtLog.h"

/// What every counted interface begins with. Any thread; the counts change atomically.
class IRtReferenceControl {
public:
    /// Both answer the new count. The release that brings it to 0 destroys the object.
    virtual uint32_t AddReference() = 0;
    virtual uint32_t ReleaseReference() = 0;

protected:
    virtual ~IRtReferenceControl() = default;
};

/// Counts for a class that is made with new. The count starts at 0: the first holder's reference is the
/// first.
class CRtReferenceControl {
public:
    CRtReferenceControl(const CRtReferenceControl&) = delete;
    CRtReferenceControl& operator=(const CRtReferenceControl&) = delete;

    uint32_t AddReference() { return m_count.fetch_add(1, std::memory_order_relaxed) + 1; }
    /// For a holder of a plain pointer that is told, under a lock, before the object goes: false when the
    /// last reference is gone already and the destruction cannot be stopped.
    bool TryAddReference() {
        uint32_t count = m_count.load(std::memory_order_relaxed);
        while (count != 0) {
            if (m_count.compare_exchange_weak(count, count + 1, std::memory_order_relaxed))
                return true;
        }
        return false;
    }
    uint32_t ReleaseReference() {
        const uint32_t left = DropReference();
        if (left == 0)
            delete this;
        return left;
    }

protected:
    CRtReferenceControl() = default;
    virtual ~CRtReferenceControl() = default;
    uint32_t DropReference() {
        // What every holder did happens before the destruction.
        return m_count.fetch_sub(1, std::memory_order_acq_rel) - 1;
    }

private:
    std::atomic<uint32_t> m_count{0};
};

/// The base of a class that implements a counted interface, for instance an application's ISDUser:
/// class CNode final : public CRtCounted<ISDUser> needs nothing else for its count.
template <class Interface>
class CRtCounted : public Interface, public CRtReferenceControl {
public:
    uint32_t AddReference() override { return CRtReferenceControl::AddReference(); }
    uint32_t ReleaseReference() override {
        const uint32_t left = DropReference();
        if (left == 0)
            delete this;
        return left;
    }
};

/// Holds one reference on a counted object, or none.
template <class T>
class CRtComAutoPtr {
public:
    CRtComAutoPtr() = default;
    CRtComAutoPtr(T* object) : m_pRawPtr(object) {
        if (m_pRawPtr)
            m_pRawPtr->AddReference();
    }
    CRtComAutoPtr(const CRtComAutoPtr& other) : CRtComAutoPtr(other.m_pRawPtr) {}
    CRtComAutoPtr(CRtComAutoPtr&& other) noexcept
        : m_pRawPtr(std::exchange(other.m_pRawPtr, nullptr)) {}
    ~CRtComAutoPtr() { Reset(); }

    CRtComAutoPtr& operator=(CRtComAutoPtr other) noexcept {
        std::swap(m_pRawPtr, other.m_pRawPtr);
        return *this;
    }

    /// Takes over a reference that the caller holds, as out arguments hand one out.
    static CRtComAutoPtr Adopt(T* object) {
        CRtComAutoPtr pointer;
        pointer.m_pRawPtr = object;
        return pointer;
    }
    /// For an out argument, which hands over a reference: what was held is released first.
    T*& Receive() {
        Reset();
        return m_pRawPtr;
    }
    /// Empties the pointer without releasing: the reference passes to the caller.
    T* Detach() { return std::exchange(m_pRawPtr, nullptr); }
    /// Emptied before the release, which may run code that looks at this pointer.
    void Reset() {
        if (T* object = Detach())
            object->ReleaseReference();
    }
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

private:
    T* m_pRawPtr = nullptr;
};
