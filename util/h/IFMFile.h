/// @defgroup file Cached file
/// One cached file and its block table. Call the operations on the caller thread (RtRuntime.h). The reference
/// count is atomic and works on any thread.
/// @{
#pragma once

#include <cstdint>
#include <vector>

#include "FMFileInfo.h"
#include "IFMBlock.h"
#include "RtReferenceControl.h"

class CFMBlock;

/// The block table. Slot i is empty or contains the block with the identifier FMFileInfo::blockBeg + i.
/// CFMBlock is an internal class: use the table only to find out which slots contain a block, and get that
/// block with IFMFile::GetBlock.
using FMBlockTable = std::vector<CRtComAutoPtr<CFMBlock>>;

/// A cached file, returned by IFileManager. IFileManager::DetachFile closes it. The object lives as long as a
/// reference to it or to one of its blocks exists.
class IFMFile : public IRtReferenceControl {
public:
    /// Returns a block.
    /// @param[out] block the block, with one reference for the caller.
    /// @param blockID the identifier of the block.
    /// @param create non-zero: if there is no such block, create an empty one. If the table is too short for
    ///     it, the table first grows by at least 64 slots and as many as the identifier needs.
    /// @retval RT_OK
    /// @retval RT_ERROR_NULL_OBJECT with `create`: out of memory.
    /// @retval RT_ERROR_INVALID_ARG with `create`: `blockID` is below FMFileInfo::blockBeg, or needs a table
    ///     of more than #FM_TABLE_SLOTS_MAX slots.
    /// @retval RT_ERROR_NOT_FOUND without `create`: there is no such block.
    /// @retval RT_ERROR_NOT_READY with `create`: the file has been closed. Closing empties the table, so
    ///     without `create` the result is #RT_ERROR_NOT_FOUND.
    virtual int GetBlock(IFMBlock*& block, uint32_t blockID, int create) = 0;

    /// Removes a block from the table. Its range in the data file becomes unreferenced: after the file has
    /// been closed, a load does not find the block. The space of the range is not reused.
    /// @param blockID the identifier of the block.
    /// @param[out] block the removed block with the reference of the table, which the caller has to release.
    ///     Null if the slot was empty.
    /// @retval RT_OK also if the slot was empty.
    /// @retval RT_ERROR_INVALID_ARG `blockID` is outside the table, or the file has been closed.
    virtual int RemoveBlock(uint32_t blockID, IFMBlock*& block) = 0;

    /// Returns the block table. The C++ reference is valid as long as the file object. Iterators become
    /// invalid when GetBlock creates a block and when the file is closed. Closing empties the table.
    virtual const FMBlockTable& GetBlocks() = 0;

    /// Removes a node from all blocks, for example when it leaves the conference. The call cancels one
    /// request for each block (IFMBlock::CancelRetrieve). If `bRemoveOwner` is not 0, it also removes the
    /// node as owner from each block (IFMBlock::SetOwner with `bOwn` 0).
    ///
    /// Caution, on a server: IFMBlock::SetOwner with `bOwn` 0 subtracts 1 from the block's 16-bit count of
    /// peer-to-peer owners even if the node does not own the block; 0 becomes 65,535. So if the node owns
    /// some blocks only, pass 0 as `bRemoveOwner` and call SetOwner for the blocks that it owns.
    /// @param node the node; null is a no-op with an assertion line in the log.
    /// @param bRemoveOwner non-zero: also remove the node as owner of every block.
    virtual void CancelRetrieve(ISDUser* node, int bRemoveOwner) = 0;

    /// Returns the description. The C++ reference is valid as long as the file object. FMFileInfo::num is the
    /// present number of slots.
    virtual const FMFileInfo& GetFileInfo() = 0;

protected:
    ~IFMFile() override = default;
};
/// @}
