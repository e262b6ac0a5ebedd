/// @defgroup results Result codes
/// An operation that can fail returns an `int`: #RT_OK or one of these codes. The numbers are fixed: log
/// lines print them after `ret=`. Each operation lists the codes it returns and what they mean there.
/// @{
#pragma once

constexpr int RT_OK = 0; ///< success
/// The operation failed: a record cannot be encoded or decoded, or bytes are still missing after a read.
constexpr int RT_ERROR_FAILURE = 10001;
/// Objects of this kind do not implement the operation.
constexpr int RT_ERROR_NOT_SUPPORTED = 10004;
/// An input/output operation failed, or a string is too long for a byte stream.
constexpr int RT_ERROR_IO = 10006;
/// A required object is null, or could not be allocated.
constexpr int RT_ERROR_NULL_OBJECT = 10007;
/// An argument is invalid: a null pointer, #FMFileID_None, or a length or position out of range.
constexpr int RT_ERROR_INVALID_ARG = 10008;
/// A step would move a read or write pointer out of its buffer.
constexpr int RT_ERROR_OUT_OF_RANGE = 10009;
/// The file or block does not exist.
constexpr int RT_ERROR_NOT_FOUND = 10011;
/// The object is not in the required state: no thread or queue, a block that is not complete, a file that
/// is closed or open elsewhere.
constexpr int RT_ERROR_NOT_READY = 10015;

/// Test a result code.
///@{
constexpr bool RT_SUCCEEDED(int result) { return result == RT_OK; }
constexpr bool RT_FAILED(int result) { return result != RT_OK; }
///@}

/// Test the bits of a mask: any set, none set.
///@{
constexpr bool RT_BIT_ENABLED(unsigned flags, unsigned bit) { return (flags & bit) != 0; }
constexpr bool RT_BIT_DISABLED(unsigned flags, unsigned bit) { return (flags & bit) == 0; }
///@}
/// @}
