/// @addtogroup manager
/// @{
#pragma once

#include <cstdint>

#include "FMFileID.h"
#include "RtExport.h"
#include "RtString.h"

class CRtMessageBlock;

/// Bits of FMFileInfo::flag. Other bits are stored and ignored.
enum FMFileFlag : uint32_t {
    /// The data file and the information file are removed when the file is closed.
    FM_FILE_TEMPORARY = 1,
    /// Housekeeping does not remove the file, whatever its age.
    FM_FILE_KEPT = 4,
};

/// The description of a cached file: what its creator passes to IFileManager::CreateFile, and what the
/// information file stores. A plain value; copies are independent.
struct FMFileInfo {
    uint32_t userValue = 0;          ///< for the application; stored, never interpreted
    FMFileID fileID = FMFileID_None; ///< must not be #FMFileID_None when a file is created
    /// For the application, in bytes of any encoding. At most 2010 bytes: a load accepts a description of
    /// #FM_INFO_FILE_BODY_MAX bytes, and the other fields take 38. A file with a longer name can be used but
    /// not loaded again. From 32,767 bytes on (#STRING_LEN_MAX) its description cannot be written.
    CRtString name;
    uint32_t flag = 0; ///< bits of #FMFileFlag
    /// Identifier of the block in slot 0. Use 1 or more: identifier 0 marks an empty slot in the
    /// information file, so a block 0 works until the file is closed and is not found by a later load.
    uint32_t blockBeg = 0;
    /// Slots of the block table. A new file takes 1 to 8192; any other value gives 64 slots. The table
    /// grows as blocks are created.
    uint32_t num = 0;

    /// Appends the fields to a chain, or reads them from one, in the format of the information file
    /// (docs/file-format.md).
    /// @param chain the chain; its pointers move.
    /// @retval RT_OK
    /// @retval RT_ERROR_FAILURE the chain has no space left or ends early, or the name has #STRING_LEN_MAX
    ///     bytes or more. After a failed decoding the fields are partly changed.
    ///@{
    RT_EXPORT int EncodeFileInfo(CRtMessageBlock& chain) const;
    RT_EXPORT int DecodeFileInfo(CRtMessageBlock& chain);
    ///@}
};
/// @}
