// Child processes for the tests and the benchmarks.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace pwsupport {

// Runs `args` (argv[0] looked up in PATH) without waiting. When `out` is not null the
// child's stdout goes into a pipe whose read end is stored there. When `quiet` is set the
// child's stderr, and its stdout when not piped, go to /dev/null. Returns the child's pid,
// or -1 with `*error` (when not null) saying which call failed.
pid_t Spawn(const std::vector<std::string>& args, int* out, bool quiet, std::string* error);

// Waits for `pid`; its exit status, -1 if it did not exit normally or cannot be waited for.
int WaitExit(pid_t pid);

// Spawn() and WaitExit(); the exit status, -1 if it did not run.
int RunProcess(const std::vector<std::string>& args, bool quiet);

}  // namespace pwsupport
