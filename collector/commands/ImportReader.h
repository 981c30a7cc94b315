// Reading an import's files: a pool of threads reads and validates them a few batches ahead
// of the batch being stored, and hands the batches over in the order they were added.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
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
    // A file's time received is times[timeIndex]. At most `ahead` batches are held read
    // (or being read) beyond those handed over, which bounds the memory the reading takes.
    BatchReader(const std::vector<int64_t>& times, size_t threads, size_t ahead);
    ~BatchReader();
    BatchReader(const BatchReader&) = delete;
    BatchReader& operator=(const BatchReader&) = delete;

    // Adds the next batch (the files listed so far may be read while more are listed);
    // false once the reading is stopped or closed. Close() follows the last batch.
    bool Add(std::vector<ImportFile> files);
    void Close();
    // Stops the reading: Next and Add return false from now on.
    void Stop();

    // The next batch, once all its files are read; false after the last.
    bool Next(ImportChunk& chunk);

private:
    struct Slot {
        std::vector<ImportFile> files;
        std::vector<ValidatedReport> reports;
        std::vector<std::string> errors;  // per file, empty when it was read
        size_t claimed = 0;               // files a thread has taken
        size_t remaining = 0;             // files not read yet
    };

    void Work();
    void ReadBlock(Slot& slot, size_t begin, size_t end);
    bool Claimable() const;  // under m_mutex

    const std::vector<int64_t>& m_times;
    const size_t m_ahead;

    std::mutex m_mutex;
    std::condition_variable m_claimable;  // a batch was added or handed over, or stopping
    std::condition_variable m_finished;   // a batch's last file was read, or closed
    // The batches not handed over yet, the first being batch m_handedOver.
    std::deque<std::unique_ptr<Slot>> m_slots;
    size_t m_added = 0;
    size_t m_nextBatch = 0;  // the batch whose files are claimed next
    size_t m_handedOver = 0;
    bool m_closed = false;
    bool m_stopping = false;
    std::vector<std::thread> m_threads;  // last: they start once the rest is ready
};

}  // namespace collector
