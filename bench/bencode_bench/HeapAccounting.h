// Heap accounting for the bencode benchmark: this program interposes the C library's
// allocation functions, so that every heap block of the process (operator new, the stream's
// malloc'd buffer, the reference library's allocations) can be counted by the size that
// malloc really reserved. Counting is off outside a measuring window, so that the timed
// runs pay nothing for it.
#pragma once

namespace bencodebench {

// Heap growth at its peak while `work` runs, in bytes. Blocks allocated before the window
// and freed inside it lower the figure, so the work measured should free only what it
// allocated itself.
long long PeakHeapGrowth(void (*work)(void*), void* context);

template <typename Work>
long long PeakHeapGrowth(Work& work) {
    return PeakHeapGrowth([](void* context) { (*static_cast<Work*>(context))(); }, &work);
}

}  // namespace bencodebench
