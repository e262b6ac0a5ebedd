// Files that another process holds. On Windows any process, for example a virus scanner, can open a file or a directory
// so that for a while no other process can open or remove it. The functions of RtOs.h that open or remove repeat the
// attempt with increasing delays; a lock of this library is not waited for. POSIX has no such handles: nothing waits
// there, and what this header declares is empty.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace RtOs {

/// The time that a thread waits in this way. It waits no more until there was no such failure for a second:
/// a file that is held for long costs one wait, not one for each operation.
constexpr uint32_t RETRY_MS = 30; ///< by default, and while another thread waits for this one
constexpr uint32_t RETRY_DISK_MS =
    2'000; ///< for a thread that only does disk operations, and for the last attempt

#ifdef _WIN32
/// Changes the limit of the current thread.
class RetryLimit {
public:
    explicit RetryLimit(uint32_t milliseconds) : RetryLimit(milliseconds, nullptr, {}, nullptr) {}
    /// While `isLast`, which is called before each delay, the bytes of a file are lost if the operation fails. The file
    /// has its own limit, of which `spent` has been used, and other threads have to wait. `onHeldUp` is called with
    /// true once the delays of the file have taken RETRY_MS, and with false after the operation.
    RetryLimit(uint32_t milliseconds, std::chrono::nanoseconds* spent, std::function<bool()> isLast,
               void (*onHeldUp)(bool isHeldUp));
    ~RetryLimit();
    RetryLimit(const RetryLimit&) = delete;
    RetryLimit& operator=(const RetryLimit&) = delete;
    static void Set(uint32_t milliseconds);

private:
    friend class Delays;
    const uint32_t m_previousLimit;
    const RetryLimit* const m_previous;
    std::chrono::nanoseconds* const m_spent;
    const std::function<bool()> m_isLast;
    void (*const m_onHeldUp)(bool);
};

/// While an object exists, the current thread waits for a thread that does disk operations, which therefore waits for
/// no other process longer than RETRY_MS, unless `isLast`.
class Awaiting {
public:
    Awaiting();
    ~Awaiting();
    Awaiting(const Awaiting&) = delete;
    Awaiting& operator=(const Awaiting&) = delete;

private:
    const std::chrono::steady_clock::time_point m_begin;
    const long m_delaysBefore;
};

#else
class [[maybe_unused]] RetryLimit {
public:
    explicit RetryLimit(uint32_t) {}
    template <class IsLast>
    RetryLimit(uint32_t, std::chrono::nanoseconds*, const IsLast&, void (*)(bool)) {}
    static void Set(uint32_t) {}
};

class [[maybe_unused]] Awaiting {};
#endif

} // namespace RtOs
