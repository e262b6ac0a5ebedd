#include <IFileManager.h>
#include <RtRuntime.h>

int main() {
    const CRtCallerThread three; // this thread becomes number 3, where every call belongs
    IFileManager* manager = IFileManager::Instance();
    manager->Initialize("./example-cache", 7, 1); // as a server that keeps files for a week
    FMFileInfo info;
    CoCreateFMFileID(info.fileID);
    info.blockBeg = 1;
    CRtComAutoPtr<IFMFile> file;
    CRtComAutoPtr<IFMBlock> block;
    const bool made = manager->CreateFile(file.Receive(), info) == 0 &&
                      file->GetBlock(block.Receive(), 1, 1) == 0 && // block 1, to be created
                      block->WriteData(5, 0, CRtMessageBlock::Wrap("hello", 5).get()) == 0;
    manager->UnInitialize(); // closes what is open; everything is on disk when it returns
    return made ? 0 : 1;
}
