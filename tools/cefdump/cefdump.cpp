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
#include <cstring>
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

// Reads all of `fd` into `bytes`, at most `limit` + 1 bytes (enough to tell it is too large).
bool ReadUpTo(int fd, size_t limit, std::string& bytes) {
    char chunk[65536];
    for (;;) {
        ssize_t count = read(fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return false;
        }
        if (count == 0 || bytes.size() > limit) {
            return true;
        }
        bytes.append(chunk, static_cast<size_t>(count));
    }
}

// The input's bytes: standard input, or a regular file read under the same exclusive,
// non-blocking lock that the service takes. Returns an exit code (kExitOk when read).
int ReadInput(const std::string& path, std::string& bytes) {
    if (path == "-") {
        return ReadUpTo(STDIN_FILENO, MAX_BENCODE_FILE_SIZE + sizeof kWirePrefix, bytes)
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
    return ReadUpTo(file.Get(), MAX_BENCODE_FILE_SIZE + sizeof kWirePrefix, bytes)
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

    std::string bytes;
    int read = ReadInput(path, bytes);
    if (read != kExitOk) {
        return read;
    }
    size_t offset = 0;  // of the report within the input
    if (wire) {
        if (bytes.compare(0, sizeof kWirePrefix - 1, kWirePrefix) != 0) {
            return Fail(kExitInvalid, name, "does not start with \"data=\"");
        }
        offset = sizeof kWirePrefix - 1;
    }
    if (bytes.size() - offset > MAX_BENCODE_FILE_SIZE) {
        return Fail(kExitTooLarge, name,
                    "larger than the limit of " + std::to_string(MAX_BENCODE_FILE_SIZE) + " bytes");
    }
    // As the service loads a file: the content ends at its first NUL.
    size_t end = bytes.find('\0', offset);
    end = end == std::string::npos ? bytes.size() : end;

    CBencodeStream stream("", false);
    stream.Write(bytes.data() + offset, static_cast<unsigned int>(end - offset));
    stream.Seekg(0, std::ios_base::beg);
    const bool dictionary = end > offset && bytes[offset] == 'd';
    std::string().swap(bytes);  // the stream holds the input now: one copy is enough

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
