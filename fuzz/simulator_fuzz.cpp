// Programs of calls that the fuzzer chooses, against the model of the simulator.
#include "testing/simulator.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const sim::Program program = sim::FromBytes(data, size);
    const std::string violation = sim::Run(program);
    if (violation.empty())
        return 0;
    std::fprintf(stderr, "%s\n%s\n", violation.c_str(), sim::Print(program).c_str());
    std::abort();
}
