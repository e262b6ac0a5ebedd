/// @addtogroup manager
/// @{
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtString.h"
#include "os/RtGuid.h"

/// The 128-bit identifier of a cached file; the platform's GUID structure. Data1 to Data3 are in host byte
/// order, the 8 bytes of Data4 in printed order. Two identifiers are equal when their bytes are. The
/// functions on identifiers are thread-safe.
using FMFileID = RtGuid;
static_assert(sizeof(FMFileID) == 16);

/// The null identifier. Operations that take an identifier refuse it with #RT_ERROR_INVALID_ARG.
inline constexpr FMFileID FMFileID_None{};

/// Length of an identifier's text in characters.
constexpr uint32_t FMFILEID_TEXT_LENGTH = 38;

/// Creates a random identifier (version 4 of RFC 4122); never #FMFileID_None.
/// @param[out] id the identifier.
RT_EXPORT void CoCreateFMFileID(FMFileID& id);

/// Returns `{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}` with upper-case digits, always #FMFILEID_TEXT_LENGTH
/// characters. With `.sdd` and `.sdi` it is the name of the data file and of the information file.
RT_EXPORT CRtString FMFileIDToString(const FMFileID& id);

/// Parses that text; digits may be of either case.
/// @param text the text, braces and hyphens included.
/// @param[out] id the identifier; #FMFileID_None if `text` has any other form.
RT_EXPORT void FMFileIDFromString(const CRtString& text, FMFileID& id);

/// Orders by the fields as unsigned numbers. The texts have the same order byte by byte.
RT_EXPORT bool operator<(const FMFileID& a, const FMFileID& b);
/// @}
