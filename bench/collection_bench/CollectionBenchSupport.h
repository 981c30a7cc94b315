// Helpers of the collection benchmark: generated module feedback files, the heap and
// resident-memory figures of this process, and whole-file writes.
#pragma once

#include <cstddef>
#include <string>

#include "ProcessMemory.h"
#include "ScratchFiles.h"

namespace collectionbench {

// The bencode bytes of one module's feedback dictionary of about `bytes` bytes, shaped as
// the client's modules write them: named counters, an event log of small records with
// texts of varying length, a few larger text blobs, the module's name and version.
std::string MakeModuleData(size_t bytes, unsigned int seed);

using pwsupport::WriteFile;

// Bytes that operator new handed out and that are not deleted yet, and the highest value
// since the last ResetHeapPeak() (requested sizes, without the allocator's own overhead).
size_t HeapLiveBytes();
size_t HeapPeakBytes();
void ResetHeapPeak();

// VmRSS and VmHWM of this process in KiB; ResetResidentPeak() restarts VmHWM from VmRSS.
using pwsupport::PeakResidentKiB;
using pwsupport::ResetResidentPeak;
using pwsupport::ResidentKiB;

}  // namespace collectionbench
