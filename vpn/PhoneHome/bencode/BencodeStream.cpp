// The file binding of the bencode library: CBencodeStream's load and flush under an
// exclusive, non-blocking flock, and the file members of the list and the dictionary.
//
// Each load or flush opens, locks, transfers once, unlocks and closes; nothing stays open
// between calls. Staging mode never overwrites an existing main file: the data goes to the
// main file's ".temp" sibling instead, and the container keeps it until the main file has
// been taken away.
#include "Bencode.h"
#include "RegularFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "BencodeLog.h"

namespace {

const char kTempSuffix[] = ".temp";

struct FreeMemory {
    void operator()(char* data) const { free(data); }
};

}  // namespace

CBencodeStream::CBencodeStream(std::string const& fileName, bool useTempFile)
    : m_fileName(fileName), m_useTempFile(useTempFile) {}

CBencodeStream::~CBencodeStream() {}

// Whether the file exists is judged by errno alone, as left by the read-only open (errno is
// not cleared beforehand). A missing file is created empty, so that loading it succeeds.
int CBencodeStream::LoadStream() {
    std::string path = m_fileName;
    if (m_useTempFile) {
        path += kTempSuffix;
    }

    // Only a regular file is read (a FIFO or a device at the path is refused like a file
    // that cannot be opened, without blocking), and a missing file is created new: never
    // through a symbolic link, never over a file that appeared meanwhile.
    struct stat status;
    CFileDescriptor file(OpenRegularFileForReading(path, ELinkPolicy::Follow, status));
    if (errno == ENOENT) {
        // A file that exists after all (errno was stale, or its module just made it) is
        // loaded as it is.
        file.Reset(CreateRegularFileExclusively(path, sm_fileCreationMode));
        if (!file.Valid() && errno != EEXIST) {
            BENCODE_LOG_CODE("open", errno, "File open failed");
            return eBencodeFileError;
        }
        file.Reset(OpenRegularFileForReading(path, ELinkPolicy::Follow, status));
        if (!file.Valid()) {
            BENCODE_LOG_CODE("open", errno, "File open failed");
            return eBencodeFileError;
        }
    } else if (errno != 0) {
        BENCODE_LOG_CODE("open", errno, "File open failed");
        return eBencodeFileError;
    }

    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        BENCODE_LOG_CODE("flock", errno, "Failed to acquire file lock");
        return eBencodeLockError;
    }

    if (fstat(file.Get(), &status) != 0) {
        BENCODE_LOG_CODE("fstat", errno, "Failed to get file size");
        flock(file.Get(), LOCK_UN);
        return eBencodeFileError;
    }
    if (static_cast<unsigned long long>(status.st_size) > m_buffer.ReadLimits().maxFileSize) {
        BENCODE_LOG_ERROR("File size exceeds maximum limit");
        flock(file.Get(), LOCK_UN);
        return eBencodeInvalidData;
    }

    size_t size = static_cast<size_t>(status.st_size);
    std::unique_ptr<char, FreeMemory> data(static_cast<char*>(malloc(size + 1)));
    if (!data) {
        BENCODE_LOG_CODE("read", ENOMEM, "File read failed");
        flock(file.Get(), LOCK_UN);
        return eBencodeFileError;
    }
    ssize_t count = read(file.Get(), data.get(), size);
    int readError = errno;

    if (flock(file.Get(), LOCK_UN) != 0) {
        BENCODE_LOG_CODE("flock", errno, "Failed to release file lock");
    }
    if (count < 0 || static_cast<size_t>(count) < size) {
        file.Close();
        BENCODE_LOG_CODE("read", readError, "File read failed");
        return eBencodeFileError;
    }
    file.Close();

    // The content ends at the first NUL byte, if any.
    data.get()[size] = '\0';
    char const* nul = static_cast<char const*>(memchr(data.get(), 0, size));
    const size_t content = nul != nullptr ? static_cast<size_t>(nul - data.get()) : size;
    m_buffer.Adopt(data.release(), content, size + 1);
    return eBencodeSuccess;
}

// Writes the whole content (up to the furthest byte loaded or written). In staging mode
// the main file is created exclusively; if it already exists (judged by errno alone, not
// cleared beforehand) the data goes to the ".temp" file instead. Only a regular file is
// written: a FIFO, a device or a symbolic link at the path is refused (-1) without blocking
// and left as it is. The file is truncated before the lock is taken.
int CBencodeStream::FlushStream(bool& stagedInTempFile) {
    stagedInTempFile = false;
    const mode_t mode = m_ownerOnly ? S_IRUSR | S_IWUSR : sm_fileCreationMode;

    CFileDescriptor file(-1);
    bool toTempFile = false;
    if (!m_useTempFile) {
        file.Reset(OpenRegularFileForWriting(m_fileName, false, mode));
    } else {
        file.Reset(OpenRegularFileForWriting(m_fileName, true, mode));
        if (errno == EEXIST) {
            toTempFile = true;
            file.Reset(OpenRegularFileForWriting(m_fileName + kTempSuffix, false, mode));
        }
    }
    if (!file.Valid()) {
        BENCODE_LOG_CODE("open", errno, "File open failed");
        return eBencodeFileError;
    }
    // The umask may have taken bits off a new file, and an old one may be open to others.
    if (ftruncate(file.Get(), 0) != 0 || (m_ownerOnly && fchmod(file.Get(), mode) != 0)) {
        BENCODE_LOG_CODE("open", errno, "File open failed");
        return eBencodeFileError;
    }

    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        BENCODE_LOG_CODE("flock", errno, "Failed to acquire file lock");
        return eBencodeFileError;
    }
    static const char kNothing = 0;
    const size_t size = m_buffer.Size();
    ssize_t written = write(file.Get(), size != 0 ? m_buffer.Data() : &kNothing, size);
    flock(file.Get(), LOCK_UN);
    file.Close();

    if (written < 0 || static_cast<size_t>(written) != size) {
        BENCODE_LOG_ERROR("File write failed");
        return eBencodeFileError;
    }
    stagedInTempFile = toTempFile;
    return eBencodeSuccess;
}

// ---------------------------------------------------------------------------------------
// File members of the containers
// ---------------------------------------------------------------------------------------

namespace {

// Serialises `container` over the start of its stream's buffer: the write position goes
// back to the start, or, when the state bits refuse that (for example after loading an
// empty file), the bits are cleared instead.
template <typename Container>
bool SerialiseIntoStream(Container& container, CBencodeStream& stream) {
    if (!stream.Seekp(0, std::ios_base::beg)) {
        stream.Clear();
    }
    return container.Externalize(stream);
}

// The file members that lists and dictionaries share.
// A tree too large to build in memory is a failed read (-1); what was built of it stays in
// the container until its owner resets it.
template <typename Container>
EBencodeResult LoadBound(Container& container, CBencodeStream* stream) {
    if (stream == nullptr) {
        return eBencodeStreamNotSet;
    }
    int loaded = stream->LoadStream();
    if (loaded != eBencodeSuccess) {
        return static_cast<EBencodeResult>(loaded);
    }
    try {
        return container.Internalize(*stream) ? eBencodeSuccess : eBencodeInvalidData;
    } catch (const std::bad_alloc&) {
        stream->ResetStream();
        return eBencodeFileError;
    }
}

// After a write into the main file in staging mode the container is emptied: what was
// handed over is dropped. The buffer is emptied in every case.
template <typename Container>
EBencodeResult SaveBound(Container& container, CBencodeStream& stream, bool useTempFile) {
    EBencodeResult result = eBencodeFileError;
    bool serialised = false;
    try {
        serialised = SerialiseIntoStream(container, stream);
    } catch (const std::bad_alloc&) {
        serialised = false;  // as a value that cannot be written: nothing reaches the disk
    }
    if (serialised) {
        bool staged = false;
        result = static_cast<EBencodeResult>(stream.FlushStream(staged));
        if (result != eBencodeSuccess) {
            CAppLog::LogReturnCode("Externalize", BENCODE_SOURCE_FILE, __LINE__, CAppLog::Error,
                                   "FlushStream", static_cast<long>(result),
                                   "Failed to flush stream to the file");
        } else if (useTempFile && !staged) {
            container.Reset();
        }
    }
    stream.ResetStream();
    return result;
}

// What a file-bound container's constructor does: makes its stream and reads the file. A
// failure is logged as the constructor's (`function`) with `failure` and leaves the
// container empty. Nothing may leave a constructor that has made its stream (it would never
// be freed), so an allocation failure is a file error here.
template <typename Container>
EBencodeResult OpenAndLoad(Container& container, CBencodeStream*& stream,
                           std::string const& fileName, bool useTempFile, const char* function,
                           const char* failure) {
    EBencodeResult result = eBencodeFileError;
    try {
        stream = new CBencodeStream(fileName, useTempFile);
        result = container.Internalize();
    } catch (const std::bad_alloc&) {
        result = eBencodeFileError;
    }
    if (result != eBencodeSuccess) {
        try {
            CAppLog::LogReturnCode(function, BENCODE_SOURCE_FILE, __LINE__, CAppLog::Error,
                                   "Internalize", static_cast<long>(result), "%s", failure);
        } catch (const std::bad_alloc&) {
        }
        container.Reset();
    }
    return result;
}

void BindStream(CBencodeStream*& stream, std::string const& fileName, bool useTempFile) {
    if (stream != nullptr) {
        stream->SetFileName(fileName);
    } else {
        stream = new CBencodeStream(fileName, useTempFile);
    }
}

}  // namespace

CBencodeList::CBencodeList(std::string const& fileName, EBencodeResult& result, bool useTempFile)
    : CBencode(eBencodeList), m_stream(nullptr), m_useTempFile(useTempFile) {
    result = OpenAndLoad(*this, m_stream, fileName, useTempFile, "CBencodeList",
                         "CBencodeList Internalize failed");
}

EBencodeResult CBencodeList::Internalize() {
    return LoadBound(*this, m_stream);
}

EBencodeResult CBencodeList::Externalize() {
    if (m_stream == nullptr) {
        BENCODE_LOG_ERROR("Bencode stream should be set before calling Externalize");
        return eBencodeStreamNotSet;
    }
    return SaveBound(*this, *m_stream, m_useTempFile);
}

void CBencodeList::SetBencodeFileName(std::string const& fileName) {
    BindStream(m_stream, fileName, m_useTempFile);
}

CBencodeDictionary::CBencodeDictionary(std::string const& fileName, EBencodeResult& result,
                                       bool useTempFile)
    : CBencode(eBencodeDictionary), m_stream(nullptr), m_useTempFile(useTempFile) {
    result = OpenAndLoad(*this, m_stream, fileName, useTempFile, "CBencodeDictionary",
                         "Bencode dictionary internalize failed");
}

EBencodeResult CBencodeDictionary::Internalize() {
    return LoadBound(*this, m_stream);
}

// As the list's, except that a dictionary without a stream fails silently.
EBencodeResult CBencodeDictionary::Externalize() {
    if (m_stream == nullptr) {
        return eBencodeStreamNotSet;
    }
    return SaveBound(*this, *m_stream, m_useTempFile);
}

void CBencodeDictionary::SetBencodeFileName(std::string const& fileName) {
    BindStream(m_stream, fileName, m_useTempFile);
}
