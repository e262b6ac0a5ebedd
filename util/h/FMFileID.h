// FMFileID: the 128-bit identifier that names a cached file, its text form and its order.
// All functions here are free of state; any thread may call them.
#pragma once

#include <cstdint>
#include <cstring>

#include "RtExport.h"
#include "RtString.h"

/// Laid out as the platform's GUID structure: the first three fields are numbers in host order, Data4
/// stands in printed order.
struct FMFileID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
static_assert(sizeof(FMFileID) == 16);

/// Names no file. Every operation that takes an identifier refuses it.
inline constexpr FMFileID FMFileID_None{};

/// The length of an identifier's text.
constexpr uint32_t FMFILEID_TEXT_LENGTH = 38;

/// Fills `id` with a fresh unique value (random, version 4 of RFC 4122), never FMFileID_None.
RT_EXPORT void CoCreateFMFileID(FMFileID& id);

/// The text "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", upper-case, always 38 characters. It is also the
/// stem of the names of the file's data file (".sdd") and information file (".sdi").
RT_EXPORT CRtString FMFileIDToString(const FMFileID& id);

/// Reads an identifier's text, digits of either case. Any other text gives FMFileID_None.
RT_EXPORT void FMFileIDFromString(const CRtString& text, FMFileID& id);

/// The order of the fields as unsigned numbers, which is also the byte order of the texts.
RT_EXPORT bool operator<(const FMFileID& a, const FMFileID& b);

inline bool operator==(const FMFileID& a, const FMFileID& b) {
    return std::memcmp(&a, &b, sizeof(FMFileID)) == 0;
}
