// Result codes shared by the runtime layer and by everything built on it. An operation that can fail
// answers a signed 32-bit code and throws nothing.
#pragma once

constexpr int RT_OK = 0;
/// The operation failed: a record that cannot be encoded or decoded, bytes that are still missing
/// after a read.
constexpr int RT_ERROR_FAILURE = 10001;
/// This kind of object does not implement the operation.
constexpr int RT_ERROR_NOT_SUPPORTED = 10004;
/// An input, output or stream call failed; a string is too long for the byte stream.
constexpr int RT_ERROR_IO = 10006;
/// An object is missing: a null event, an object or a buffer that could not be made.
constexpr int RT_ERROR_NULL_OBJECT = 10007;
/// An argument is not valid: a null pointer, a length or position out of range.
constexpr int RT_ERROR_INVALID_ARG = 10008;
/// A step of a message block's read or write position that would leave its buffer.
constexpr int RT_ERROR_OUT_OF_RANGE = 10009;
/// What was asked for does not exist.
constexpr int RT_ERROR_NOT_FOUND = 10011;
/// The object is not in the state that the operation needs: no thread or queue, data not ready, a
/// file that is not open or is of another kind.
constexpr int RT_ERROR_NOT_READY = 10015;

constexpr bool RT_SUCCEEDED(int result) { return result == RT_OK; }
constexpr bool RT_FAILED(int result) { return result != RT_OK; }

constexpr bool RT_BIT_ENABLED(unsigned flags, unsigned bit) { return (flags & bit) != 0; }
constexpr bool RT_BIT_DISABLED(unsigned flags, unsigned bit) { return (flags & bit) == 0; }
