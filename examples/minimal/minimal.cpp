// Stores one block in a cache, reads it back and prints it.
#include <FMManagerGuard.h>
#include <IFileManager.h>
#include <RtRuntime.h>

#include <cstdio>

// Returns RT_OK, or the result code of the first operation that fails (RtResult.h lists the codes).
static int StoreAndReadBack(IFileManager& manager) {
    // A cached file is a table of blocks under a unique identifier. The first block has number 1.
    FMFileInfo info;
    CoCreateFMFileID(info.fileID);
    info.name = "greeting";
    info.blockBeg = 1;

    CRtComAutoPtr<IFMFile> file; // releases its reference at the end of the scope
    if (const int result = manager.CreateFile(file.Receive(), info); RT_FAILED(result))
        return result;

    CRtComAutoPtr<IFMBlock> block;
    constexpr int CREATE = 1; // add block 1 to the table if it is missing
    if (const int result = file->GetBlock(block.Receive(), 1, CREATE); RT_FAILED(result))
        return result;

    // A block arrives in pieces. Each call passes the length of the block and the position of the piece.
    // The second piece completes the block, so the library's read/write thread stores it on disk.
    const CRtMessageChain hello = CRtMessageBlock::Wrap("Hello, ", 7);
    const CRtMessageChain cache = CRtMessageBlock::Wrap("cache!", 6);
    constexpr uint32_t LENGTH = 7 + 6;
    if (const int result = block->WriteData(LENGTH, 0, hello.get()); RT_FAILED(result))
        return result;
    if (const int result = block->WriteData(LENGTH, 7, cache.get()); RT_FAILED(result))
        return result;

    // Reading copies nothing: `bytes` is a view of the block's memory.
    CRtMessageChain bytes;
    if (const int result = block->ReadData(0, LENGTH, RtReceive(bytes)); RT_FAILED(result))
        return result;
    std::printf("read back: %s\n", bytes->FlattenChained().c_str());
    return RT_OK;
}

int main() {
    // Makes this thread the caller thread, the only one that may use the file manager.
    const CRtCallerThread callerThread;

    // Its destructor closes the open files and writes them. FMFlush tells earlier what could not be written.
    constexpr int SERVER = 1;
    const FMManagerGuard manager("./example-cache", 7,
                                 SERVER); // clearDays 7: files are removed from day 9 on
    if (!callerThread.IsValid() || !manager.IsValid()) {
        std::fprintf(stderr, "minimal: cannot start the file manager\n");
        return 1;
    }

    const int result = StoreAndReadBack(*manager);
    if (RT_FAILED(result))
        std::fprintf(stderr, "minimal: the cache returned %s\n", RtResultName(result));
    return RT_FAILED(result) ? 1 : 0;
}
