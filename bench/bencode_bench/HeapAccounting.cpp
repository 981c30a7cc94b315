// Counting replacements of the global operator new and delete (see HeapAccounting.h).
#include "HeapAccounting.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long long> g_heapInUse{0};
std::atomic<long long> g_heapPeak{0};

void* CountedAllocate(size_t size) {
    void* memory = malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        return nullptr;
    }
    const long long now = g_heapInUse += static_cast<long long>(malloc_usable_size(memory));
    long long peak = g_heapPeak.load(std::memory_order_relaxed);
    while (now > peak && !g_heapPeak.compare_exchange_weak(peak, now)) {
    }
    return memory;
}

void CountedFree(void* memory) {
    if (memory != nullptr) {
        g_heapInUse -= static_cast<long long>(malloc_usable_size(memory));
        free(memory);
    }
}

}  // namespace

namespace bencodebench {

long long HeapInUse() {
    return g_heapInUse.load();
}
long long HeapPeak() {
    return g_heapPeak.load();
}
void ResetHeapPeak() {
    g_heapPeak = g_heapInUse.load();
}

}  // namespace bencodebench

void* operator new(size_t size) {
    void* memory = CountedAllocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new[](size_t size) {
    return operator new(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return CountedAllocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return CountedAllocate(size);
}
void operator delete(void* memory) noexcept {
    CountedFree(memory);
}
void operator delete[](void* memory) noexcept {
    CountedFree(memory);
}
void operator delete(void* memory, size_t) noexcept {
    CountedFree(memory);
}
void operator delete[](void* memory, size_t) noexcept {
    CountedFree(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    CountedFree(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    CountedFree(memory);
}
