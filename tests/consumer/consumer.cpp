#include <IFileManager.h>
#include <RtRuntime.h>

#include <cstdio>

// Prints the identifier of a file that it closed; its information file is still queued when main returns.
static void StoreAndLetGo() {
    IFileManager* manager = IFileManager::Instance();
    manager->Initialize("cache", 7, 1);
    FMFileInfo info;
    CoCreateFMFileID(info.fileID);
    info.blockBeg = 1;
    {
        CRtComAutoPtr<IFMFile> file;
        CRtComAutoPtr<IFMBlock> block;
        manager->CreateFile(file.Receive(), info);
        manager->AttachFile(info.fileID);
        file->GetBlock(block.Receive(), 1, 1);
        block->WriteData(5, 0, CRtMessageBlock::Wrap("hello", 5).get());
    }
    manager->DetachFile(info.fileID);
    std::puts(FMFileIDToString(info.fileID).c_str());
}

int main() { return RtRunOnCallerThread(&StoreAndLetGo, true); }
