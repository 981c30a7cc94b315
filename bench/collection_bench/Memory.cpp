// Heap figures of the benchmark process. Every operator new of the process (the plug-in's
// code is linked in) goes through the counting allocator below.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "CollectionBenchSupport.h"

namespace {

std::atomic<size_t> g_liveBytes{0};
std::atomic<size_t> g_peakBytes{0};

// Each block carries its requested size in front of it; the offset keeps malloc's alignment.
const size_t kHeader = alignof(std::max_align_t);

void* Allocate(size_t size) noexcept {
    if (size == 0) {
        size = 1;
    }
    char* block = static_cast<char*>(malloc(size + kHeader));
    if (block == nullptr) {
        return nullptr;
    }
    memcpy(block, &size, sizeof size);
    size_t live = g_liveBytes.fetch_add(size, std::memory_order_relaxed) + size;
    size_t peak = g_peakBytes.load(std::memory_order_relaxed);
    while (live > peak &&
           !g_peakBytes.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
    }
    return block + kHeader;
}

void* AllocateOrThrow(size_t size) {
    void* p = Allocate(size);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

void Release(void* p) noexcept {
    if (p == nullptr) {
        return;
    }
    char* block = static_cast<char*>(p) - kHeader;
    size_t size = 0;
    memcpy(&size, block, sizeof size);
    g_liveBytes.fetch_sub(size, std::memory_order_relaxed);
    free(block);
}

}  // namespace

void* operator new(size_t size) {
    return AllocateOrThrow(size);
}
void* operator new[](size_t size) {
    return AllocateOrThrow(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void operator delete(void* p) noexcept {
    Release(p);
}
void operator delete[](void* p) noexcept {
    Release(p);
}
void operator delete(void* p, size_t) noexcept {
    Release(p);
}
void operator delete[](void* p, size_t) noexcept {
    Release(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    Release(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    Release(p);
}

namespace collectionbench {

size_t HeapLiveBytes() {
    return g_liveBytes.load();
}

size_t HeapPeakBytes() {
    return g_peakBytes.load();
}

void ResetHeapPeak() {
    g_peakBytes.store(g_liveBytes.load());
}

}  // namespace collectionbench
