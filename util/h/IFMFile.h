// IFMFile: one cached file that is open.
//
// Every operation belongs on thread number 3, except AddReference and ReleaseReference.
#pragma once

#include <cstdint>
#include <vector>

#include "FMFileInfo.h"
#include "IFMBlock.h"
#include "RtReferenceControl.h"

class CFMBlock;

/// The block table: slot i stands for the block whose identifier is FMFileInfo::blockBeg + i. Callers
/// see which slots are taken, and reach the block itself with GetBlock.
using FMBlockTable = std::vector<CRtComAutoPtr<CFMBlock>>;

class IFMFile : public IRtReferenceControl {
public:
    /// Hands out a block with a reference for the caller. With `create` non-zero a missing one is made,
    /// and the table grows as far as needed.
    /// 0; 10007 the block could not be made; 10008 with create: an identifier below blockBeg, or one that
    /// needs a table of more than 1,048,576 slots; 10011 no such block and none to be made; 10015 with
    /// create: the file has been closed.
    virtual int GetBlock(IFMBlock*& block, uint32_t blockID, int create) = 0;
    /// Takes a block out of the table; the table's reference passes to the caller. `block` is null for
    /// an empty slot. Its bytes are not found again when the file is opened later.
    /// 0; 10008 an identifier outside the table.
    virtual int RemoveBlock(uint32_t blockID, IFMBlock*& block) = 0;
    /// Good until the file is closed or the table grows.
    virtual const FMBlockTable& GetBlocks() = 0;
    /// Drops a request of the node on every block; with `bRemoveOwner` also the node as owner, as
    /// SetOwner with 0 does on each block. On a server that lowers the count of owners that peers can
    /// be sent to also on blocks that the node does not own, so that GetRetrieveType names peers there:
    /// for a node that owns some blocks only, call SetOwner on those. A null node changes nothing.
    virtual void CancelRetrieve(ISDUser* node, int bRemoveOwner) = 0;
    virtual const FMFileInfo& GetFileInfo() = 0;

protected:
    ~IFMFile() override = default;
};
