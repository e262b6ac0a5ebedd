// CFMBlockOwner: the interface of a block to its file.
#pragma once

#include <cstdint>

#include "IFMFile.h"
#include "RtReferenceControl.h"
#include "fmdiskentry.h"
#include "fmstore.h"

class CFMBlockOwner : public CRtCounted<IFMFile> {
public:
    // --- Caller thread ----------------------------------------------------------------------------
    /// The next free range of the data file.
    virtual void AllocPosition(int64_t& offset, uint32_t length) = 0;
    /// A closed file accepts no writes. Changes under the lock of the stores.
    virtual bool IsClosed() const = 0;
    /// The identifier and the path, for log lines.
    virtual CRtString GetLogName() const = 0;

    // --- Either thread ----------------------------------------------------------------------------
    /// Records that a block may be resident.
    virtual void MarkDataInMemory() = 0;
    /// Records that the description or the table has changed since it was created or saved.
    virtual void MarkInfoChanged() = 0;
    /// Records that a block has to be stored again: the next tick searches for it.
    virtual void MarkStoreFailed() = 0;
    /// The data file; null if there is none, or once the path belongs to another object.
    virtual CDiskFile* GetDiskFile() = 0;
    virtual CFMDiskEntry& GetEntry() = 0;
    virtual CFMStores& GetStores() = 0;
};
