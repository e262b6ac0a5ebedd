/// @defgroup file Cached file
/// One open file and its block table. Caller thread only, except the reference count.
/// @{
#pragma once

#include <cstdint>
#include <vector>

#include "FMFileInfo.h"
#include "IFMBlock.h"
#include "RtReferenceControl.h"

class CFMBlock;

/// The block table. Slot i is empty or holds the block with the identifier FMFileInfo::blockBeg + i.
/// CFMBlock is internal: test a slot for a block here, and get the block with IFMFile::GetBlock.
using FMBlockTable = std::vector<CRtComAutoPtr<CFMBlock>>;

/// A cached file that is open. IFileManager hands it out; IFileManager::DetachFile closes it.
class IFMFile : public IRtReferenceControl {
public:
    /// Returns a block.
    /// @param[out] block the block, with one reference for the caller.
    /// @param blockID the identifier of the block.
    /// @param create non-zero: if there is no such block, create an empty one. If the table is too short, it
    ///     grows by at least 64 slots.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT with `create`: out of memory.
    /// @retval RT_ERROR_INVALID_ARG with `create`: `blockID` is below FMFileInfo::blockBeg, or needs a table
    ///     of more than #FM_TABLE_SLOTS_MAX slots.
    /// @retval RT_ERROR_NOT_FOUND without `create`: there is no such block.
    /// @retval RT_ERROR_NOT_READY with `create`: the file has been closed.
    virtual int GetBlock(IFMBlock*& block, uint32_t blockID, int create) = 0;

    /// Takes a block out of the table. The bytes in the data file become unreferenced: a later load of the
    /// file does not find the block. Its space is not reused.
    /// @param blockID the identifier of the block.
    /// @param[out] block the removed block; the caller takes over the table's reference. Null if the slot
    ///     was empty.
    /// @retval RT_OK also if the slot was empty.
    /// @retval RT_ERROR_INVALID_ARG `blockID` is outside the table, or the file has been closed.
    virtual int RemoveBlock(uint32_t blockID, IFMBlock*& block) = 0;

    /// Returns the block table. The reference lives as long as the file. Iterators become invalid when
    /// GetBlock creates a block and when the file is closed; closing empties the table.
    virtual const FMBlockTable& GetBlocks() = 0;

    /// Removes a node from all blocks, for example when it leaves the conference: one request for each
    /// block (IFMBlock::CancelRetrieve), and with `bRemoveOwner` also the node as owner
    /// (IFMBlock::SetOwner with 0).
    ///
    /// Caution, on a server: SetOwner with 0 lowers a block's count of peer-to-peer owners even if the node
    /// does not own that block, and the count wraps below 0. If the node owns some blocks only, pass 0 and
    /// call SetOwner for those blocks.
    /// @param node the node; null is a no-op with an assertion line in the log.
    /// @param bRemoveOwner non-zero: also remove the node as owner.
    virtual void CancelRetrieve(ISDUser* node, int bRemoveOwner) = 0;

    /// Returns the description. The reference lives as long as the file; `num` follows the table's size.
    virtual const FMFileInfo& GetFileInfo() = 0;

protected:
    ~IFMFile() override = default;
};
/// @}
