#include <IFileManager.h>
#include <RtRuntime.h>

#include <cstdio>

// Says which file it has let go, whose information waits to be written when main returns.
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
