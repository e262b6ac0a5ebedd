// Tests that windows.h can be included before the library's headers; windows_test.cpp includes it after them.
#include <windows.h>
#undef CreateFile // a macro of windows.h

#include <stdio.h>

#include <cstdlib>
#include <stdexcept>
#include <type_traits>

#include "testing/kit.h"

static_assert(std::is_same_v<FMFileID, GUID>);

PROCESS_INFORMATION StartProcess(const std::string& program, std::string line, uint32_t flags) {
    STARTUPINFOA start{};
    start.cb = sizeof(start);
    PROCESS_INFORMATION info{};
    if (!CreateProcessA(program.c_str(), line.data(), nullptr, nullptr, FALSE, flags, nullptr,
                        nullptr, &start, &info))
        throw std::runtime_error("cannot start " + program);
    CloseHandle(info.hThread);
    return info;
}

std::string OwnProgram() {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof(program));
    return program;
}

// Starts this program suspended: it never runs.
IdleProcess::IdleProcess() {
    const PROCESS_INFORMATION info = StartProcess(OwnProgram(), "idle", CREATE_SUSPENDED);
    m_id = info.dwProcessId;
    m_handle = info.hProcess;
}

void IdleProcess::End() {
    if (std::exchange(m_id, 0) == 0)
        return;
    TerminateProcess(m_handle, 1);
    WaitForSingleObject(m_handle, INFINITE);
    CloseHandle(m_handle);
}

const uint32_t SLOWNESS = 25; // usually an emulator
const char NULL_DEVICE[] = "NUL";

void SetVariable(const char* name, const std::string& value) { _putenv_s(name, value.c_str()); }

size_t CountHandles() {
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return count;
}

bool LimitStreams(uint32_t count) {
    return _setmaxstdio(static_cast<int>(count)) == static_cast<int>(count);
}

bool MakeDirectoryLink(const fs::path& target, const fs::path& link) {
    const std::string arguments = " \"" + link.string() + "\" \"" + target.string() + "\"";
    std::system(("mklink /J" + arguments + " >NUL 2>NUL").c_str());
    if (fs::exists(link))
        return true;
    // Wine cannot create junctions, but shows symbolic links of the host system as junctions.
    const auto unixPath = [](const fs::path& path) {
        using Convert = char*(CDECL*)(const wchar_t*);
        const HMODULE kernel = GetModuleHandleA("kernel32.dll");
        const auto convert = reinterpret_cast<Convert>(
            reinterpret_cast<void*>(GetProcAddress(kernel, "wine_get_unix_file_name")));
        return std::string(convert ? convert(path.c_str()) : "");
    };
    const HANDLE linking =
        StartProcess("\\\\?\\unix\\bin\\ln", "ln -s " + unixPath(target) + " " + unixPath(link), 0)
            .hProcess;
    CloseHandle(linking); // cannot wait for a program of the host system
    for (int tenths = 0; !fs::exists(link) && tenths < 100; ++tenths)
        Sleep(100);
    return false;
}
