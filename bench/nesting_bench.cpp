// Reading, writing, comparing and freeing the deepest nesting that a file within the size
// limit can hold (about 10 MB of nested lists, dictionaries, or both in turn). The walks
// keep their place on the heap, so their cost per level is what matters here: it should
// stay close to that of a flat tree of the same number of values.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "AppLog.h"
#include "Bencode.h"

namespace {

enum Shape { kLists, kDictionaries, kAlternating };
enum Operation { kRead, kWrite, kCompare, kFree };

// `depth` containers, each holding only the next one (under the empty key in a dictionary).
std::string Nested(Shape shape, unsigned int depth, bool& dictionaryRoot) {
    std::string text;
    for (unsigned int level = 0; level < depth; ++level) {
        const bool dictionary = shape == kDictionaries || (shape == kAlternating && level % 2 == 1);
        text += dictionary ? "d0:" : "l";
    }
    text += "i1e";
    text.append(depth, 'e');
    dictionaryRoot = shape == kDictionaries;
    return text;
}

std::unique_ptr<CBencode> Read(const std::string& text, bool dictionaryRoot) {
    CBencodeStream stream("", false);
    stream.Write(text.data(), static_cast<unsigned int>(text.size()));
    std::unique_ptr<CBencode> root(dictionaryRoot
                                       ? static_cast<CBencode*>(new CBencodeDictionary(false))
                                       : new CBencodeList(false));
    return root->Internalize(stream) ? std::move(root) : nullptr;
}

void Nesting(benchmark::State& state, Shape shape, unsigned int depth, Operation operation) {
    bool dictionaryRoot = false;
    const std::string text = Nested(shape, depth, dictionaryRoot);
    std::unique_ptr<CBencode> tree = Read(text, dictionaryRoot);
    std::unique_ptr<CBencode> copy = Read(text, dictionaryRoot);
    if (!tree || !copy) {
        state.SkipWithError("the nested text does not read");
        return;
    }
    for (auto _ : state) {
        if (operation == kRead || operation == kFree) {
            state.PauseTiming();
            tree.reset();
            if (operation == kFree) {
                tree = Read(text, dictionaryRoot);
            }
            state.ResumeTiming();
        }
        if (operation == kRead) {
            tree = Read(text, dictionaryRoot);
        } else if (operation == kWrite) {
            CBencodeStream out("", false);
            benchmark::DoNotOptimize(tree->Externalize(out));
        } else if (operation == kCompare) {
            benchmark::DoNotOptimize(*tree == *copy);
        } else {
            tree.reset();
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(text.size()));
    state.counters["levels"] = depth;
}

}  // namespace

int main(int argc, char** argv) {
    CAppLog::ConfigureSinks(0);
    benchmark::Initialize(&argc, argv);
    // Depths that fill about 10 MB of text.
    const struct {
        Shape shape;
        const char* name;
        unsigned int depth;
    } shapes[] = {{kLists, "lists", 5000000},
                  {kDictionaries, "dictionaries", 2500000},
                  {kAlternating, "alternating", 3300000}};
    const char* operations[] = {"read", "write", "compare", "free"};
    for (const auto& shape : shapes) {
        for (int operation = kRead; operation <= kFree; ++operation) {
            benchmark::RegisterBenchmark(
                (std::string(shape.name) + "/" + operations[operation]).c_str(), Nesting,
                shape.shape, shape.depth, static_cast<Operation>(operation))
                ->Unit(benchmark::kMillisecond)
                ->Iterations(3);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
