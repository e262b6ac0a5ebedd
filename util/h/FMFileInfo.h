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
    /// Closing the file removes the data file and the information file. If the process ends before that,
    /// housekeeping removes them.
    FM_FILE_TEMPORARY = 1,
    /// Housekeeping does not remove the file, regardless of its age.
    FM_FILE_KEPT = 4,
};

/// The intended limits for the bytes of a cached file and of a block (see IFileManager.h, "Sizes").
///@{
constexpr uint32_t FM_FILE_BYTES_MAX = 1'073'741'824; // 1 GiB
constexpr uint32_t FM_BLOCK_BYTES_MAX = 16'777'216;   // 16 MiB
///@}

/// The description of a cached file. The application passes it to IFileManager::CreateFile, and the
/// information file stores it. A plain value; copies are independent.
struct FMFileInfo {
    uint32_t userValue = 0;          ///< for the application: stored, not interpreted
    FMFileID fileID = FMFileID_None; ///< must not be #FMFileID_None when a file is created
    /// For the application: stored, not interpreted; bytes of any encoding. At most 2010 bytes, because a
    /// load accepts a file body of #FM_INFO_FILE_BODY_MAX bytes and the other fields take 38. A file with a
    /// longer name can be used until it is closed, but not loaded again. If the name has #STRING_LEN_MAX
    /// (32,767) bytes or more, no information file can be written.
    CRtString name;
    uint32_t flag = 0; ///< bits of #FMFileFlag
    /// Identifier of the block in slot 0 of the block table. Use 1 or more: in the information file the
    /// identifier 0 marks an empty slot. A block 0 can be used until the file is closed; a later load does
    /// not find it.
    uint32_t blockBeg = 0;
    /// Number of slots of the block table. IFileManager::CreateFile accepts 1 to 8192; with any other value
    /// the table has 64 slots. IFMFile::GetBlock lets the table grow.
    uint32_t num = 0;

    /// Appends the fields to a chain, or reads them from one, in the format of the information file
    /// (docs/file-format.md).
    /// @param chain the chain. Encoding moves its write pointers, decoding its read pointers.
    /// @retval RT_OK
    /// @retval RT_ERROR_FAILURE encoding: the chain has too little space, or the name has #STRING_LEN_MAX
    ///     bytes or more. Decoding: the chain has too few bytes, or the length of the name is #STRING_LEN_MAX
    ///     or more; the fields are partly changed.
    ///@{
    RT_EXPORT int EncodeFileInfo(CRtMessageBlock& chain) const;
    RT_EXPORT int DecodeFileInfo(CRtMessageBlock& chain);
    ///@}
};
/// @}
