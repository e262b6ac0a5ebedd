// The file manager: the one header that a caller includes, together with RtRuntime.h.
//
// It keeps the files exchanged between the nodes of a conference in a local cache. A file is named by a
// 128-bit identifier and cut into blocks, each named by a 32-bit number. The caller writes a block in
// pieces as they arrive and reads it back in memory or from disk.
//
// Caveats first:
//  - Every operation belongs on thread number 3 (RtRuntime.h says how to have it), and every completion
//    comes there. IFileManager::Instance alone may be called from any thread.
//  - Objects handed out through an out argument carry one reference for the receiver, who gives it back
//    with ReleaseReference.
//  - A file stays open until as many DetachFile as AttachFile calls were made; the last one closes it.
//    What changed is on disk when the queues have run, at the latest when UnInitialize returns.
//  - Only UnInitialize brings files that are still open to disk. Call it before the process ends.
//  - Nothing is thrown. Want of memory for a block's bytes or for an object is a result; for something
//    smaller it ends the process by std::terminate. docs/reliability.md says what is left then.
//  - A cached file ends at 1 GiB and a block at 16 MiB: the library writes log lines beyond that.
//
// Result codes (RtResult.h): 0 success, 10001 failed, 10004 not supported, 10006 input/output error,
// 10007 object missing, 10008 invalid argument, 10011 not found, 10015 not in the required state.
#pragma once

#include <cstdint>

#include "FMFileID.h"
#include "FMFileInfo.h"
#include "FMInfoCodec.h"
#include "IFMBlock.h"
#include "IFMFile.h"
#include "ISDUser.h"
#include "RtExport.h"
#include "RtMessageBlock.h"
#include "RtResult.h"
#include "RtString.h"

class RT_EXPORT IFileManager {
public:
    /// The manager of this process, made at the first call; null when it could not be made. It lives
    /// until the end of the process.
    static IFileManager* Instance();

    /// Starts the manager. A second call before UnInitialize changes nothing.
    /// `dataDir`: the directory for the cache, blanks at both ends left out; empty stands for a default
    /// of the system's. A client keeps its files in "confcache" and a directory named after its process
    /// id there, a server in "sdstore", which all server processes on that directory share. The first
    /// call in a process fixes the directory for good; a relative one is looked up anew at every use, so
    /// that a process that changes its directory should give an absolute one. On POSIX a backslash
    /// separates like a slash.
    /// `clearDays`: the age in days up to which a server keeps files; 0 clears the cache now and at
    /// UnInitialize. `isServer`: non-zero for a server.
    /// Always 0: a directory that cannot be made shows when a block is stored or a file is loaded.
    virtual int Initialize(const CRtString& dataDir, uint16_t clearDays, int isServer) = 0;

    /// Closes every open file, runs what is queued for the disk, and stops. When it returns, blocks and
    /// information files are on disk. A disk that does not answer is waited for, and the log says so.
    /// Does nothing before Initialize.
    virtual void UnInitialize() = 0;

    /// Opens a new file. Nothing is made on disk before its first block is complete; what an earlier
    /// file of that identifier left there is removed then. One that is open under the identifier is
    /// displaced: it is no longer found, is not closed, and can use its data file no more. While another
    /// process has a file of that identifier open, the blocks of this one stay in memory.
    /// 0; 10007 the file could not be made; 10008 `fileInfo.fileID` is FMFileID_None.
    virtual int CreateFile(IFMFile*& file, const FMFileInfo& fileInfo) = 0;

    /// Finds an open file, or with `load` non-zero opens it from the cache on disk.
    /// 0; 10008 FMFileID_None; 10011 not open, and not to be loaded, not loadable, or open in another
    /// process (the log says why).
    virtual int OpenFile(IFMFile*& file, const FMFileID& fileHandle, int load) = 0;

    /// As IFMFile::GetBlock on an open file; never loads one.
    /// The file's results; 10008 FMFileID_None; 10011 not open.
    virtual int GetBlock(IFMBlock*& block, const FMFileID& fileHandle, uint32_t blockID,
                         int create) = 0;

    /// Counts a use of an open file, and takes one back; the last DetachFile closes the file. A file
    /// that was never attached is closed by the first DetachFile.
    /// 0; 10008 FMFileID_None; 10011 not open.
    virtual int AttachFile(const FMFileID& fileHandle) = 0;
    virtual int DetachFile(const FMFileID& fileHandle) = 0;

protected:
    virtual ~IFileManager();
};
