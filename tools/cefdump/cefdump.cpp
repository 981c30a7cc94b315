// cefdump: prints a bencode file (top-level list or dictionary) as JSON on stdout.
//
// The input is decoded by the plug-in's bencode library with the agent's rules (size limit,
// content up to the first NUL, the same exclusive non-blocking lock on a file), so an input
// the agent could not read is reported here too. Nothing is ever created or modified.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "AppLog.h"
#include "Bencode.h"
#include "BencodeEvents.h"
#include "BencodeJson.h"
#include "OrderedPrint.h"
#include "RegularFile.h"

namespace {

enum ExitCode {
    kExitOk = 0,
    kExitFileError = 1,
    kExitUsage = 2,
    kExitLocked = 3,
    kExitTooLarge = 4,
    kExitInvalid = 5,
};

const char kUsage[] =
    "Usage: cefdump [--compact] [--wire] [--verbose] FILE|-\n"
    "       cefdump --help | --version\n"
    "\n"
    "Prints a bencode file (an outbound .cef report, a crash or threat report, a module\n"
    "data file) as JSON; \"-\" reads standard input. The top-level value is a list or a\n"
    "dictionary; an empty file is an empty list. As in the service, the content ends at its\n"
    "first NUL byte, and bytes after the top-level value are ignored (with a warning).\n"
    "\n"
    "  integers      JSON numbers, exact to 64 bits\n"
    "  strings       JSON strings when valid UTF-8, otherwise {\"base64\": \"...\"}\n"
    "  lists         arrays\n"
    "  dictionaries  objects in byte-wise key order; a key byte that is not part of valid\n"
    "                UTF-8 is written as the escape \\udcXX (XX being the byte)\n"
    "\n"
    "Options:\n"
    "  --compact   one line, no indentation\n"
    "  --wire      the input is a request body as posted: \"data=\" and the report\n"
    "  --verbose   show the library's log records on stderr\n"
    "  --help      this text\n"
    "  --version   the product version\n"
    "\n"
    "Exit status: 0 printed, 1 file missing or unreadable, 2 usage error, 3 file locked by\n"
    "another process, 4 input larger than 10485760 bytes, 5 not valid bencode.\n";

const char kWirePrefix[] = "data=";

int Fail(int code, const std::string& name, const std::string& reason) {
    fprintf(stderr, "cefdump: %s: %s\n", name.c_str(), reason.c_str());
    return code;
}

// A malloc'd block, which the bencode stream can take over as it is.
struct FreeBlock {
    void operator()(char* data) const { free(data); }
};
using Block = std::unique_ptr<char, FreeBlock>;

// The input's bytes: `size` of them in a block of `capacity`.
struct Input {
    Block block;
    size_t size = 0;
    size_t capacity = 0;
};

// Reads all of `fd` into `input`, at most `limit` bytes and one more chunk (enough to tell
// it is too large). The block grows by realloc, which moves a large block by remapping it,
// never holding two copies of the input.
bool ReadUpTo(int fd, size_t limit, Input& input) {
    const size_t kChunk = 65536;
    while (input.size <= limit) {
        if (input.capacity - input.size < kChunk) {
            const size_t grown = std::max(input.capacity * 2, input.size + kChunk);
            char* data = static_cast<char*>(realloc(input.block.get(), grown));
            if (data == nullptr) {
                errno = ENOMEM;
                return false;
            }
            input.block.release();
            input.block.reset(data);
            input.capacity = grown;
        }
        ssize_t count = read(fd, input.block.get() + input.size, kChunk);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return false;
        }
        if (count == 0) {
            return true;
        }
        input.size += static_cast<size_t>(count);
    }
    return true;
}

// The input: standard input, or a regular file read under the same exclusive,
// non-blocking lock that the service takes. Returns an exit code (kExitOk when read).
int ReadInput(const std::string& path, Input& input) {
    if (path == "-") {
        return ReadUpTo(STDIN_FILENO, MAX_BENCODE_FILE_SIZE + sizeof kWirePrefix, input)
                   ? kExitOk
                   : Fail(kExitFileError, "standard input", strerror(errno));
    }
    CRegularFile file;
    if (!file.Open(path, ELinkPolicy::Follow)) {
        return Fail(kExitFileError, path, errno == EINVAL ? "not a regular file" : strerror(errno));
    }
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        return Fail(errno == EWOULDBLOCK ? kExitLocked : kExitFileError, path,
                    errno == EWOULDBLOCK ? "locked by another process" : strerror(errno));
    }
    return ReadUpTo(file.Get(), MAX_BENCODE_FILE_SIZE + sizeof kWirePrefix, input)
               ? kExitOk
               : Fail(kExitFileError, path, strerror(errno));
}

}  // namespace

int main(int argc, char** argv) {
    bool compact = false;
    bool verbose = false;
    bool wire = false;
    std::string path;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            fputs(kUsage, stdout);
            return kExitOk;
        }
        if (argument == "--version") {
            printf("cefdump %s (build %s)\n", PW_PRODUCT_VERSION, PW_PRODUCT_BUILD);
            return kExitOk;
        }
        if (argument == "--compact") {
            compact = true;
        } else if (argument == "--verbose") {
            verbose = true;
        } else if (argument == "--wire") {
            wire = true;
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
    const std::string name = path == "-" ? "standard input" : path;

    Input input;
    int read = ReadInput(path, input);
    if (read != kExitOk) {
        return read;
    }
    char* const bytes = input.block.get();
    size_t offset = 0;  // of the report within the input
    if (wire) {
        if (input.size < sizeof kWirePrefix - 1 ||
            memcmp(bytes, kWirePrefix, sizeof kWirePrefix - 1) != 0) {
            return Fail(kExitInvalid, name, "does not start with \"data=\"");
        }
        offset = sizeof kWirePrefix - 1;
    }
    if (input.size - offset > MAX_BENCODE_FILE_SIZE) {
        return Fail(kExitTooLarge, name,
                    "larger than the limit of " + std::to_string(MAX_BENCODE_FILE_SIZE) + " bytes");
    }
    // As the service loads a file: the content ends at its first NUL.
    const char* nul = static_cast<const char*>(memchr(bytes + offset, 0, input.size - offset));
    const size_t end = nul != nullptr ? static_cast<size_t>(nul - bytes) : input.size;
    const bool dictionary = end > offset && bytes[offset] == 'd';

    // The stream takes the block over: the input is held once.
    memmove(bytes, bytes + offset, end - offset);
    CBencodeStream stream("", false);
    stream.Buffer().Adopt(input.block.release(), end - offset, input.capacity);

    // No tree is built: a first read validates and plans the order of dictionaries whose
    // keys are out of order, a second prints as it reads.
    COrderPlanner planner(stream);
    const bool valid = ReadBencodeEvents(stream, dictionary, planner);
    const bool ranOut = stream.Eof();
    const size_t invalid = stream.Buffer().InvalidByte();
    stream.Clear();  // a failed read leaves the stream failed, with its position kept
    const size_t at = offset + static_cast<size_t>(std::max(stream.Tellg(), 0));
    if (!valid) {
        if (ranOut || invalid == std::string::npos) {
            return Fail(kExitInvalid, name,
                        "not valid bencode: the input ends at offset " + std::to_string(end) +
                            " inside a value");
        }
        return Fail(kExitInvalid, name,
                    "not valid bencode: the first invalid byte is at offset " +
                        std::to_string(offset + invalid));
    }
    if (at < end) {
        fprintf(stderr,
                "cefdump: %s: warning: %zu bytes after the top-level value (from offset %zu) "
                "are ignored\n",
                name.c_str(), end - at, at);
    }

    const bencodejson::Sink sink = [](const char* data, size_t size) {
        return fwrite(data, 1, size, stdout) == size;
    };
    bencodejson::StreamWriter out(compact ? 0 : 2, sink);
    // The first read logged what there was to log.
    BencodeReadLimits quiet = stream.ReadLimits();
    quiet.logFailures = false;
    stream.SetReadLimits(quiet);
    stream.Seekg(0, std::ios_base::beg);
    COrderedPrinter printer(stream, planner.Plan(), out);
    ReadBencodeEvents(stream, dictionary, printer);
    if (!printer.Opened()) {  // an empty input: an empty list
        out.Open(false);
        out.Close();
    }
    const bool written = out.Finish();
    if (!written || fflush(stdout) != 0) {
        fprintf(stderr, "cefdump: write to stdout failed: %s\n", strerror(errno));
        return kExitFileError;
    }
    return kExitOk;
}
