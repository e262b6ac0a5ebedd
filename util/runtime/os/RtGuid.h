// RtGuid: the platform's GUID structure where there is one, and one of the same layout where there is
// none. The one header of this folder that callers see.
#pragma once

#include <cstdint>
#include <cstring>

#if defined(_WIN32)

// Declared word for word as the system's own header declares it and under that header's own marks, so
// that both may be included in either order and there is one type, with one comparison.
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

struct RtGuid {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};

inline bool operator==(const RtGuid& a, const RtGuid& b) {
    return std::memcmp(&a, &b, sizeof(RtGuid)) == 0;
}

#endif
