// libFuzzer target for the bencode reader and writer: arbitrary bytes are read as a list
// and as a dictionary, and whatever reads must survive a write/read/write round trip
// unchanged (see BencodeRoundTrip.h). With BENCODE_FUZZ_FILE=1 in the environment the
// bytes are read through a file instead and must read as they do from memory. A violation
// aborts with a description.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AppLog.h"
#include "BencodeRoundTrip.h"

namespace {
std::string (*g_check)(const uint8_t*, size_t) = bencodefuzz::CheckRoundTrip;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The reader logs every rejected input; keep that out of syslog.
    CAppLog::ConfigureSinks(0);
    const char* mode = getenv("BENCODE_FUZZ_FILE");
    if (mode != nullptr && strcmp(mode, "1") == 0) {
        g_check = bencodefuzz::CheckThroughFile;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string problem = g_check(data, size);
    if (!problem.empty()) {
        fprintf(stderr, "bencode round trip: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
