// SQLite behind SqlConnection: WAL, synchronous=FULL (a commit is on disk when it
// returns), prepared statements kept and reused, a busy timeout so that a command run
// beside the service waits for the service's transaction instead of failing.
#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "store/SqlConnection.h"
#include "store/StoreLog.h"

namespace collector {

namespace {

constexpr int kBusyTimeoutMs = 30000;
// A bulk load's page cache, and the size of its write-ahead log past which the writer
// copies the log into the database itself (a batch of the fleet's reports is about 18,500
// pages of 8 KiB; a store made with 4 KiB pages takes twice as many, within the same cap).
// Each time the cap is reached the load waits while the last batch is copied (0.5 to
// 0.8 s, ten times in the fleet's year). A cap of 3 GiB waited twice and was no faster,
// likely because each page the load reads that its cache does not hold is looked up in
// an index of the log that grows with it.
constexpr int kBulkCacheKiB = 512 * 1024;
constexpr int kLogCapPages = 96 * 1024;
// The size the log file is cut back to when a writer starts it again from its beginning,
// so that a bulk load's or a purge's log does not keep its disk space; a bulk load lifts
// the limit while it runs (its log is written over, not cut and grown again).
constexpr char kJournalSizeLimit[] = "PRAGMA journal_size_limit=67108864;";

struct StatementDeleter {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

struct CachedStatement {
    StatementPtr statement;
    std::vector<int> slots;  // slots[i]: the bind index of $(i+1), 0 when unused
};

// The first words of a statement, enough to find it in the source from a log line.
std::string Head(const std::string& sql) {
    return sql.substr(0, std::min<size_t>(sql.size(), 60));
}

StoreResult MapCode(int code) {
    switch (code & 0xff) {
        case SQLITE_FULL:
        case SQLITE_IOERR:
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_CANTOPEN:
        case SQLITE_READONLY:
        case SQLITE_PROTOCOL:
            return StoreResult::Unavailable;
        default:
            return StoreResult::Error;
    }
}

// Flushes the file at `path` to the disk; a file that is not there has nothing to flush
// (the log is removed when the last connection closes).
bool SyncFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT;
    }
    const bool synced = fsync(fd) == 0;
    const int saved = errno;
    close(fd);
    errno = saved;
    return synced;
}

// Makes `directory` and its missing parents, each new one 0700.
bool MakePrivateDirectories(const std::string& directory) {
    if (directory.empty()) {
        return true;
    }
    struct stat status;
    if (stat(directory.c_str(), &status) == 0) {
        return S_ISDIR(status.st_mode);
    }
    size_t slash = directory.find_last_of('/');
    if (slash != std::string::npos && slash > 0 &&
        !MakePrivateDirectories(directory.substr(0, slash))) {
        return false;
    }
    return mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST;
}

// Copies a bulk load's write-ahead log into the database on a thread and connection of its
// own, after each commit, while the load writes its next batch on the other core. In the
// loading thread these copies took a sixth of its time. A checkpoint that readers hold back
// copies what it can; the log starts again from its beginning once all of it is copied.
class Checkpointer {
public:
    explicit Checkpointer(std::unique_ptr<SqlConnection> connection)
        : m_connection(std::move(connection)), m_thread([this] { Run(); }) {}
    ~Checkpointer() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
    Checkpointer(const Checkpointer&) = delete;
    Checkpointer& operator=(const Checkpointer&) = delete;

    // The wal hook: called by the loading connection after each commit, with the log's
    // size in pages. The log starts again only when all of it is in the database as a
    // transaction begins, which a checkpointer running beside a busy writer never reaches:
    // past a cap, the writer waits for the checkpointer and copies the last commit itself.
    static int Committed(void* self, sqlite3* db, const char*, int pages) {
        Checkpointer* checkpointer = static_cast<Checkpointer*>(self);
        std::unique_lock<std::mutex> lock(checkpointer->m_mutex);
        if (pages < kLogCapPages) {
            checkpointer->m_pending = true;
            lock.unlock();
            checkpointer->m_wake.notify_one();
            return SQLITE_OK;
        }
        checkpointer->m_idle.wait(
            lock, [checkpointer] { return !checkpointer->m_running && !checkpointer->m_pending; });
        lock.unlock();
        sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
        return SQLITE_OK;
    }

private:
    void Run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [this] { return m_stopping || m_pending; });
            if (m_stopping) {
                return;
            }
            m_pending = false;
            m_running = true;
            lock.unlock();
            m_connection->ExecScript("PRAGMA wal_checkpoint(PASSIVE)");
            lock.lock();
            m_running = false;
            m_idle.notify_all();
        }
    }

    std::unique_ptr<SqlConnection> m_connection;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_idle;
    bool m_pending = false;
    bool m_running = false;
    bool m_stopping = false;
    std::thread m_thread;  // last: it starts once the rest is ready
};

class SqliteConnection : public SqlConnection {
public:
    explicit SqliteConnection(sqlite3* db) : m_db(db) {}
    ~SqliteConnection() override {
        // The checkpointer first, so that this connection, the last to close, copies what
        // is left of the log into the database and removes it.
        StopCheckpointer();
        m_statements.clear();
        sqlite3_close_v2(m_db);
    }

    SqlDialect Dialect() const override { return SqlDialect::Sqlite; }

    StoreResult Exec(const std::string& sql, const std::vector<SqlValue>& params,
                     std::vector<SqlRow>* rows) override {
        CachedStatement* cached = Prepare(sql);
        if (cached == nullptr) {
            return StoreResult::Error;
        }
        sqlite3_stmt* statement = cached->statement.get();
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
        for (size_t i = 0; i < params.size() && i < cached->slots.size(); ++i) {
            int slot = cached->slots[i];
            if (slot == 0) {
                continue;
            }
            const SqlValue& value = params[i];
            switch (value.type) {
                case SqlValue::Type::Null:
                    sqlite3_bind_null(statement, slot);
                    break;
                case SqlValue::Type::Integer:
                    sqlite3_bind_int64(statement, slot, value.integer);
                    break;
                case SqlValue::Type::Text:
                    sqlite3_bind_text64(statement, slot, value.Bytes().data(), value.Bytes().size(),
                                        SQLITE_STATIC, SQLITE_UTF8);
                    break;
                case SqlValue::Type::Blob:
                    sqlite3_bind_blob64(statement, slot, value.Bytes().data(), value.Bytes().size(),
                                        SQLITE_STATIC);
                    break;
            }
        }
        for (;;) {
            int code = sqlite3_step(statement);
            if (code == SQLITE_DONE) {
                break;
            }
            if (code != SQLITE_ROW) {
                return Fail("sqlite3_step", code, sql);
            }
            if (rows == nullptr) {
                continue;
            }
            int columns = sqlite3_column_count(statement);
            SqlRow row(columns);
            for (int c = 0; c < columns; ++c) {
                if (sqlite3_column_type(statement, c) == SQLITE_NULL) {
                    continue;
                }
                const void* data = sqlite3_column_blob(statement, c);
                int size = sqlite3_column_bytes(statement, c);
                row[c].null = false;
                if (size > 0) {
                    row[c].bytes.assign(static_cast<const char*>(data), size);
                }
            }
            rows->push_back(std::move(row));
        }
        sqlite3_reset(statement);
        return StoreResult::Ok;
    }

    // Cells are copied from SQLite's own bytes either way.
    StoreResult ExecBinary(const std::string& sql, const std::vector<SqlValue>& params,
                           std::vector<SqlRow>* rows) override {
        return Exec(sql, params, rows);
    }

    // In-process: a batch is its statements one after the other.
    StoreResult ExecBatch(const std::vector<SqlStatement>& statements,
                          std::vector<std::vector<SqlRow>>* rows) override {
        if (rows != nullptr) {
            rows->assign(statements.size(), {});
        }
        for (size_t i = 0; i < statements.size(); ++i) {
            const SqlStatement& statement = statements[i];
            std::vector<SqlRow>* into = rows != nullptr ? &(*rows)[i] : nullptr;
            StoreResult result =
                Exec(statement.sql, statement.params, statement.returnsInsertedId ? nullptr : into);
            if (result != StoreResult::Ok) {
                return result;
            }
            if (statement.returnsInsertedId && into != nullptr && sqlite3_changes(m_db) > 0) {
                SqlRow row(1);
                row[0].null = false;
                row[0].bytes = std::to_string(sqlite3_last_insert_rowid(m_db));
                into->push_back(std::move(row));
            }
        }
        return StoreResult::Ok;
    }

    StoreResult ExecScript(const std::string& sql) override {
        char* message = nullptr;
        int code = sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &message);
        if (code != SQLITE_OK) {
            STORE_LOG(CAppLog::Error, "SQLite: %s (%s)", message ? message : "?",
                      Head(sql).c_str());
            sqlite3_free(message);
            return MapCode(code);
        }
        return StoreResult::Ok;
    }

    // BEGIN IMMEDIATE takes the write lock at once, so a transaction never fails half-way
    // for want of it; the busy timeout waits for another process's transaction.
    StoreResult Begin() override { return ExecScript("BEGIN IMMEDIATE"); }
    StoreResult Commit() override { return ExecScript("COMMIT"); }
    void Rollback() override {
        if (!sqlite3_get_autocommit(m_db)) {
            sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    bool LastFailureRetryable() const override { return false; }

    // One writer at a time already: the schema is changed inside BEGIN IMMEDIATE.
    StoreResult LockSchema() override { return StoreResult::Ok; }
    void UnlockSchema() override {}

    // Also refreshes the planner's statistics (sampled, so it takes milliseconds): with
    // them it walks the index of the rarest filter when a listing combines several.
    StoreResult Reclaim() override {
        return ExecScript(
            "PRAGMA incremental_vacuum; PRAGMA wal_checkpoint(TRUNCATE); "
            "PRAGMA analysis_limit=1000; ANALYZE;");
    }

    // A batch of a bulk load dirties pages all over the indexes keyed by machine; a larger
    // cache keeps those pages in memory between batches. An insert of several rows also
    // saves the pages it changes in a statement journal (so that a failed statement can be
    // undone alone), a temporary file written page by page: in memory it costs no system
    // calls. The log is copied into the database by a checkpointer of its own (its wal hook
    // replaces the automatic checkpoints).
    // A commit does not wait for the log to reach the disk (EndBulkLoad syncs it once):
    // the load reports nothing stored before its end, and the log stays whole, so a crash
    // can only take the last batches back, never leave half of one. Other connections'
    // commits sync the log as always, this load's frames before theirs included. The load
    // only inserts rows that refer to rows it has just inserted, so its connection skips
    // the foreign key checks (deletes by others still cascade). Its indexes built at the
    // end sort on two threads (in small runs in temporary files, see Schema).
    StoreResult PrepareForBulkLoad() override {
        StoreResult result = ExecScript("PRAGMA cache_size=-" + std::to_string(kBulkCacheKiB) +
                                        "; PRAGMA temp_store=MEMORY; PRAGMA synchronous=NORMAL; "
                                        "PRAGMA foreign_keys=OFF; PRAGMA threads=2; "
                                        "PRAGMA journal_size_limit=-1;");
        if (result != StoreResult::Ok || m_checkpointer) {
            return result;
        }
        std::string error;
        std::unique_ptr<SqlConnection> second =
            OpenSqlite(sqlite3_db_filename(m_db, "main"), error);
        if (!second) {
            // The automatic checkpoints go on in this thread.
            STORE_LOG(CAppLog::Warning, "SQLite: no checkpointer for the bulk load: %s",
                      error.c_str());
            return StoreResult::Ok;
        }
        m_checkpointer = std::make_unique<Checkpointer>(std::move(second));
        sqlite3_wal_hook(m_db, &Checkpointer::Committed, m_checkpointer.get());
        return StoreResult::Ok;
    }

    // What is left of the log is copied into the database here rather than when the
    // connection closes, so that the next write of any connection (a service's beside the
    // load) finds all of it copied, starts the log again and cuts its file back to the
    // limit.
    StoreResult EndBulkLoad() override {
        StoreResult result = ExecScript("PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON; " +
                                        std::string(kJournalSizeLimit));
        StopCheckpointer();
        if (result == StoreResult::Ok) {
            result = ExecScript("PRAGMA wal_checkpoint(PASSIVE)");
        }
        const std::string database = sqlite3_db_filename(m_db, "main");
        for (const std::string& path : {database + "-wal", database}) {
            if (result == StoreResult::Ok && !SyncFile(path)) {
                STORE_LOG(CAppLog::Error, "SQLite: cannot sync %s: %s", path.c_str(),
                          std::strerror(errno));
                result = StoreResult::Unavailable;
            }
        }
        return result;
    }

private:
    // Unhooked first, so that no commit wakes it while it is joined.
    void StopCheckpointer() {
        if (m_checkpointer) {
            sqlite3_wal_hook(m_db, nullptr, nullptr);
            m_checkpointer.reset();
        }
    }

    CachedStatement* Prepare(const std::string& sql) {
        auto found = m_statements.find(sql);
        if (found != m_statements.end()) {
            return &found->second;
        }
        sqlite3_stmt* raw = nullptr;
        int code = sqlite3_prepare_v3(m_db, sql.c_str(), static_cast<int>(sql.size()),
                                      SQLITE_PREPARE_PERSISTENT, &raw, nullptr);
        if (code != SQLITE_OK) {
            Fail("sqlite3_prepare_v3", code, sql);
            return nullptr;
        }
        CachedStatement cached;
        cached.statement.reset(raw);
        // SQLite numbers "$N" parameters in the order they first appear, whatever N is.
        int count = sqlite3_bind_parameter_count(raw);
        for (int slot = 1; slot <= count; ++slot) {
            const char* name = sqlite3_bind_parameter_name(raw, slot);
            int number = name != nullptr && name[0] == '$' ? std::atoi(name + 1) : 0;
            if (number > 0) {
                if (cached.slots.size() < static_cast<size_t>(number)) {
                    cached.slots.resize(number, 0);
                }
                cached.slots[number - 1] = slot;
            }
        }
        return &m_statements.emplace(sql, std::move(cached)).first->second;
    }

    StoreResult Fail(const char* call, int code, const std::string& sql) {
        STORE_LOG(CAppLog::Error, "%s: %s (%d) in \"%s\"", call, sqlite3_errmsg(m_db), code,
                  Head(sql).c_str());
        return MapCode(code);
    }

    sqlite3* m_db;
    std::map<std::string, CachedStatement> m_statements;
    std::unique_ptr<Checkpointer> m_checkpointer;
};

}  // namespace

int64_t SqlCell::Int() const {
    return null ? 0 : std::strtoll(bytes.c_str(), nullptr, 10);
}

std::unique_ptr<SqlConnection> OpenSqlite(const std::string& path, std::string& error) {
    size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && !MakePrivateDirectories(path.substr(0, slash))) {
        error = "cannot make the directory of " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    // Made here with mode 0600 so that SQLite, which gives its WAL and shared-memory files
    // the mode of the database file, keeps all three private.
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot open " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    close(fd);
    // SQLite's count of the memory it holds takes a global mutex on every allocation, which
    // the loading thread paid for on each row; nothing here reads that count.
    static std::once_flag configured;
    std::call_once(configured, [] { sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); });
    sqlite3* db = nullptr;
    int code =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (code != SQLITE_OK) {
        error = std::string("cannot open ") + path + ": " + sqlite3_errstr(code);
        sqlite3_close_v2(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    auto connection = std::make_unique<SqliteConnection>(db);
    // page_size and auto_vacuum only take effect before the first table exists. Pages of
    // 8 KiB: a report's row, its body's overflow pages and the log's frames take half as
    // many pages (and system calls) as with 4 KiB; an index page a commit changes costs
    // twice the bytes in the log. On the fleet's year of files a bulk load took 130 s with
    // 8 KiB, 134 s with 16 KiB and 162 s with 4 KiB. A purge can give pages back with
    // incremental_vacuum instead of a full VACUUM. A 16 MiB page cache per
    // connection: a page it does not hold is one read from the system's file cache away,
    // and the service keeps its resident memory for its connections (a bulk load asks for
    // more, PrepareForBulkLoad).
    if (connection->ExecScript(std::string("PRAGMA page_size=8192; PRAGMA auto_vacuum=INCREMENTAL; "
                                           "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; "
                                           "PRAGMA foreign_keys=ON; PRAGMA cache_size=-16384; ") +
                               kJournalSizeLimit) != StoreResult::Ok) {
        error = "cannot set up " + path + ": " + sqlite3_errmsg(db);
        return nullptr;
    }
    return connection;
}

}  // namespace collector
