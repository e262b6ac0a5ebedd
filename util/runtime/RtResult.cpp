#include "RtResult.h"

#include <array>

namespace {

struct Description {
    int result;
    const char* name;
    const char* text;
};
constexpr Description UNKNOWN{0, "unknown result code", "unknown result code"};
constexpr std::array RESULTS{
    Description{RT_OK, "RT_OK", "success"},
    Description{RT_ERROR_FAILURE, "RT_ERROR_FAILURE", "the operation failed"},
    Description{RT_ERROR_NOT_SUPPORTED, "RT_ERROR_NOT_SUPPORTED", "not supported"},
    Description{RT_ERROR_IO, "RT_ERROR_IO", "input or output failed"},
    Description{RT_ERROR_NULL_OBJECT, "RT_ERROR_NULL_OBJECT", "null object or out of memory"},
    Description{RT_ERROR_INVALID_ARG, "RT_ERROR_INVALID_ARG", "invalid argument"},
    Description{RT_ERROR_OUT_OF_RANGE, "RT_ERROR_OUT_OF_RANGE", "not enough bytes or space"},
    Description{RT_ERROR_NOT_FOUND, "RT_ERROR_NOT_FOUND", "not found"},
    Description{RT_ERROR_NOT_READY, "RT_ERROR_NOT_READY", "not possible in the present state"},
};

const Description& Describe(int result) {
    for (const Description& each : RESULTS) {
        if (each.result == result)
            return each;
    }
    return UNKNOWN;
}

} // namespace

const char* RtResultName(int result) { return Describe(result).name; }
const char* RtResultText(int result) { return Describe(result).text; }
