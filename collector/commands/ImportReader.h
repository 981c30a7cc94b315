// Reading an import's files: a pool of threads reads and validates them a few batches ahead
// of the batch being stored, and hands the batches over in file order.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "report/ReportValidator.h"

namespace collector {

// A file to import, or a path as named (its size not known yet).
struct ImportFile {
    std::string path;
    uint64_t size;     // when listed; a batch is cut by it
    size_t timeIndex;  // its --received, or kImportedNow
};

// The timeIndex of a file that takes the time it is read as its time received.
constexpr size_t kImportedNow = static_cast<size_t>(-1);

// One batch of files read and validated, with the messages about those that could not be
// read, in file order.
struct ImportChunk {
    std::vector<ValidatedReport> reports;
    std::vector<std::string> errors;
};

class BatchReader {
public:
    // `batches` cut `files` into contiguous ranges [first, second). A file's time received
    // is times[timeIndex]. At most `ahead` batches are held read (or being read) beyond
    // those handed over, which bounds the memory the reading takes.
    BatchReader(const std::vector<ImportFile>& files,
                const std::vector<std::pair<size_t, size_t>>& batches,
                const std::vector<int64_t>& times, size_t threads, size_t ahead);
    ~BatchReader();
    BatchReader(const BatchReader&) = delete;
    BatchReader& operator=(const BatchReader&) = delete;

    // The next batch, once all its files are read; false after the last.
    bool Next(ImportChunk& chunk);

private:
    struct Slot {
        std::vector<ValidatedReport> reports;
        std::vector<std::string> errors;  // per file, empty when it was read
        size_t remaining = 0;
    };

    void Work();
    void ReadBlock(Slot& slot, size_t batchBegin, size_t begin, size_t end);
    size_t WindowEnd() const;  // under m_mutex: the first file no thread may claim yet

    const std::vector<ImportFile>& m_files;
    const std::vector<std::pair<size_t, size_t>>& m_batches;
    const std::vector<int64_t>& m_times;
    const size_t m_ahead;

    std::mutex m_mutex;
    std::condition_variable m_claimable;         // the window moved on, or stopping
    std::condition_variable m_finished;          // a batch's last file was read
    std::vector<std::unique_ptr<Slot>> m_slots;  // per batch, while it is in the window
    size_t m_nextFile = 0;
    size_t m_nextBatch = 0;  // the batch of m_nextFile
    size_t m_handedOver = 0;
    bool m_stopping = false;
    std::vector<std::thread> m_threads;  // last: they start once the rest is ready
};

}  // namespace collector
