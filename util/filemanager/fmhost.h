// FMHost: the interface of blocks and files to the manager, so that they do not depend on CFileManager.
// Implemented in filemanager.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

#include "FMFileID.h"
#include "RtEvent.h"
#include "RtString.h"
#include "RtTimeValue.h"

class CFMBlock;
class CFMBlockOwner;
class CFMFile;

namespace FMHost {

/// Post or send (`sync` non-zero) an event. It is disposed of in any case. RT_OK or the queue's result;
/// RT_ERROR_NULL_OBJECT: no event; RT_ERROR_NOT_READY: no thread.
int PostToReadwrThread(IRtEvent* event, int sync);
/// Posts a load to the read/write thread: it runs before pending stores. Results as above.
int PostLoad(IRtEvent* event);
/// Sends a load and waits until it has run. RT_ERROR_FAILURE: refused, see RefuseLoads.
int SendLoad(IRtEvent* event);
/// While a store waits for another process, loads that the caller thread would wait for are refused. Read/write thread.
void RefuseLoads(bool isRefusing);
int PostToCallerThread(IRtEvent* event, int sync);
bool IsReadwrThread();
bool HasCallerThread();

/// Bytes of block data in memory. Any thread; the subtraction also after the manager is gone.
void AddMemory(uint32_t length);
void SubtractMemory(uint32_t length);
/// The bytes that wait to be stored have changed. Any thread.
void CheckHighWaterMark();
/// More than twice the limit.
bool IsMemoryFarAboveLimit();

int Random(int max);
/// A new block of this process's kind, without a reference, or null.
CFMBlock* CreateBlock(CFMBlockOwner* file, uint32_t blockID, uint64_t now);

const CRtString& GetDataDir();
void CheckDataDir();
int GetClearDays();

/// The file is being destroyed. Any thread, also after the manager is gone.
void ForgetFile(CFMFile* file, bool isUnsynced);
/// The table of the file could not be written: it stays pending; a later tick or UnInitialize retries it.
void KeepUnsaved(CFMFile* file);
/// The files on that path have to be synced by the next FMSync.
void KeepUnsynced(const FMFileID& pathID);

} // namespace FMHost
