// A check for the code of tests, fuzz targets and benchmarks whose failure makes everything after it meaningless.
#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the process if the condition is false, with the caller's file and line.
inline void Require(bool holds, const char* what = "requirement violated",
                    const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (holds)
        return;
    std::fprintf(stderr, "%s:%d: %s\n", file, line, what);
    std::abort();
}
