// The little the store needs from a database client: statements with numbered parameters
// ($1, $2, ...), rows of byte strings back, and transactions. One implementation per
// back end (SqliteConnection, PostgresConnection); the store's logic (SqlStore) is
// written once over this.
//
// Text parameters are bytes: any byte sequence, NUL and invalid UTF-8 included, comes
// back exactly as it went in. Threads: one thread at a time, like the Store that owns it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "store/Store.h"

namespace collector {

struct SqlValue {
    enum class Type { Null, Integer, Text, Blob } type = Type::Null;
    int64_t integer = 0;
    std::string text;

    SqlValue() = default;
    SqlValue(int64_t value) : type(Type::Integer), integer(value) {}
    SqlValue(int value) : type(Type::Integer), integer(value) {}
    SqlValue(const std::string& value) : type(Type::Text), text(value) {}
    SqlValue(const char* value) : type(Type::Text), text(value) {}
    static SqlValue Blob(const std::string& bytes) {
        SqlValue value(bytes);
        value.type = Type::Blob;
        return value;
    }
    // Bytes that outlive the statement (a field of a report being stored), bound without
    // a copy: a batch's bodies would otherwise be copied once more on the writing thread.
    static SqlValue TextView(const std::string& bytes) { return View(Type::Text, bytes); }
    static SqlValue BlobView(const std::string& bytes) { return View(Type::Blob, bytes); }

    const std::string& Bytes() const { return view != nullptr ? *view : text; }

private:
    static SqlValue View(Type type, const std::string& bytes) {
        SqlValue value;
        value.type = type;
        value.view = &bytes;
        return value;
    }
    const std::string* view = nullptr;
};

// A result cell: bytes, or null.
struct SqlCell {
    bool null = true;
    std::string bytes;
    int64_t Int() const;
};
using SqlRow = std::vector<SqlCell>;

// One statement of a batch.
struct SqlStatement {
    std::string sql;
    std::vector<SqlValue> params;
    // A one-row INSERT ... ON CONFLICT DO NOTHING whose rows are to be the new row's id (one
    // row), or none when the row was not inserted: RETURNING id, which the connection adds
    // (PostgreSQL) or replaces by asking for the row it inserted (SQLite, where RETURNING
    // runs the insert through a trigger program and saves each page it changes in a
    // statement journal first).
    bool returnsInsertedId = false;
};

enum class SqlDialect { Sqlite, Postgres };

class SqlConnection {
public:
    virtual ~SqlConnection() = default;
    virtual SqlDialect Dialect() const = 0;

    // Runs one statement; its rows are appended to `rows` when not null. A failure is
    // logged with the statement's first words and mapped to Unavailable (storage gone,
    // full, busy past the timeout) or Error.
    virtual StoreResult Exec(const std::string& sql, const std::vector<SqlValue>& params,
                             std::vector<SqlRow>* rows) = 0;
    // Exec for large results: byte and text columns come as their bytes, where a back end
    // would otherwise send them as text to decode (PostgreSQL's binary results). The
    // statement selects only integer, byte and text columns.
    virtual StoreResult ExecBinary(const std::string& sql, const std::vector<SqlValue>& params,
                                   std::vector<SqlRow>* rows) = 0;
    // Runs `statements` in order, as Exec would one by one, but in one exchange with the
    // server where the back end has one (PostgreSQL's pipeline): a batch costs one round
    // trip however many statements it holds. The rows of statement i are appended to
    // (*rows)[i] when `rows` is not null (made to hold one empty list per statement first). The
    // first failure stops the batch and is returned as Exec would return it.
    virtual StoreResult ExecBatch(const std::vector<SqlStatement>& statements,
                                  std::vector<std::vector<SqlRow>>* rows) = 0;
    // Runs several statements without parameters (schema).
    virtual StoreResult ExecScript(const std::string& sql) = 0;

    // BEGIN (write intent: SQLite takes its lock at once), COMMIT, ROLLBACK.
    virtual StoreResult Begin() = 0;
    virtual StoreResult Commit() = 0;
    virtual void Rollback() = 0;
    // True when the last failure was a conflict that a retry of the whole transaction
    // resolves (PostgreSQL deadlock or serialization failure).
    virtual bool LastFailureRetryable() const = 0;

    // Serialises schema changes between processes starting at once; released by Unlock.
    virtual StoreResult LockSchema() = 0;
    virtual void UnlockSchema() = 0;

    // Gives the space of deleted rows back (after a purge); outside a transaction.
    virtual StoreResult Reclaim() = 0;

    // This connection will write many large transactions in a row (see Store), and has
    // written its last (EndBulkLoad).
    virtual StoreResult PrepareForBulkLoad() = 0;
    virtual StoreResult EndBulkLoad() = 0;
};

// `path`: a SQLite file, made 0600 in a directory made 0700 when missing.
std::unique_ptr<SqlConnection> OpenSqlite(const std::string& path, std::string& error);
// `uri`: a postgresql:// connection URI.
std::unique_ptr<SqlConnection> OpenPostgres(const std::string& uri, std::string& error);

}  // namespace collector
