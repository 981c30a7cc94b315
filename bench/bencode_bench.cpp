// Throughput and memory of the bencode library on three generated 10 MiB inputs (a
// feedback report, a flat dictionary of 200 000 keys, a list of 20 large strings):
// loading through the file constructor and Externalize() to a file, beside
// libtorrent-rasterbar's bdecode (token array, and into an entry tree) and bencode, and
// memcpy of the same bytes as the memory-bandwidth floor. After the runs a summary gives
// MB/s, the ratios to the references, and the peak heap growth of a load against
// libtorrent's file buffer + bdecode + entry tree on the same file.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "AppLog.h"
#include "Bencode.h"
#include "bencode_bench/Generators.h"
#include "bencode_bench/HeapAccounting.h"

#ifdef PW_HAVE_LIBTORRENT
#include <libtorrent/bdecode.hpp>
#include <libtorrent/bencode.hpp>
#include <libtorrent/entry.hpp>
#endif

namespace {

// Heap growth of `work` at its peak, in bytes.
template <typename Work>
long long PeakGrowth(Work work) {
    return bencodebench::PeakHeapGrowth(work);
}

struct Input {
    const char* name;
    bool dictionary;  // top-level kind
    std::string bytes;
    std::string path;
    std::string outPath;
};

std::vector<Input> g_inputs;

bool WriteWholeFile(const std::string& path, const std::string& bytes) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const bool ok = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    close(fd);
    return ok;
}

std::string ReadWholeFile(const std::string& path) {
    std::string bytes;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return bytes;
    }
    char chunk[65536];
    ssize_t count = 0;
    while ((count = read(fd, chunk, sizeof(chunk))) > 0) {
        bytes.append(chunk, static_cast<size_t>(count));
    }
    close(fd);
    return bytes;
}

// A top-level container loaded from `input`'s file, with the stream that a list leaves
// behind owned alongside it.
struct Loaded {
    std::unique_ptr<CBencodeStream> listStream;
    std::unique_ptr<CBencode> root;
    EBencodeResult result = eBencodeFileError;
};

void Load(const Input& input, Loaded& loaded) {
    errno = 0;  // the loader judges a file's existence by errno
    if (input.dictionary) {
        loaded.root.reset(new CBencodeDictionary(input.path, loaded.result, false));
    } else {
        CBencodeList* list = new CBencodeList(input.path, loaded.result, false);
        loaded.root.reset(list);
        loaded.listStream.reset(list->GetStream());
    }
}

void Release(Loaded& loaded) {
    loaded.root.reset();
    loaded.listStream.reset();
}

void SetBytes(benchmark::State& state, const Input& input) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(input.bytes.size()));
}

void BencodeLoad(benchmark::State& state, const Input* input) {
    for (auto _ : state) {
        Loaded loaded;
        Load(*input, loaded);
        if (loaded.result != eBencodeSuccess) {
            state.SkipWithError("load failed");
            break;
        }
        state.PauseTiming();  // destruction is not part of the load
        Release(loaded);
        state.ResumeTiming();
    }
    SetBytes(state, *input);
}

void BencodeInternalizeFromMemory(benchmark::State& state, const Input* input) {
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<CBencodeStream> stream(new CBencodeStream("", false));
        stream->Write(input->bytes.data(), static_cast<unsigned int>(input->bytes.size()));
        std::unique_ptr<CBencode> root(input->dictionary
                                           ? static_cast<CBencode*>(new CBencodeDictionary(false))
                                           : new CBencodeList(false));
        state.ResumeTiming();
        const bool ok = root->Internalize(*stream);
        state.PauseTiming();  // freeing the tree and the buffer is not part of the decode
        root.reset();
        stream.reset();
        state.ResumeTiming();
        if (!ok) {
            state.SkipWithError("internalize failed");
            break;
        }
    }
    SetBytes(state, *input);
}

// The serialisation alone, into a stream in memory: Externalize() without the file.
void BencodeExternalizeToMemory(benchmark::State& state, const Input* input) {
    Loaded loaded;
    Load(*input, loaded);
    CBencodeStream stream("", false);
    for (auto _ : state) {
        stream.ResetStream();
        if (!loaded.root->Externalize(stream)) {
            state.SkipWithError("serialisation failed");
            break;
        }
    }
    SetBytes(state, *input);
    Release(loaded);
}

// Externalize() into a file that does not exist yet, as every report the agent writes is a
// new file, or over the file of the run before, which the open first truncates.
void BencodeExternalize(benchmark::State& state, const Input* input, bool newFile) {
    Loaded loaded;
    Load(*input, loaded);
    CBencodeList* list = dynamic_cast<CBencodeList*>(loaded.root.get());
    CBencodeDictionary* dictionary = dynamic_cast<CBencodeDictionary*>(loaded.root.get());
    if (list != nullptr) {
        list->SetBencodeFileName(input->outPath);
    } else {
        dictionary->SetBencodeFileName(input->outPath);
    }
    for (auto _ : state) {
        if (newFile) {
            state.PauseTiming();
            unlink(input->outPath.c_str());
            state.ResumeTiming();
        }
        errno = 0;
        const EBencodeResult result =
            list != nullptr ? list->Externalize() : dictionary->Externalize();
        if (result != eBencodeSuccess) {
            state.SkipWithError("externalize failed");
            break;
        }
    }
    SetBytes(state, *input);
    if (ReadWholeFile(input->outPath) != input->bytes) {
        state.SkipWithError("written file differs from the input");
    }
    Release(loaded);
}

void Memcpy(benchmark::State& state, const Input* input) {
    std::vector<char> target(input->bytes.size());
    for (auto _ : state) {
        memcpy(target.data(), input->bytes.data(), input->bytes.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    SetBytes(state, *input);
}

#ifdef PW_HAVE_LIBTORRENT
void LibtorrentBdecode(benchmark::State& state, const Input* input) {
    for (auto _ : state) {
        lt::error_code error;
        std::unique_ptr<lt::bdecode_node> node(new lt::bdecode_node(lt::bdecode(
            lt::span<char const>(input->bytes.data(), static_cast<long>(input->bytes.size())),
            error)));
        if (error) {
            state.SkipWithError(error.message().c_str());
            break;
        }
        state.PauseTiming();
        node.reset();
        state.ResumeTiming();
    }
    SetBytes(state, *input);
}

void LibtorrentDecodeEntry(benchmark::State& state, const Input* input) {
    for (auto _ : state) {
        lt::error_code error;
        std::unique_ptr<lt::entry> entry;
        {
            lt::bdecode_node node = lt::bdecode(
                lt::span<char const>(input->bytes.data(), static_cast<long>(input->bytes.size())),
                error);
            if (error) {
                state.SkipWithError(error.message().c_str());
                break;
            }
            entry.reset(new lt::entry(node));
        }
        state.PauseTiming();
        entry.reset();
        state.ResumeTiming();
    }
    SetBytes(state, *input);
}

void LibtorrentBencode(benchmark::State& state, const Input* input) {
    lt::entry entry(lt::bdecode(
        lt::span<char const>(input->bytes.data(), static_cast<long>(input->bytes.size()))));
    for (auto _ : state) {
        std::vector<char> out;
        lt::bencode(std::back_inserter(out), entry);
        benchmark::DoNotOptimize(out.data());
    }
    SetBytes(state, *input);
}

// The like-for-like references: libtorrent reading the same file with one read() into a
// buffer of its size and decoding it, and encoding into a buffer that is then written out.
void LibtorrentFileEntry(benchmark::State& state, const Input* input) {
    for (auto _ : state) {
        std::unique_ptr<lt::entry> entry;
        {
            const int fd = open(input->path.c_str(), O_RDONLY | O_CLOEXEC);
            const size_t size = input->bytes.size();
            std::unique_ptr<char[]> buffer(new char[size]);
            const bool read_ok =
                fd >= 0 && read(fd, buffer.get(), size) == static_cast<ssize_t>(size);
            if (fd >= 0) {
                close(fd);
            }
            lt::error_code error;
            lt::bdecode_node node =
                lt::bdecode(lt::span<char const>(buffer.get(), static_cast<long>(size)), error);
            if (!read_ok || error) {
                state.SkipWithError("file decode failed");
                break;
            }
            entry.reset(new lt::entry(node));
        }
        state.PauseTiming();
        entry.reset();
        state.ResumeTiming();
    }
    SetBytes(state, *input);
}

void LibtorrentBencodeFile(benchmark::State& state, const Input* input, bool newFile) {
    lt::entry entry(lt::bdecode(
        lt::span<char const>(input->bytes.data(), static_cast<long>(input->bytes.size()))));
    for (auto _ : state) {
        if (newFile) {
            state.PauseTiming();
            unlink(input->outPath.c_str());
            state.ResumeTiming();
        }
        std::vector<char> out;
        lt::bencode(std::back_inserter(out), entry);
        const int fd = open(input->outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const bool ok =
            fd >= 0 && write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size());
        if (fd >= 0) {
            close(fd);
        }
        if (!ok) {
            state.SkipWithError("write failed");
            break;
        }
    }
    SetBytes(state, *input);
}

long long LibtorrentLoadGrowth(const Input& input) {
    return PeakGrowth([&input]() {
        const std::string bytes = ReadWholeFile(input.path);
        lt::error_code error;
        lt::bdecode_node node =
            lt::bdecode(lt::span<char const>(bytes.data(), static_cast<long>(bytes.size())), error);
        lt::entry entry(node);
        benchmark::DoNotOptimize(&entry);
    });
}
#endif

// Keeps the throughput of every run, by name, for the summary.
class CSummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        // With repetitions the median stands for the benchmark; a single run stands for
        // itself.
        for (const Run& run : runs) {
            auto found = run.counters.find("bytes_per_second");
            if (run.error_occurred || found == run.counters.end()) {
                continue;
            }
            if (run.run_type == Run::RT_Aggregate) {
                if (run.aggregate_name == "median") {
                    m_rates[run.run_name.str()] = found->second.value;
                }
            } else if (m_rates.find(run.run_name.str()) == m_rates.end()) {
                m_rates[run.run_name.str()] = found->second.value;
            }
        }
    }
    double Rate(const std::string& name) const {
        auto found = m_rates.find(name);
        return found != m_rates.end() ? found->second : 0.0;
    }

private:
    std::map<std::string, double> m_rates;
};

void PrintRatio(const char* label, double mine, double reference, const char* referenceName) {
    if (reference > 0.0) {
        printf("    %-40s %8.1f MB/s  %5.2fx %s\n", label, mine / 1e6, mine / reference,
               referenceName);
    } else {
        printf("    %-40s %8.1f MB/s\n", label, mine / 1e6);
    }
}

void PrintSummary(const CSummaryReporter& reporter) {
    printf(
        "\nSummary (MB = 10^6 bytes; ratios against the reference in the same run).\n"
        "The libtorrent bdecode and bencode figures work on a buffer in memory; the \"file\"\n"
        "ones include the same read() or write() of the file as the library's operations.\n"
        "A rewrite truncates the file of the run before; a new file was removed (untimed).\n");
    for (const Input& input : g_inputs) {
        const std::string prefix = std::string(input.name) + "/";
        const double load = reporter.Rate(prefix + "bencode_load_file");
        const double internalize = reporter.Rate(prefix + "bencode_internalize_memory");
        const double externalize = reporter.Rate(prefix + "bencode_externalize_file");
        const double entry = reporter.Rate(prefix + "libtorrent_bdecode_entry");
        const double tokens = reporter.Rate(prefix + "libtorrent_bdecode_tokens");
        const double bencode = reporter.Rate(prefix + "libtorrent_bencode");
        const double copy = reporter.Rate(prefix + "memcpy");
        const double fileEntry = reporter.Rate(prefix + "libtorrent_file_bdecode_entry");
        const double bencodeFile = reporter.Rate(prefix + "libtorrent_bencode_file");
        printf("  %s (%zu bytes)\n", input.name, input.bytes.size());
        PrintRatio("load, file constructor", load, entry, "libtorrent bdecode->entry");
        PrintRatio("", load, fileEntry, "libtorrent read file + bdecode->entry");
        PrintRatio("", load, tokens, "libtorrent bdecode (tokens)");
        PrintRatio("Internalize, from memory", internalize, entry, "libtorrent bdecode->entry");
        const double rewrite = reporter.Rate(prefix + "bencode_externalize_rewrite");
        const double bencodeRewrite = reporter.Rate(prefix + "libtorrent_bencode_rewrite");
        PrintRatio("Externalize() to a new file", externalize, bencode, "libtorrent bencode");
        PrintRatio("", externalize, bencodeFile, "libtorrent bencode + write new file");
        PrintRatio("Externalize() over the last file", rewrite, bencode, "libtorrent bencode");
        PrintRatio("", rewrite, bencodeRewrite, "libtorrent bencode + rewrite file");
        PrintRatio("serialisation alone, into memory",
                   reporter.Rate(prefix + "bencode_externalize_memory"), bencode,
                   "libtorrent bencode");
        PrintRatio("libtorrent bdecode->entry", entry, 0.0, "");
        PrintRatio("libtorrent bdecode (tokens)", tokens, 0.0, "");
        PrintRatio("libtorrent bencode", bencode, 0.0, "");
        PrintRatio("libtorrent read file + bdecode->entry", fileEntry, 0.0, "");
        PrintRatio("libtorrent bencode + write new file", bencodeFile, 0.0, "");
        PrintRatio("libtorrent bencode + rewrite file", bencodeRewrite, 0.0, "");
        PrintRatio("memcpy (floor)", copy, 0.0, "");

        Loaded loaded;
        const long long mine = PeakGrowth([&input, &loaded]() { Load(input, loaded); });
        Release(loaded);
        printf("    peak heap growth of a load: %.1f MiB", static_cast<double>(mine) / 1048576.0);
#ifdef PW_HAVE_LIBTORRENT
        const long long theirs = LibtorrentLoadGrowth(input);
        printf(", libtorrent file buffer + bdecode + entry: %.1f MiB (%.2fx)",
               static_cast<double>(theirs) / 1048576.0,
               static_cast<double>(mine) / static_cast<double>(theirs));
#endif
        printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    CAppLog::ConfigureSinks(0);
    // Five repetitions, medians only, unless the command line says otherwise: the figures
    // are compared with each other, and a shared machine makes single runs noisy.
    std::vector<char*> arguments(argv, argv + argc);
    bool repetitionsGiven = false;
    for (int i = 1; i < argc; ++i) {
        repetitionsGiven = repetitionsGiven || strncmp(argv[i], "--benchmark_repetitions", 23) == 0;
    }
    char repetitions[] = "--benchmark_repetitions=5";
    char aggregatesOnly[] = "--benchmark_report_aggregates_only=true";
    if (!repetitionsGiven) {
        arguments.push_back(repetitions);
        arguments.push_back(aggregatesOnly);
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());

    char directory[] = "/tmp/bencode-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        perror("bencode_bench: mkdtemp");
        return 1;
    }
    g_inputs.push_back({"payload", false, bencodebench::GeneratePayload(), "", ""});
    g_inputs.push_back({"flat_dictionary", true, bencodebench::GenerateFlatDictionary(), "", ""});
    g_inputs.push_back({"string_list", false, bencodebench::GenerateStringList(), "", ""});
    for (Input& input : g_inputs) {
        input.path = std::string(directory) + "/" + input.name + ".cef";
        input.outPath = input.path + ".out";
        if (input.bytes.empty() || input.bytes.size() > MAX_BENCODE_FILE_SIZE ||
            !WriteWholeFile(input.path, input.bytes)) {
            fprintf(stderr, "bencode_bench: cannot prepare %s\n", input.name);
            return 1;
        }
    }

    for (const Input& input : g_inputs) {
        const std::string prefix = std::string(input.name) + "/";
        benchmark::RegisterBenchmark((prefix + "bencode_load_file").c_str(), BencodeLoad, &input)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "bencode_internalize_memory").c_str(),
                                     BencodeInternalizeFromMemory, &input)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "bencode_externalize_file").c_str(),
                                     BencodeExternalize, &input, true)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "bencode_externalize_rewrite").c_str(),
                                     BencodeExternalize, &input, false)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "bencode_externalize_memory").c_str(),
                                     BencodeExternalizeToMemory, &input)
            ->Unit(benchmark::kMillisecond);
#ifdef PW_HAVE_LIBTORRENT
        benchmark::RegisterBenchmark((prefix + "libtorrent_bdecode_entry").c_str(),
                                     LibtorrentDecodeEntry, &input)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "libtorrent_bdecode_tokens").c_str(),
                                     LibtorrentBdecode, &input)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "libtorrent_bencode").c_str(), LibtorrentBencode,
                                     &input)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "libtorrent_file_bdecode_entry").c_str(),
                                     LibtorrentFileEntry, &input)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "libtorrent_bencode_file").c_str(),
                                     LibtorrentBencodeFile, &input, true)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((prefix + "libtorrent_bencode_rewrite").c_str(),
                                     LibtorrentBencodeFile, &input, false)
            ->Unit(benchmark::kMillisecond);
#endif
        benchmark::RegisterBenchmark((prefix + "memcpy").c_str(), Memcpy, &input)
            ->Unit(benchmark::kMillisecond);
    }

    CSummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintSummary(reporter);
    benchmark::Shutdown();

    for (const Input& input : g_inputs) {
        unlink(input.path.c_str());
        unlink(input.outPath.c_str());
    }
    rmdir(directory);
    return 0;
}
