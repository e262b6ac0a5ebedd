/// @addtogroup manager
/// @{
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtString.h"
#include "os/RtGuid.h"

/// The 128-bit identifier of a cached file; the platform's GUID structure. Data1 to Data3 are integers in
/// host byte order; the 8 bytes of Data4 are in the order in which they are printed. Two identifiers are
/// equal if all their bytes are equal. The functions on identifiers work on any thread.
using FMFileID = RtGuid;
static_assert(sizeof(FMFileID) == 16);

/// The null identifier. The operations of IFileManager refuse it with #RT_ERROR_INVALID_ARG.
inline constexpr FMFileID FMFileID_None{};

/// Length of an identifier's text in characters.
constexpr uint32_t FMFILEID_TEXT_LENGTH = 38;

/// Creates a random identifier (version 4 of RFC 4122); never #FMFileID_None.
/// @param[out] id the identifier.
RT_EXPORT void CoCreateFMFileID(FMFileID& id);

/// Returns an identifier as text: `{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}` with upper-case hexadecimal
/// digits, always #FMFILEID_TEXT_LENGTH characters. The text with the suffix `.sdd` is the name of the data
/// file, with `.sdi` the name of the information file.
RT_EXPORT CRtString FMFileIDToString(const FMFileID& id);

/// Converts the text of an identifier back.
/// @param text the text in the form of FMFileIDToString, braces and hyphens included. The case of the digits
///     is ignored.
/// @param[out] id the identifier; #FMFileID_None if `text` does not have this form.
RT_EXPORT void FMFileIDFromString(const CRtString& text, FMFileID& id);

/// Compares Data1, Data2, Data3 and the bytes of Data4, in this order and as unsigned numbers. Sorting the
/// texts byte by byte gives the same order.
RT_EXPORT bool operator<(const FMFileID& a, const FMFileID& b);
/// @}
