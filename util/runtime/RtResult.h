/// @defgroup results Result codes
/// An operation that can fail returns an `int`: #RT_OK or one of these codes. The numbers never change; log
/// lines print them after `ret=`. Each operation lists the codes that it returns and their causes.
/// @{
#pragma once

#include "RtExport.h"

constexpr int RT_OK = 0; ///< success
/// The operation failed for a reason without a code, for example: a record cannot be encoded or decoded, a
/// load did not bring the bytes of a block into memory, or a thread cannot be started.
constexpr int RT_ERROR_FAILURE = 10001;
/// This kind of object does not implement the operation, for example IFMBlock::GetOwners on a client.
constexpr int RT_ERROR_NOT_SUPPORTED = 10004;
/// An input/output operation failed, or a string is too long for a byte stream.
constexpr int RT_ERROR_IO = 10006;
/// A required object is null, or could not be allocated.
constexpr int RT_ERROR_NULL_OBJECT = 10007;
/// An argument is invalid: a null pointer, #FMFileID_None, or a length or position out of range.
constexpr int RT_ERROR_INVALID_ARG = 10008;
/// A message chain has too few readable bytes or too little space for the operation.
constexpr int RT_ERROR_OUT_OF_RANGE = 10009;
/// The file or block does not exist.
constexpr int RT_ERROR_NOT_FOUND = 10011;
/// The state of an object does not permit the operation: a thread is not running, a block is not complete, or
/// a file is closed or open in another process.
constexpr int RT_ERROR_NOT_READY = 10015;

/// Return the symbolic name of a result code ("RT_ERROR_IO"), and a short text for people ("input or output
/// failed"). For a number that is not a result code: "unknown result code". Any thread.
///@{
RT_EXPORT const char* RtResultName(int result);
RT_EXPORT const char* RtResultText(int result);
///@}

/// Test a result code.
///@{
constexpr bool RT_SUCCEEDED(int result) { return result == RT_OK; }
constexpr bool RT_FAILED(int result) { return result != RT_OK; }
///@}

/// Return whether at least one bit of a mask is set, and whether none is.
///@{
constexpr bool RT_BIT_ENABLED(unsigned flags, unsigned bit) { return (flags & bit) != 0; }
constexpr bool RT_BIT_DISABLED(unsigned flags, unsigned bit) { return (flags & bit) == 0; }
///@}
/// @}
