// Repeats attempts that a handle of another process prevents. For windows.cpp only; see RtRetry.h.
#pragma once

#include <cerrno>
#include <chrono>

#include "RtOs.h"

namespace RtOs {

/// Increasing delays between the attempts of one operation.
class Delays {
public:
    Delays() = default;
    ~Delays();
    Delays(const Delays&) = delete;
    Delays& operator=(const Delays&) = delete;
    /// False if the time of the thread is over.
    bool Wait();

private:
    std::chrono::milliseconds m_next{1};
    void (*m_onHeldUp)(bool) = nullptr; // has been called with true
};

/// Repeats an attempt that sets errno while a handle of another process prevents it. A lock of this library is not
/// such a handle: `isLock` tells.
template <class Attempt, class IsLock>
bool Retry(Attempt attempt, IsLock isLock) {
    Delays delays;
    for (;;) {
        if (attempt())
            return true;
        const int error = errno;
        const bool isOver = !IsInUse(error) || isLock() || !delays.Wait();
        errno = error;
        if (isOver)
            return false;
    }
}

} // namespace RtOs
