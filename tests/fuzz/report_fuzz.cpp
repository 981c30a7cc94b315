// libFuzzer target for the collector's report validator: each input is posted as a body
// and must keep the invariants of ReportInvariants.h. A violation aborts with a
// description.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "AppLog.h"
#include "ReportInvariants.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    CAppLog::ConfigureSinks(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string problem =
        reportfuzz::CheckReport(std::string(reinterpret_cast<const char*>(data), size));
    if (!problem.empty()) {
        fprintf(stderr, "report validator: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
