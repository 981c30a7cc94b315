#include "commands/ImportReader.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "FileDescriptor.h"
#include "HostClock.h"
#include "report/ReportReader.h"

namespace collector {

namespace {

const char kPrefix[] = "data=";
const size_t kPrefixSize = sizeof kPrefix - 1;
// Files a thread claims at a time: few enough that a batch's last files are shared out,
// enough that the claims cost nothing beside the reading.
const size_t kFilesPerClaim = 64;
// Readers yield to the thread that stores (the import's pace): past its own reading ahead,
// reading only takes time the store leaves.
const int kReaderNiceness = 10;

// The content of the regular file `path`, at most a posted body's size; false with `error`.
bool ReadBody(const std::string& path, std::string& body, std::string& error) {
    // Non-blocking, so that a FIFO given by mistake is refused instead of waited on.
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (file.Get() < 0 || fstat(file.Get(), &status) != 0) {
        error = strerror(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = "not a regular file";
        return false;
    }
    const size_t limit = kMaxReportBytes + kPrefixSize;
    if (static_cast<unsigned long long>(status.st_size) > limit) {
        error = "larger than a report can be (" + std::to_string(limit) + " bytes)";
        return false;
    }
    body.resize(static_cast<size_t>(status.st_size));
    size_t done = 0;
    while (done < body.size()) {
        const ssize_t count = read(file.Get(), &body[done], body.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            error = count < 0 ? strerror(errno) : "the file shrank while it was read";
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return true;
}

}  // namespace

BatchReader::BatchReader(const std::vector<int64_t>& times, size_t threads, size_t ahead)
    : m_times(times), m_ahead(std::max<size_t>(1, ahead)) {
    threads = std::max<size_t>(1, threads);
    for (size_t t = 0; t < threads; ++t) {
        m_threads.emplace_back([this] { Work(); });
    }
}

BatchReader::~BatchReader() {
    Stop();
    for (std::thread& thread : m_threads) {
        thread.join();
    }
}

bool BatchReader::Add(std::vector<ImportFile> files) {
    if (files.empty()) {
        return true;
    }
    // Its reports are made room for when its reading starts: the listing adds every
    // batch long before that.
    auto slot = std::make_unique<Slot>();
    slot->remaining = files.size();
    slot->files = std::move(files);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping || m_closed) {
            return false;
        }
        m_slots.push_back(std::move(slot));
        ++m_added;
    }
    m_claimable.notify_all();
    return true;
}

void BatchReader::Close() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_claimable.notify_all();
    m_finished.notify_all();
}

void BatchReader::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_claimable.notify_all();
    m_finished.notify_all();
}

bool BatchReader::Claimable() const {
    return m_nextBatch < m_added && m_nextBatch < m_handedOver + m_ahead;
}

void BatchReader::Work() {
    // Linux gives each thread a niceness of its own.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kReaderNiceness);
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_claimable.wait(lock, [this] {
            return m_stopping || Claimable() || (m_closed && m_nextBatch == m_added);
        });
        if (m_stopping || !Claimable()) {
            return;
        }
        Slot& slot = *m_slots[m_nextBatch - m_handedOver];
        if (slot.claimed == 0) {
            slot.reports.resize(slot.files.size());
            slot.errors.resize(slot.files.size());
        }
        const size_t begin = slot.claimed;
        const size_t end = std::min(slot.files.size(), begin + kFilesPerClaim);
        slot.claimed = end;
        if (end == slot.files.size()) {
            ++m_nextBatch;
        }
        lock.unlock();
        ReadBlock(slot, begin, end);
        lock.lock();
        slot.remaining -= end - begin;
        if (slot.remaining == 0) {
            m_finished.notify_all();
        }
    }
}

void BatchReader::ReadBlock(Slot& slot, size_t begin, size_t end) {
    const int64_t now = GetCurrentTimeSeconds();
    for (size_t i = begin; i < end; ++i) {
        std::string body;
        if (!ReadBody(slot.files[i].path, body, slot.errors[i])) {
            continue;
        }
        // A report file as the client keeps it is what a client posts behind "data=".
        slot.reports[i] = body.compare(0, kPrefixSize, kPrefix) == 0
                              ? ValidateBody(std::move(body), false)
                              : ValidateReport(std::move(body));
        slot.reports[i].received =
            slot.files[i].timeIndex == kImportedNow ? now : m_times[slot.files[i].timeIndex];
    }
}

bool BatchReader::Next(ImportChunk& chunk) {
    std::unique_ptr<Slot> slot;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_finished.wait(lock, [this] {
            return m_stopping || (!m_slots.empty() && m_slots.front()->remaining == 0) ||
                   (m_closed && m_slots.empty());
        });
        if (m_stopping || m_slots.empty()) {
            return false;
        }
        slot = std::move(m_slots.front());
        m_slots.pop_front();
        ++m_handedOver;
    }
    m_claimable.notify_all();
    chunk.reports.clear();
    chunk.errors.clear();
    chunk.reports.reserve(slot->reports.size());
    for (size_t at = 0; at < slot->reports.size(); ++at) {
        if (slot->errors[at].empty()) {
            chunk.reports.push_back(std::move(slot->reports[at]));
        } else {
            chunk.errors.push_back(slot->files[at].path + ": " + slot->errors[at]);
        }
    }
    return true;
}

}  // namespace collector
