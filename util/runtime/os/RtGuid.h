/// @addtogroup manager
/// @{
#pragma once

#include <cstdint>
#include <cstring>

#if defined(_WIN32)

// The same declarations and include guards as in the system's guiddef.h, so that both headers can be
// included in either order and declare one type with one comparison.
#if !defined(GUID_DEFINED)
#define GUID_DEFINED
typedef struct _GUID {
    unsigned long Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} GUID;
#endif
using RtGuid = GUID;

#if !defined(_SYS_GUID_OPERATOR_EQ_)
#define _SYS_GUID_OPERATOR_EQ_
inline bool operator==(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) == 0;
}
inline bool operator!=(const GUID& a, const GUID& b) { return !(a == b); }
#endif

#else

/// 128-bit identifier. On Windows RtGuid is another name of the system's `GUID`; on other systems it is a
/// structure with the same layout.
struct RtGuid {
    uint32_t Data1;   ///< first group of the text, in host byte order
    uint16_t Data2;   ///< second group, in host byte order
    uint16_t Data3;   ///< third group, in host byte order
    uint8_t Data4[8]; ///< fourth and fifth group, in printed order
};

/// True if all bytes are equal.
inline bool operator==(const RtGuid& a, const RtGuid& b) {
    return std::memcmp(&a, &b, sizeof(RtGuid)) == 0;
}

#endif
/// @}
