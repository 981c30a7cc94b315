// Helpers of the collection benchmark: generated module feedback files, the heap and
// resident-memory figures of this process, and whole-file writes.
#pragma once

#include <cstddef>
#include <string>

namespace collectionbench {

// The bencode bytes of one module's feedback dictionary of about `bytes` bytes, shaped as
// the client's modules write them: named counters, an event log of small records with
// texts of varying length, a few larger text blobs, the module's name and version.
std::string MakeModuleData(size_t bytes, unsigned int seed);

bool WriteFile(const std::string& path, const std::string& content);

// Bytes that operator new handed out and that are not deleted yet, and the highest value
// since the last ResetHeapPeak() (requested sizes, without the allocator's own overhead).
size_t HeapLiveBytes();
size_t HeapPeakBytes();
void ResetHeapPeak();

// VmRSS and VmHWM of this process in KiB; ResetResidentPeak() restarts VmHWM from VmRSS.
long ResidentKiB();
long PeakResidentKiB();
bool ResetResidentPeak();

}  // namespace collectionbench
