// A real PostgreSQL server for the tests: initdb and postgres from
// /usr/lib/postgresql/15/bin, in a temporary directory, listening on a free loopback port
// (and a unix socket in that directory), run as `nobody` when the test runs as root
// (PostgreSQL refuses to run as root). Fsync is off: the tests check what the store
// writes, not the server's own durability. Stopped and removed by the destructor.
#pragma once

#include <sys/types.h>

#include <string>

namespace pwsupport {

class PostgresServer {
public:
    PostgresServer() = default;
    ~PostgresServer();
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    // Makes the cluster and starts the server; false with `error` when it cannot.
    bool Start(std::string& error);
    // postgresql:// URI of `database` on this server, as its superuser.
    std::string Uri(const std::string& database) const;
    // Creates an empty database (a fresh one per test).
    bool CreateDatabase(const std::string& name, std::string& error);
    int port() const { return m_port; }

private:
    void Stop();

    std::string m_directory;
    pid_t m_pid = -1;
    int m_port = 0;
};

}  // namespace pwsupport
