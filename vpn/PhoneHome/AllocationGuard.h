// Allocation failures end at the plug-in's boundaries. The plug-in runs inside the host's
// long-running process: memory that cannot be had for one operation (a file too large to
// hold, a tree too large to build) makes that operation fail as any other failure does,
// with its usual result and log line, and must never unwind into the host and end it.
// Entry points, timer and event handlers and the directory watcher's callback run their
// work through UnlessOutOfMemory; the destructors that the host reaches swallow it.
#pragma once

#include <new>

namespace phonehome {

// Runs `operation` and returns its result, or `failed` when an allocation inside it failed.
template <typename Result, typename Operation>
Result UnlessOutOfMemory(Result failed, Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return failed;
    }
}

// Runs `operation`, which returns nothing; false when an allocation inside it failed.
template <typename Operation>
bool RanWithMemory(Operation operation) {
    try {
        operation();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace phonehome
