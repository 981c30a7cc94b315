// Interposed malloc, calloc, realloc, free and the aligned allocators (see HeapAccounting.h).
// Each forwards to the C library's own entry point and, while a window is open, adds or
// subtracts the usable size of the block.
#include "HeapAccounting.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long long> g_inUse{0};
std::atomic<long long> g_peak{0};

void Count(long long delta) {
    const long long now = g_inUse.fetch_add(delta, std::memory_order_relaxed) + delta;
    long long peak = g_peak.load(std::memory_order_relaxed);
    while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

void* Counted(void* block) {
    if (block != nullptr && g_counting.load(std::memory_order_relaxed)) {
        Count(static_cast<long long>(malloc_usable_size(block)));
    }
    return block;
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
    return Counted(__libc_malloc(size));
}

void* calloc(size_t count, size_t size) {
    return Counted(__libc_calloc(count, size));
}

void* realloc(void* block, size_t size) {
    if (!g_counting.load(std::memory_order_relaxed)) {
        return __libc_realloc(block, size);
    }
    const long long before =
        block != nullptr ? static_cast<long long>(malloc_usable_size(block)) : 0;
    void* grown = __libc_realloc(block, size);
    if (grown != nullptr) {
        Count(static_cast<long long>(malloc_usable_size(grown)) - before);
    } else if (size == 0 && block != nullptr) {
        Count(-before);  // realloc(p, 0) freed the block
    }
    return grown;
}

void free(void* block) {
    if (block != nullptr && g_counting.load(std::memory_order_relaxed)) {
        Count(-static_cast<long long>(malloc_usable_size(block)));
    }
    __libc_free(block);
}

void* memalign(size_t alignment, size_t size) {
    return Counted(__libc_memalign(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) {
    return Counted(__libc_memalign(alignment, size));
}

int posix_memalign(void** out, size_t alignment, size_t size) {
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) {
        return EINVAL;
    }
    void* block = Counted(__libc_memalign(alignment, size));
    if (block == nullptr) {
        return ENOMEM;
    }
    *out = block;
    return 0;
}

}  // extern "C"

namespace bencodebench {

long long PeakHeapGrowth(void (*work)(void*), void* context) {
    g_inUse.store(0);
    g_peak.store(0);
    g_counting.store(true);
    work(context);
    g_counting.store(false);
    return g_peak.load();
}

}  // namespace bencodebench
