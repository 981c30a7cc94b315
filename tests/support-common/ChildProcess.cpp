#include "ChildProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace pwsupport {

pid_t Spawn(const std::vector<std::string>& args, int* out, bool quiet, std::string* error) {
    int fds[2] = {-1, -1};
    if (out != nullptr && pipe2(fds, O_CLOEXEC) != 0) {
        if (error != nullptr) {
            *error = std::string("pipe2: ") + strerror(errno);
        }
        return -1;
    }
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (out != nullptr) {
            dup2(fds[1], STDOUT_FILENO);
        }
        if (quiet) {
            int devnull = open("/dev/null", O_WRONLY);
            if (devnull >= 0) {
                dup2(devnull, STDERR_FILENO);
                if (out == nullptr) {
                    dup2(devnull, STDOUT_FILENO);
                }
            }
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    if (pid < 0 && error != nullptr) {
        *error = std::string("fork: ") + strerror(errno);
    }
    if (out != nullptr) {
        close(fds[1]);
        if (pid > 0) {
            *out = fds[0];
        } else {
            close(fds[0]);
        }
    }
    return pid;
}

int WaitExit(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunProcess(const std::vector<std::string>& args, bool quiet) {
    pid_t pid = Spawn(args, nullptr, quiet, nullptr);
    return pid > 0 ? WaitExit(pid) : -1;
}

}  // namespace pwsupport
