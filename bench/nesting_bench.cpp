// How deep the recursive bencode reader can go before it exhausts a thread's stack. Nesting
// is unbounded by design, so a hostile file of nested lists or dictionaries can crash the
// process that reads it; this program finds the deepest nesting that a host thread with an
// 8 MiB stack (the default; another size in MiB as the first argument) still reads and frees.
// Each probe runs in a child process, since the failing ones die of the overflow.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "AppLog.h"
#include "Bencode.h"

namespace {

enum class Shape { Lists, Dictionaries, Alternating };

// `depth` nested containers of `shape`, each holding only the next one.
std::string Nested(Shape shape, unsigned int depth) {
    std::string text;
    for (unsigned int level = 0; level < depth; ++level) {
        const bool dictionary =
            shape == Shape::Dictionaries || (shape == Shape::Alternating && level % 2 == 1);
        const bool insideDictionary =
            level > 0 &&
            (shape == Shape::Dictionaries || (shape == Shape::Alternating && level % 2 == 0));
        text += insideDictionary ? "1:k" : "";
        text += dictionary ? 'd' : 'l';
    }
    text.append(depth, 'e');
    return text;
}

struct Probe {
    std::string input;
    bool dictionary;
};

void* ReadAndFree(void* argument) {
    const Probe& probe = *static_cast<const Probe*>(argument);
    CBencodeStream stream("", false);
    stream.Write(probe.input.data(), static_cast<unsigned int>(probe.input.size()));
    std::unique_ptr<CBencode> root(probe.dictionary
                                       ? static_cast<CBencode*>(new CBencodeDictionary(false))
                                       : new CBencodeList(false));
    return root->Internalize(stream) ? argument : nullptr;
}

// Whether a thread with `stackBytes` of stack reads and frees `depth` levels of `shape`.
bool Survives(Shape shape, unsigned int depth, size_t stackBytes) {
    const Probe probe{Nested(shape, depth), shape == Shape::Dictionaries};
    const pid_t child = fork();
    if (child == 0) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, stackBytes);
        pthread_t thread;
        void* result = nullptr;
        if (pthread_create(&thread, &attributes, ReadAndFree, const_cast<Probe*>(&probe)) != 0 ||
            pthread_join(thread, &result) != 0) {
            _exit(2);
        }
        _exit(result != nullptr ? 0 : 1);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    CAppLog::ConfigureSinks(0);
    const size_t stackMiB = argc > 1 ? strtoul(argv[1], nullptr, 10) : 8;
    const size_t stackBytes = (stackMiB != 0 ? stackMiB : 8) << 20;
    const struct {
        Shape shape;
        const char* name;
    } shapes[] = {{Shape::Lists, "lists"},
                  {Shape::Dictionaries, "dictionaries"},
                  {Shape::Alternating, "alternating list/dictionary"}};
    printf("Deepest nesting read and freed on a thread with a %zu MiB stack:\n", stackBytes >> 20);
    for (const auto& entry : shapes) {
        unsigned int low = 1;  // survives
        unsigned int high = 4000000;
        if (Survives(entry.shape, high, stackBytes)) {
            printf("  %-28s more than %u levels\n", entry.name, high);
            continue;
        }
        while (high - low > 1) {
            const unsigned int middle = low + (high - low) / 2;
            (Survives(entry.shape, middle, stackBytes) ? low : high) = middle;
        }
        printf("  %-28s %u levels (%zu bytes of input)\n", entry.name, low,
               Nested(entry.shape, low).size());
    }
    return 0;
}
