// libFuzzer target for the feedback profile reader: arbitrary bytes are read as a profile,
// from a string and from a file (see ProfileCheck.h). A violation aborts with a description.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "AppLog.h"
#include "ProfileCheck.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    CAppLog::ConfigureSinks(0);  // the parser logs every rejected document
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string problem = profilefuzz::CheckProfile(data, size);
    if (!problem.empty()) {
        fprintf(stderr, "profile reader: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
