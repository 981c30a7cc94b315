#include "PostgresServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "ScratchFiles.h"

namespace pwsupport {

namespace {

const char kBin[] = "/usr/lib/postgresql/15/bin/";

// A loopback port nobody listens on now.
int FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return 0;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    close(fd);
    return port;
}

// Starts `args` as `user` (when not null) in `directory`, its output appended to `log`.
pid_t SpawnAs(const passwd* user, const std::string& directory, const std::string& log,
              const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (out < 0 || in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) {
        _exit(126);
    }
    if (user != nullptr && (setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0)) {
        _exit(126);
    }
    if (chdir(directory.c_str()) != 0) {
        _exit(126);
    }
    execv(argv[0], argv.data());
    _exit(127);
}

int WaitFor(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

PostgresServer::~PostgresServer() {
    Stop();
}

bool PostgresServer::Start(std::string& error) {
    char pattern[] = "/tmp/pw-postgres-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        error = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    m_directory = pattern;
    const passwd* user = nullptr;
    if (geteuid() == 0) {
        user = getpwnam("nobody");
        if (user == nullptr || chown(m_directory.c_str(), user->pw_uid, user->pw_gid) != 0) {
            error = "cannot hand " + m_directory + " to the user nobody";
            return false;
        }
    }
    const std::string log = m_directory + "/server.log";
    pid_t initdb = SpawnAs(user, m_directory, log,
                           {std::string(kBin) + "initdb", "-D", m_directory + "/data", "-U",
                            "postgres", "-A", "trust", "-E", "UTF8", "--locale=C", "--no-sync"});
    if (initdb < 0 || WaitFor(initdb) != 0) {
        error = "initdb failed: " + ReadFileOrEmpty(log);
        return false;
    }
    m_port = FreePort();
    m_pid = SpawnAs(user, m_directory, log,
                    {std::string(kBin) + "postgres", "-D", m_directory + "/data", "-p",
                     std::to_string(m_port), "-k", m_directory, "-c", "listen_addresses=127.0.0.1",
                     "-c", "fsync=off", "-c", "max_connections=200"});
    if (m_pid < 0) {
        error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    const std::string uri = Uri("postgres");
    for (int attempt = 0; attempt < 300; ++attempt) {
        if (PQping(uri.c_str()) == PQPING_OK) {
            return true;
        }
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
            m_pid = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    error = "PostgreSQL did not start: " + ReadFileOrEmpty(log);
    return false;
}

std::string PostgresServer::Uri(const std::string& database) const {
    return "postgresql://postgres@127.0.0.1:" + std::to_string(m_port) + "/" + database;
}

bool PostgresServer::CreateDatabase(const std::string& name, std::string& error) {
    PGconn* connection = PQconnectdb(Uri("postgres").c_str());
    bool ok = PQstatus(connection) == CONNECTION_OK;
    if (ok) {
        PGresult* result = PQexec(connection, ("CREATE DATABASE \"" + name + "\"").c_str());
        ok = PQresultStatus(result) == PGRES_COMMAND_OK;
        PQclear(result);
    }
    if (!ok) {
        error = PQerrorMessage(connection);
    }
    PQfinish(connection);
    return ok;
}

void PostgresServer::Stop() {
    if (m_pid > 0) {
        kill(m_pid, SIGINT);  // fast shutdown: clients disconnected, no checkpoint wait
        WaitFor(m_pid);
        m_pid = -1;
    }
    if (!m_directory.empty()) {
        RemoveTree(m_directory);
        m_directory.clear();
    }
}

}  // namespace pwsupport
