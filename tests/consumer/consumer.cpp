#include <IFileManager.h>
#include <RtRuntime.h>
#include <cstdio>
#include <cstring>

int main() {
    FMFileID id;
    CoCreateFMFileID(id);
    const auto text = FMFileIDToString(id);
    std::puts(text.c_str());
    return std::strlen(text.c_str()) == 38 ? 0 : 1;
}
