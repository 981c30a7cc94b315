// libFuzzer target for the bencode reader and writer: arbitrary bytes are read as a list
// and as a dictionary, and whatever reads must survive a write/read/write round trip
// unchanged (see BencodeRoundTrip.h). A violation aborts with a description.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "AppLog.h"
#include "BencodeRoundTrip.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The reader logs every rejected input; keep that out of syslog.
    CAppLog::ConfigureSinks(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string problem = bencodefuzz::CheckRoundTrip(data, size);
    if (!problem.empty()) {
        fprintf(stderr, "bencode round trip: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
