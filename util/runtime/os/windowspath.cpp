#include "windowspath.h"

#include "RtOs.h" // before windows.h, which defines macros with names used there

#include <windows.h>

#include <string_view>

namespace {

UINT g_codePage = CP_ACP;

// Empty if the text is no UTF-8: replaced bytes would give two directories one name.
std::wstring Widen(std::string_view text) {
    const DWORD flags = g_codePage == CP_UTF8 ? MB_ERR_INVALID_CHARS : 0;
    const auto length = static_cast<int>(text.size());
    std::wstring wide(text.size(), L'\0'); // never more units than bytes
    wide.resize(static_cast<size_t>(
        ::MultiByteToWideChar(g_codePage, flags, text.data(), length, wide.data(), length)));
    return wide;
}

// The system limits a path to MAX_PATH characters, and that of a directory to 12 fewer, unless it begins with
// this prefix. Then it takes the path as it is: absolute, with backslashes, without "." and "..".
constexpr wchar_t PREFIX[] = L"\\\\?\\";
constexpr wchar_t PREFIX_OF_SHARE[] = L"\\\\?\\UNC";
constexpr size_t SHORT_PATH_MAX = MAX_PATH - 20;

std::wstring WithPrefix(const std::wstring& path) {
    std::wstring full(32'768, L'\0'); // the longest path of the system
    const DWORD length =
        ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length == 0 || length >= full.size())
        return path; // the operation fails, and reports the path
    full.resize(length);
    if (length <= SHORT_PATH_MAX || full.starts_with(PREFIX))
        return path;
    const bool isShare = full.starts_with(L"\\\\");
    return isShare ? PREFIX_OF_SHARE + full.substr(1) : PREFIX + full;
}

} // namespace

namespace RtOs {

void SetUtf8Paths(bool isUtf8) { g_codePage = isUtf8 ? CP_UTF8 : CP_ACP; }

Native::Native(const CRtString& path) : m_path(Widen(path.view())) {
    const bool isAbsolute = m_path.starts_with(L"\\\\") || (m_path.size() > 1 && m_path[1] == L':');
    if (m_path.size() > SHORT_PATH_MAX || !isAbsolute)
        m_path = WithPrefix(m_path);
}

CRtString Narrow(const wchar_t* text) {
    char bytes[4 * MAX_PATH] = {};
    ::WideCharToMultiByte(g_codePage, 0, text, -1, bytes, sizeof(bytes) - 1, nullptr, nullptr);
    return bytes;
}

} // namespace RtOs
