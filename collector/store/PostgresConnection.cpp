// PostgreSQL behind SqlConnection, through libpq: statements prepared once per
// connection, integers sent as int8 text and byte strings as binary bytea (so that any
// byte, NUL and invalid UTF-8 included, round-trips), results as text (binary for
// ExecBinary), a lost connection re-established before the next statement outside a
// transaction.
#include <libpq-fe.h>

#include <array>
#include <map>

#include "store/SqlConnection.h"
#include "store/StoreLog.h"

namespace collector {

namespace {

constexpr Oid kInt8Oid = 20;
constexpr Oid kInt2Oid = 21;
constexpr Oid kInt4Oid = 23;
constexpr Oid kByteaOid = 17;
constexpr int kTextResults = 0;
constexpr int kBinaryResults = 1;
// Taken by every node before it looks at the schema version (pg_advisory_lock).
constexpr long long kSchemaLockKey = 0x70770c01;

struct ResultDeleter {
    void operator()(PGresult* result) const { PQclear(result); }
};
using ResultPtr = std::unique_ptr<PGresult, ResultDeleter>;

std::string Head(const std::string& sql) {
    return sql.substr(0, std::min<size_t>(sql.size(), 60));
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    return (c | 0x20) - 'a' + 10;
}

// bytea's text output "\x0a1b..." as bytes.
std::string FromHex(const char* text, int length) {
    std::string bytes;
    if (length < 2 || text[0] != '\\' || text[1] != 'x') {
        return std::string(text, length);
    }
    // Reports are megabytes of it: written in place, each digit looked up in a table rather
    // than told apart by a branch that the processor cannot predict.
    static const std::array<unsigned char, 256> digits = [] {
        std::array<unsigned char, 256> table{};
        for (int c = 0; c < 256; ++c) {
            table[c] = static_cast<unsigned char>(HexDigit(static_cast<char>(c)));
        }
        return table;
    }();
    bytes.resize(static_cast<size_t>(length - 2) / 2);
    char* out = &bytes[0];
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text) + 2;
    for (size_t i = 0; i < bytes.size(); ++i, in += 2) {
        out[i] = static_cast<char>(digits[in[0]] << 4 | digits[in[1]]);
    }
    return bytes;
}

// A cell of a binary result as a text cell would hold it: an integer (sent big-endian) in
// decimal, bytes and text as they are.
std::string FromBinary(Oid type, const char* data, int length) {
    const int width = type == kInt8Oid ? 8 : type == kInt4Oid ? 4 : type == kInt2Oid ? 2 : 0;
    if (width == 0 || length != width) {
        return std::string(data, length);
    }
    uint64_t bits = 0;
    for (int i = 0; i < width; ++i) {
        bits = bits << 8 | static_cast<unsigned char>(data[i]);
    }
    // Sign-extended from its width.
    const int spare = 64 - 8 * width;
    const int64_t value = static_cast<int64_t>(bits << spare) >> spare;
    return std::to_string(value);
}

void IgnoreNotice(void*, const char*) {}

class PostgresConnection : public SqlConnection {
public:
    explicit PostgresConnection(PGconn* connection) : m_connection(connection) {
        PQsetNoticeProcessor(m_connection, IgnoreNotice, nullptr);
    }
    ~PostgresConnection() override { PQfinish(m_connection); }

    SqlDialect Dialect() const override { return SqlDialect::Postgres; }

    StoreResult Exec(const std::string& sql, const std::vector<SqlValue>& params,
                     std::vector<SqlRow>* rows) override {
        return Run(sql, params, rows, kTextResults);
    }

    // Byte columns cross as they are, where text results would send each byte as two hex
    // digits for the server to write and this side to read back.
    StoreResult ExecBinary(const std::string& sql, const std::vector<SqlValue>& params,
                           std::vector<SqlRow>* rows) override {
        return Run(sql, params, rows, kBinaryResults);
    }

    // Pipeline mode: every statement is sent, then one sync, then the results are read in
    // order. A failure aborts the statements after it (the server skips them) and the
    // transaction around the batch, as a failed Exec would.
    StoreResult ExecBatch(const std::vector<SqlStatement>& statements,
                          std::vector<std::vector<SqlRow>>* rows) override {
        if (rows != nullptr) {
            rows->assign(statements.size(), {});
        }
        if (statements.empty()) {
            return StoreResult::Ok;
        }
        StoreResult ready = Reconnect();
        std::vector<const std::string*> names(statements.size());
        for (size_t i = 0; i < statements.size() && ready == StoreResult::Ok; ++i) {
            ready = Prepare(statements[i].returnsInsertedId ? statements[i].sql + " RETURNING id"
                                                            : statements[i].sql,
                            statements[i].params, names[i]);
        }
        if (ready != StoreResult::Ok) {
            return ready;
        }
        if (PQenterPipelineMode(m_connection) != 1) {
            return Fail(nullptr, statements[0].sql);
        }
        StoreResult outcome = StoreResult::Ok;
        size_t sent = 0;
        for (; sent < statements.size(); ++sent) {
            Params bound(statements[sent].params);
            if (PQsendQueryPrepared(m_connection, names[sent]->c_str(), bound.Count(),
                                    bound.values.data(), bound.lengths.data(), bound.formats.data(),
                                    0) != 1) {
                outcome = Fail(nullptr, statements[sent].sql);
                break;
            }
        }
        if (PQpipelineSync(m_connection) != 1) {
            return Abandon(outcome == StoreResult::Ok ? Fail(nullptr, statements[0].sql) : outcome);
        }
        for (size_t i = 0; i < sent; ++i) {
            ResultPtr result(PQgetResult(m_connection));
            if (!result) {  // the connection broke: nothing more comes
                return Abandon(outcome == StoreResult::Ok ? Fail(nullptr, statements[i].sql)
                                                          : outcome);
            }
            ExecStatusType status = PQresultStatus(result.get());
            if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
                AppendRows(result.get(), rows != nullptr ? &(*rows)[i] : nullptr);
            } else if (status != PGRES_PIPELINE_ABORTED && outcome == StoreResult::Ok) {
                outcome = Fail(result.get(), statements[i].sql);
            }
            // Each statement's results end with a null.
            while (ResultPtr(PQgetResult(m_connection))) {
            }
        }
        // Then the sync's own result, after which the pipeline may be left.
        ResultPtr sync(PQgetResult(m_connection));
        if (!sync || PQresultStatus(sync.get()) != PGRES_PIPELINE_SYNC) {
            return Abandon(outcome == StoreResult::Ok ? Fail(sync.get(), statements[0].sql)
                                                      : outcome);
        }
        if (PQexitPipelineMode(m_connection) != 1 && outcome == StoreResult::Ok) {
            outcome = Fail(nullptr, statements[0].sql);
        }
        return outcome;
    }

    StoreResult ExecScript(const std::string& sql) override {
        StoreResult ready = Reconnect();
        if (ready != StoreResult::Ok) {
            return ready;
        }
        ResultPtr result(PQexec(m_connection, sql.c_str()));
        ExecStatusType status = PQresultStatus(result.get());
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
            return Fail(result.get(), sql);
        }
        // COMMIT of a transaction that failed answers ROLLBACK, not an error.
        if (sql == "COMMIT" && std::string(PQcmdStatus(result.get())) != "COMMIT") {
            STORE_LOG(CAppLog::Error, "PostgreSQL rolled the transaction back");
            return StoreResult::Error;
        }
        return StoreResult::Ok;
    }

    StoreResult Begin() override {
        m_retryable = false;
        m_inTransaction = false;
        StoreResult result = ExecScript("BEGIN");
        m_inTransaction = result == StoreResult::Ok;
        return result;
    }
    StoreResult Commit() override {
        StoreResult result = ExecScript("COMMIT");
        m_inTransaction = false;
        return result;
    }
    void Rollback() override {
        m_inTransaction = false;
        if (PQstatus(m_connection) == CONNECTION_OK &&
            PQtransactionStatus(m_connection) != PQTRANS_IDLE) {
            ResultPtr result(PQexec(m_connection, "ROLLBACK"));
        }
    }
    bool LastFailureRetryable() const override { return m_retryable; }

    StoreResult LockSchema() override {
        return Exec("SELECT pg_advisory_lock($1)", {static_cast<int64_t>(kSchemaLockKey)}, nullptr);
    }
    void UnlockSchema() override {
        Exec("SELECT pg_advisory_unlock($1)", {static_cast<int64_t>(kSchemaLockKey)}, nullptr);
    }

    // Plain VACUUM: the space becomes free for new rows at once and trailing pages go
    // back to the file system, without the exclusive lock of VACUUM FULL.
    StoreResult Reclaim() override { return ExecScript("VACUUM"); }

    // The server manages its own memory and checkpoints.
    StoreResult PrepareForBulkLoad() override { return StoreResult::Ok; }
    StoreResult EndBulkLoad() override { return StoreResult::Ok; }

private:
    StoreResult Run(const std::string& sql, const std::vector<SqlValue>& params,
                    std::vector<SqlRow>* rows, int resultFormat) {
        StoreResult ready = Reconnect();
        const std::string* name = nullptr;
        if (ready != StoreResult::Ok || (ready = Prepare(sql, params, name)) != StoreResult::Ok) {
            return ready;
        }
        Params bound(params);
        ResultPtr result(PQexecPrepared(m_connection, name->c_str(), bound.Count(),
                                        bound.values.data(), bound.lengths.data(),
                                        bound.formats.data(), resultFormat));
        ExecStatusType status = PQresultStatus(result.get());
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
            return Fail(result.get(), sql);
        }
        AppendRows(result.get(), rows);
        return StoreResult::Ok;
    }

    // A statement's parameters as libpq takes them: integers as text, byte strings as
    // binary bytea.
    struct Params {
        explicit Params(const std::vector<SqlValue>& params)
            : integers(params.size()),
              values(params.size()),
              lengths(params.size()),
              formats(params.size()) {
            for (size_t i = 0; i < params.size(); ++i) {
                const SqlValue& value = params[i];
                switch (value.type) {
                    case SqlValue::Type::Null:
                        values[i] = nullptr;
                        break;
                    case SqlValue::Type::Integer:
                        integers[i] = std::to_string(value.integer);
                        values[i] = integers[i].c_str();
                        break;
                    case SqlValue::Type::Text:
                    case SqlValue::Type::Blob:
                        values[i] = value.Bytes().data();
                        lengths[i] = static_cast<int>(value.Bytes().size());
                        formats[i] = 1;
                        break;
                }
            }
        }
        int Count() const { return static_cast<int>(values.size()); }

        std::vector<std::string> integers;
        std::vector<const char*> values;
        std::vector<int> lengths, formats;
    };

    // The name of `sql` prepared on this connection, preparing it the first time.
    StoreResult Prepare(const std::string& sql, const std::vector<SqlValue>& params,
                        const std::string*& name) {
        auto found = m_prepared.find(sql);
        if (found == m_prepared.end()) {
            std::vector<Oid> types;
            for (const SqlValue& value : params) {
                types.push_back(value.type == SqlValue::Type::Integer ? kInt8Oid
                                : value.type == SqlValue::Type::Null  ? 0
                                                                      : kByteaOid);
            }
            std::string prepared = "s" + std::to_string(m_prepared.size());
            ResultPtr result(PQprepare(m_connection, prepared.c_str(), sql.c_str(),
                                       static_cast<int>(types.size()), types.data()));
            if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
                return Fail(result.get(), sql);
            }
            found = m_prepared.emplace(sql, prepared).first;
        }
        name = &found->second;
        return StoreResult::Ok;
    }

    static void AppendRows(const PGresult* result, std::vector<SqlRow>* rows) {
        if (rows == nullptr || PQresultStatus(result) != PGRES_TUPLES_OK) {
            return;
        }
        int count = PQntuples(result);
        int columns = PQnfields(result);
        for (int r = 0; r < count; ++r) {
            SqlRow row(columns);
            for (int c = 0; c < columns; ++c) {
                if (PQgetisnull(result, r, c)) {
                    continue;
                }
                row[c].null = false;
                const char* text = PQgetvalue(result, r, c);
                int length = PQgetlength(result, r, c);
                if (PQfformat(result, c) == kBinaryResults) {
                    row[c].bytes = FromBinary(PQftype(result, c), text, length);
                } else {
                    row[c].bytes = PQftype(result, c) == kByteaOid ? FromHex(text, length)
                                                                   : std::string(text, length);
                }
            }
            rows->push_back(std::move(row));
        }
    }

    // A pipeline that cannot be finished (the connection broke half-way) is given up with
    // the connection and its transaction: the connection is made afresh, so that the
    // caller's rollback and retry start from a clean state.
    StoreResult Abandon(StoreResult result) {
        PQreset(m_connection);
        m_prepared.clear();
        if (PQpipelineStatus(m_connection) != PQ_PIPELINE_OFF) {
            PQexitPipelineMode(m_connection);
        }
        return result == StoreResult::Ok ? StoreResult::Unavailable : result;
    }

    // A connection that broke is made again, but never inside a transaction: the
    // transaction is lost and the caller's retry starts a new one.
    StoreResult Reconnect() {
        if (PQstatus(m_connection) == CONNECTION_OK) {
            return StoreResult::Ok;
        }
        if (m_inTransaction) {
            return StoreResult::Unavailable;
        }
        PQreset(m_connection);
        m_prepared.clear();
        if (PQstatus(m_connection) != CONNECTION_OK) {
            if (!m_reportedDown) {
                STORE_LOG(CAppLog::Error, "PostgreSQL unreachable: %s",
                          PQerrorMessage(m_connection));
                m_reportedDown = true;
            }
            return StoreResult::Unavailable;
        }
        STORE_LOG(CAppLog::Information, "PostgreSQL reachable again");
        m_reportedDown = false;
        return StoreResult::Ok;
    }

    StoreResult Fail(const PGresult* result, const std::string& sql) {
        const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
        std::string code = state ? state : "";
        m_retryable = code == "40P01" || code == "40001";
        if (!m_retryable) {
            STORE_LOG(CAppLog::Error, "PostgreSQL %s: %s in \"%s\"", code.c_str(),
                      PQerrorMessage(m_connection), Head(sql).c_str());
        }
        if (PQstatus(m_connection) != CONNECTION_OK || code.compare(0, 2, "08") == 0 ||
            code.compare(0, 2, "53") == 0 || code.compare(0, 2, "57") == 0 || code.empty()) {
            return StoreResult::Unavailable;
        }
        return StoreResult::Error;
    }

    PGconn* m_connection;
    std::map<std::string, std::string> m_prepared;
    bool m_retryable = false;
    bool m_inTransaction = false;
    bool m_reportedDown = false;
};

}  // namespace

std::unique_ptr<SqlConnection> OpenPostgres(const std::string& uri, std::string& error) {
    PGconn* connection = PQconnectdb(uri.c_str());
    if (PQstatus(connection) != CONNECTION_OK) {
        error = std::string("cannot connect to PostgreSQL: ") + PQerrorMessage(connection);
        PQfinish(connection);
        return nullptr;
    }
    return std::make_unique<PostgresConnection>(connection);
}

}  // namespace collector
