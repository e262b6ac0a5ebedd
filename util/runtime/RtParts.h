// Work that several threads can do at once: whoever has nothing else to do takes parts of it. Private to
// the library.
#pragma once

#include <cstdint>

class CRtSendTicket;

/// Work over 0 … length - 1 that can be done in parts, at the same time and in any order.
class IRtParts {
public:
    /// On any thread that takes part; runs no events and shares no work of its own. Without `mayWait` the
    /// thread must not be kept, by a disk perhaps: what cannot be done at once is answered with false, and
    /// asked for once more where waiting is meant.
    virtual bool RunPart(uint32_t begin, uint32_t end, bool mayWait) noexcept = 0;

protected:
    ~IRtParts() = default;
};

/// Returns when all of it is done. Parts of `partLength` are offered to the thread that waits for the
/// event that calls this, if one does: it would not come back before the last part has ended anyway. They
/// are offered, to be done without waiting, also to a thread that looks for events to run.
void RtRunParts(IRtParts& parts, uint32_t length, uint32_t partLength);

/// What is offered at this moment, for threads that have nothing to do.
namespace RtOffer {

/// Whether there is a part for a thread that must not be kept, or for the one that waits with a ticket.
/// Only a hint.
bool IsOpen();
bool IsOpenFor(const CRtSendTicket* ticket);
/// Does a part, if there still is one. `ticket`: what the thread waits with, or null.
void TakePart(const CRtSendTicket* ticket);

} // namespace RtOffer
