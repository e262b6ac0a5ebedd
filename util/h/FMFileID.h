// FMFileID: the 128-bit identifier that names a cached file, its text form and its order.
// All functions here are free of state; any thread may call them.
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtString.h"
#include "os/RtGuid.h"

/// Another name for the platform's GUID structure, where it has one: the first three fields, Data1 to
/// Data3, are numbers in host order, the 8 bytes of Data4 stand in printed order. Two are equal when
/// their bytes are.
using FMFileID = RtGuid;
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
