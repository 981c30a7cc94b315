// cefdump: prints a bencode file (top-level list or dictionary) as JSON on stdout.
//
// The file is read through the plug-in's bencode library, under the same exclusive,
// non-blocking lock and size limit as the agent uses, so a file that the agent could not
// read is reported here too. Nothing is ever created or modified.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "AppLog.h"
#include "Bencode.h"
#include "JsonWriter.h"

namespace {

enum ExitCode {
    kExitOk = 0,
    kExitUsage = 1,
    kExitFileError = 2,
    kExitLocked = 3,
    kExitTooLarge = 4,
    kExitInvalid = 5,
};

const char kUsage[] =
    "Usage: cefdump [--compact] [--verbose] FILE\n"
    "       cefdump --help\n"
    "\n"
    "Prints a bencode file (an outbound .cef report, a crash or threat report, a module\n"
    "data file) as JSON. The top-level value is a list or a dictionary; an empty file is\n"
    "an empty list.\n"
    "\n"
    "  integers      JSON numbers, exact to 64 bits\n"
    "  strings       JSON strings when valid UTF-8, otherwise {\"base64\": \"...\"}\n"
    "  lists         arrays\n"
    "  dictionaries  objects in byte-wise key order; a key byte that is not part of valid\n"
    "                UTF-8 is written as the escape \\udcXX (XX being the byte)\n"
    "\n"
    "Options:\n"
    "  --compact   one line, no indentation\n"
    "  --verbose   show the library's log records on stderr\n"
    "  --help      this text\n"
    "\n"
    "Exit status: 0 printed, 1 usage error, 2 file missing or unreadable, 3 file locked by\n"
    "another process, 4 file larger than 10485760 bytes, 5 not valid bencode.\n";

// Opens read-only and closes on destruction.
class CReadOnlyFile {
public:
    explicit CReadOnlyFile(const char* path) : m_fd(open(path, O_RDONLY | O_CLOEXEC)) {}
    ~CReadOnlyFile() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    CReadOnlyFile(const CReadOnlyFile&) = delete;
    CReadOnlyFile& operator=(const CReadOnlyFile&) = delete;
    int Get() const { return m_fd; }

private:
    int m_fd;
};

int Fail(int code, const std::string& path, const std::string& reason) {
    fprintf(stderr, "cefdump: %s: %s\n", path.c_str(), reason.c_str());
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    bool compact = false;
    bool verbose = false;
    std::string path;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            fputs(kUsage, stdout);
            return kExitOk;
        }
        if (argument == "--compact") {
            compact = true;
        } else if (argument == "--verbose") {
            verbose = true;
        } else if (!argument.empty() && argument[0] == '-' && argument != "-") {
            fprintf(stderr, "cefdump: unknown option %s\n\n%s", argument.c_str(), kUsage);
            return kExitUsage;
        } else if (path.empty()) {
            path = argument;
        } else {
            fprintf(stderr, "cefdump: one file at a time\n\n%s", kUsage);
            return kExitUsage;
        }
    }
    if (path.empty()) {
        fputs(kUsage, stderr);
        return kExitUsage;
    }
    CAppLog::ConfigureSinks(verbose ? CAppLog::SinkStderr : 0u);

    // The library creates a missing file when loading it; a dump must not, so existence,
    // kind and size are checked here first.
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return Fail(kExitFileError, path, strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return Fail(kExitFileError, path, "not a regular file");
    }
    if (status.st_size > static_cast<off_t>(MAX_BENCODE_FILE_SIZE)) {
        return Fail(kExitTooLarge, path,
                    "larger than the limit of " + std::to_string(MAX_BENCODE_FILE_SIZE) +
                        " bytes (" + std::to_string(static_cast<long long>(status.st_size)) +
                        " bytes)");
    }
    char first = 'l';
    {
        CReadOnlyFile file(path.c_str());
        if (file.Get() < 0) {
            return Fail(kExitFileError, path, strerror(errno));
        }
        if (read(file.Get(), &first, 1) < 0) {
            return Fail(kExitFileError, path, strerror(errno));
        }
    }

    // The loader judges a file's existence by errno; start it from a clean value.
    errno = 0;
    EBencodeResult result = eBencodeSuccess;
    std::unique_ptr<CBencodeStream> listStream;  // outlives the list that uses it
    std::unique_ptr<CBencode> root;
    if (first == 'd') {
        root.reset(new CBencodeDictionary(path, result, false));
    } else {
        CBencodeList* list = new CBencodeList(path, result, false);
        root.reset(list);
        listStream.reset(list->GetStream());  // a list does not release its stream itself
    }
    switch (result) {
        case eBencodeSuccess:
            break;
        case eBencodeLockError:
            return Fail(kExitLocked, path, "locked by another process");
        case eBencodeInvalidData:
            return Fail(kExitInvalid, path, "not valid bencode");
        default:
            return Fail(kExitFileError, path, "cannot be read");
    }

    std::string json;
    CJsonWriter(compact ? 0 : 2).Write(*root, json);
    if (fwrite(json.data(), 1, json.size(), stdout) != json.size() || fflush(stdout) != 0) {
        fprintf(stderr, "cefdump: write to stdout failed: %s\n", strerror(errno));
        return kExitFileError;
    }
    return kExitOk;
}
