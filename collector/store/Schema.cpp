#include "store/Schema.h"

#include <string>
#include <vector>

#include "store/SqlStore.h"
#include "store/StoreLog.h"

namespace collector {

namespace {

// Statements are written once for both back ends; these words differ:
//   {ID}   the report id column    {T} a text column    {B} a byte column
//   {KEY}  "PRIMARY KEY" for a rollup's key in SQLite, where rollups are updated in
//          place (one writer at a time anyway); nothing in PostgreSQL, where every batch
//          adds its own rows (summed on read, compacted by the daily purge), so that no
//          row is updated by every node's every batch.
//   {JSON} PostgreSQL's queryable copy of the module data (null when jsonb cannot hold it)
//   {NOROWID} a table that is its key's B-tree alone in SQLite; a plain table in PostgreSQL
const char* const kVersion1 = R"(
CREATE TABLE reports (
    id {ID},
    received BIGINT NOT NULL,
    kind INTEGER NOT NULL,
    machine_id {T} NOT NULL,
    customer_id {T} NOT NULL,
    version {T} NOT NULL,
    os_type {T} NOT NULL, os_name {T} NOT NULL, os_version_details {T} NOT NULL,
    os_locale {T} NOT NULL,
    os_major BIGINT NOT NULL, os_minor BIGINT NOT NULL, os_build BIGINT NOT NULL,
    has_period INTEGER NOT NULL, period_start BIGINT NOT NULL, period_end BIGINT NOT NULL,
    modules {B} NOT NULL,
    size BIGINT NOT NULL,
    sha256 {T} NOT NULL,
    body {B} NOT NULL,
    client_address {T} NOT NULL,
    damaged_reason {T} NOT NULL,
    module_data {B} NOT NULL{JSON},
    has_threat INTEGER NOT NULL,
    threat_incident {T} NOT NULL,
    UNIQUE (sha256)
);
CREATE INDEX reports_by_time ON reports (received, id);
CREATE INDEX reports_by_machine ON reports (machine_id, received, id);
CREATE INDEX reports_by_kind ON reports (kind, received, id);
CREATE INDEX reports_by_version ON reports (version, received, id);
CREATE INDEX reports_by_customer ON reports (customer_id, received, id);
CREATE TABLE report_modules (
    report_id BIGINT NOT NULL REFERENCES reports (id) ON DELETE CASCADE,
    module {T} NOT NULL,
    received BIGINT NOT NULL,
    PRIMARY KEY (report_id, module)
);
CREATE INDEX report_modules_by_module ON report_modules (module, received, report_id);
CREATE TABLE dumps (
    machine_id {T} NOT NULL, module {T} NOT NULL, sha256 {T} NOT NULL,
    size BIGINT NOT NULL,
    bytes {B} NOT NULL,
    PRIMARY KEY (machine_id, module, sha256)
);
CREATE TABLE report_dumps (
    report_id BIGINT NOT NULL REFERENCES reports (id) ON DELETE CASCADE,
    machine_id {T} NOT NULL, module {T} NOT NULL, sha256 {T} NOT NULL,
    size BIGINT NOT NULL,
    repeat INTEGER NOT NULL,
    PRIMARY KEY (report_id, module)
);
CREATE INDEX report_dumps_by_dump ON report_dumps (machine_id, module, sha256);
CREATE TABLE duplicates (
    report_id BIGINT NOT NULL REFERENCES reports (id) ON DELETE CASCADE,
    received BIGINT NOT NULL
);
CREATE INDEX duplicates_by_report ON duplicates (report_id);
CREATE TABLE machine_days (
    day BIGINT NOT NULL, machine_id {T} NOT NULL,
    PRIMARY KEY (day, machine_id)
);
CREATE INDEX machine_days_by_machine ON machine_days (machine_id);
CREATE TABLE daily (
    day BIGINT NOT NULL {KEY},
    feedback BIGINT NOT NULL, crash BIGINT NOT NULL, threat BIGINT NOT NULL,
    damaged BIGINT NOT NULL, duplicates BIGINT NOT NULL, machines BIGINT NOT NULL,
    bytes BIGINT NOT NULL
);
CREATE INDEX daily_by_day ON daily (day);
CREATE TABLE module_fields (
    module {T} NOT NULL, path {T} NOT NULL, kind INTEGER NOT NULL,
    PRIMARY KEY (module, path)
);
CREATE TABLE module_values (
    module {T} NOT NULL, path {T} NOT NULL, value {T} NOT NULL,
    PRIMARY KEY (module, path, value)
);
CREATE TABLE field_days (
    module {T} NOT NULL, day BIGINT NOT NULL, path {T} NOT NULL,
    count BIGINT NOT NULL, sum BIGINT NOT NULL, min BIGINT, max BIGINT
    {FIELDKEY}
);
CREATE INDEX field_days_by_module ON field_days (module, day);
CREATE TABLE value_days (
    module {T} NOT NULL, day BIGINT NOT NULL, path {T} NOT NULL, value {T} NOT NULL,
    count BIGINT NOT NULL
    {VALUEKEY}
);
CREATE INDEX value_days_by_module ON value_days (module, day);
)";

// Version 2: breakdowns (by version, OS, locale, customer, crashing module, module),
// filled from the reports already kept.
const char* const kVersion2 = R"(
CREATE TABLE breakdown (
    dim INTEGER NOT NULL, day BIGINT NOT NULL, value {T} NOT NULL,
    count BIGINT NOT NULL, repeats BIGINT NOT NULL
    {BREAKDOWNKEY}
);
CREATE INDEX breakdown_by_dim ON breakdown (dim, day);
INSERT INTO breakdown (dim, day, value, count, repeats)
    SELECT 0, received / 86400, version, count(*), 0 FROM reports WHERE kind <> 3
    GROUP BY received / 86400, version;
INSERT INTO breakdown (dim, day, value, count, repeats)
    SELECT 1, received / 86400, os_name, count(*), 0 FROM reports WHERE kind <> 3
    GROUP BY received / 86400, os_name;
INSERT INTO breakdown (dim, day, value, count, repeats)
    SELECT 2, received / 86400, os_locale, count(*), 0 FROM reports WHERE kind <> 3
    GROUP BY received / 86400, os_locale;
INSERT INTO breakdown (dim, day, value, count, repeats)
    SELECT 3, received / 86400, customer_id, count(*), 0 FROM reports WHERE kind <> 3
    GROUP BY received / 86400, customer_id;
INSERT INTO breakdown (dim, day, value, count, repeats)
    SELECT 4, r.received / 86400, d.module, sum(1 - d.repeat), sum(d.repeat)
    FROM report_dumps d JOIN reports r ON r.id = d.report_id
    GROUP BY r.received / 86400, d.module;
INSERT INTO breakdown (dim, day, value, count, repeats)
    SELECT 5, received / 86400, module, count(*), 0 FROM report_modules
    GROUP BY received / 86400, module;
)";

// Version 3: read paths at fleet size.
//   reports_crashes_by_time  the range's crash reports per version, from the index alone
//   breakdown_by_day         a breakdown over a range read from the index alone (it
//                            replaces breakdown_by_dim, its prefix)
//   breakdown_by_value       one value's count (how many reports a filter matches, to
//                            choose which index a listing walks), and a breakdown over a
//                            long range in value order, summed as it is read
const char* const kVersion3 = R"(
CREATE INDEX reports_crashes_by_time ON reports (received, version, kind) WHERE kind = 1;
CREATE INDEX breakdown_by_day ON breakdown (dim, day, value, count, repeats);
CREATE INDEX breakdown_by_value ON breakdown (dim, value, day, count, repeats);
DROP INDEX breakdown_by_dim;
)";

// Version 4: dumps are no longer stored as bytes (dumps.bytes is empty in new rows; the
// report's body holds them). Rows written before keep their bytes and are read from them,
// so nothing is rewritten; the version tells an older collector that it cannot read the
// dumps of this database.
const char* const kVersion4 = "";

// Version 5: breakdowns also per block of 32 days (the dimension plus 16, the block
// number in `day`), summed from the day rows already kept.
static_assert(kBlockDimensionOffset == 16 && kBreakdownBlockDays == 32,
              "the version 5 step writes the block rows with these numbers");
const char* const kVersion5 = R"(
INSERT INTO breakdown (dim, day, value, count, repeats)
    SELECT dim + 16, day / 32, value, sum(count), sum(repeats) FROM breakdown WHERE dim < 16
    GROUP BY dim + 16, day / 32, value;
)";

// Version 6: stores made from now on keep reports unique by the body's SHA-256 alone (in
// version 1's statements above). The body holds the machine id and the period that are
// read from it, so the same body is the same machine, period and content: the key is the
// one reports always had, in an index about half the size of one on the four columns,
// which a bulk load's every batch writes again at random places. A store made before keeps
// its index on the four columns (rebuilding the reports table would rewrite every body);
// the inserts name no conflict target, so that they serve either. The version tells an
// older collector, whose inserts name the four columns, that it cannot write this store.
const char* const kVersion6 = "";

// Version 7: a report's module rows in one B-tree, keyed as the module filter walks them
// (module, then newest first). They had three (the rows, the key by report and the index by
// module), which cost a bulk load as much as the reports' own rows. The rows of a report
// that goes are deleted with it by the store (no cascade: the key by report is gone); a
// report's row is found by key from the report's module, time received and id.
const char* const kVersion7 = R"(
CREATE TABLE report_module_keys (
    report_id BIGINT NOT NULL,
    module {T} NOT NULL,
    received BIGINT NOT NULL,
    PRIMARY KEY (module, received, report_id)
){NOROWID};
INSERT INTO report_module_keys (report_id, module, received)
    SELECT report_id, module, received FROM report_modules;
DROP TABLE report_modules;
ALTER TABLE report_module_keys RENAME TO report_modules;
)";

void ReplaceAll(std::string& text, const std::string& word, const std::string& with) {
    for (size_t at = text.find(word); at != std::string::npos;
         at = text.find(word, at + with.size())) {
        text.replace(at, word.size(), with);
    }
}

std::string ForDialect(const char* statements, SqlDialect dialect) {
    std::string text = statements;
    bool sqlite = dialect == SqlDialect::Sqlite;
    ReplaceAll(
        text, "{ID}",
        sqlite ? "INTEGER PRIMARY KEY" : "BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY");
    ReplaceAll(text, "{T}", sqlite ? "TEXT" : "BYTEA");
    ReplaceAll(text, "{B}", sqlite ? "BLOB" : "BYTEA");
    ReplaceAll(text, "{KEY}", sqlite ? "PRIMARY KEY" : "");
    ReplaceAll(text, "{FIELDKEY}", sqlite ? ", PRIMARY KEY (module, day, path)" : "");
    ReplaceAll(text, "{VALUEKEY}", sqlite ? ", PRIMARY KEY (module, day, path, value)" : "");
    ReplaceAll(text, "{BREAKDOWNKEY}", sqlite ? ", PRIMARY KEY (dim, day, value)" : "");
    ReplaceAll(text, "{NOROWID}", sqlite ? " WITHOUT ROWID" : "");
    ReplaceAll(text, "{JSON}", sqlite ? "" : ",\n    module_json JSONB");
    return text;
}

// PostgreSQL: the module data as jsonb when jsonb can hold it (it cannot hold \u0000, a
// lone surrogate or bytes that are not UTF-8), else null; the bytes are kept either way.
const char* const kPostgresFunctions = R"(
CREATE OR REPLACE FUNCTION pw_jsonb(data BYTEA) RETURNS JSONB AS $$
BEGIN
    IF length(data) = 0 THEN
        RETURN NULL;
    END IF;
    RETURN convert_from(data, 'UTF8')::jsonb;
EXCEPTION WHEN others THEN
    RETURN NULL;
END
$$ LANGUAGE plpgsql IMMUTABLE;
)";

// PostgreSQL compresses what it stores out of line (the crash reports' bodies) with pglz
// unless a column says otherwise. On the fleet's first month the reports' inserts took
// 10.0-12.5 s of the server's time with pglz and 4.2-4.9 s with lz4, for bodies that
// hardly compress either way. The columns that can grow large ask for lz4 where the
// server has it (version 14 on, built with lz4, as Debian's is); a column whose
// compression was chosen already keeps it, and a role that does not own the table leaves
// the server's default.
const char* const kPostgresCompression = R"(
DO $$
DECLARE
    column_name NAME;
BEGIN
    IF current_setting('server_version_num')::int < 140000 THEN
        RETURN;
    END IF;
    -- The change takes the table's strongest lock, and queued behind a long reader (an
    -- export) it would hold up every node's inserts: the next start tries again instead.
    PERFORM set_config('lock_timeout', '1s', true);
    FOR column_name IN SELECT attname FROM pg_attribute
            WHERE attrelid = to_regclass('reports') AND attcompression = ''
            AND attname IN ('body', 'module_data', 'module_json', 'threat_incident') LOOP
        EXECUTE format('ALTER TABLE reports ALTER COLUMN %I SET COMPRESSION lz4', column_name);
    END LOOP;
EXCEPTION WHEN feature_not_supported OR insufficient_privilege OR lock_not_available THEN
    NULL;
END
$$;
)";

StoreResult ReadVersion(SqlConnection& connection, int& version) {
    std::vector<SqlRow> rows;
    StoreResult result = connection.Exec("SELECT max(version) FROM schema_version", {}, &rows);
    version = result == StoreResult::Ok && !rows.empty() ? static_cast<int>(rows[0][0].Int()) : 0;
    return result;
}

StoreResult Migrate(SqlConnection& connection, int target, int& version, std::string& error) {
    StoreResult result = connection.ExecScript(
        "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
    if (result != StoreResult::Ok) {
        error = "cannot create the schema version table";
        return result;
    }
    if ((result = ReadVersion(connection, version)) != StoreResult::Ok) {
        error = "cannot read the schema version";
        return result;
    }
    if (version > kSchemaVersion) {
        error = "the database's schema (version " + std::to_string(version) +
                ") is newer than this collector's (" + std::to_string(kSchemaVersion) + ")";
        return StoreResult::Error;
    }
    const char* const steps[] = {kVersion1, kVersion2, kVersion3, kVersion4,
                                 kVersion5, kVersion6, kVersion7};
    while (version < target) {
        if ((result = connection.Begin()) != StoreResult::Ok) {
            error = "cannot begin a schema change";
            return result;
        }
        int next = version + 1;
        std::string script = ForDialect(steps[version], connection.Dialect());
        if (next == 1 && connection.Dialect() == SqlDialect::Postgres) {
            script = kPostgresFunctions + script;
        }
        script += "INSERT INTO schema_version (version) VALUES (" + std::to_string(next) + ");";
        if ((result = connection.ExecScript(script)) != StoreResult::Ok ||
            (result = connection.Commit()) != StoreResult::Ok) {
            connection.Rollback();
            error = "cannot bring the schema to version " + std::to_string(next);
            return result;
        }
        STORE_LOG(CAppLog::Information, "Store schema brought to version %d", next);
        version = next;
    }
    return StoreResult::Ok;
}

// The read indexes whose keys arrive in no order (machine ids, customer ids, report ids of
// duplicates): each insert lands on a page of its own, and every such page is written to
// the log and again to the database. In SQLite, those keyed by time received, kind or
// version take new keys at a few places and cost no more to keep than to build.
// PostgreSQL pays for every entry alike (a descent from the root, a page lock, a log
// record), so a bulk load there builds those at its end too: on the fleet's first 45 days,
// the reports' inserts took 6.2-7.0 s of the server's time instead of 8.2-8.5 s. The
// definitions are those of the schema versions above (a test holds the two to the same
// text).
struct ReadIndex {
    const char* name;
    const char* on;
    bool postgresOnly;
};
const ReadIndex kReadIndexes[] = {
    {"reports_by_machine", "reports (machine_id, received, id)", false},
    {"reports_by_customer", "reports (customer_id, received, id)", false},
    {"report_dumps_by_dump", "report_dumps (machine_id, module, sha256)", false},
    {"duplicates_by_report", "duplicates (report_id)", false},
    {"machine_days_by_machine", "machine_days (machine_id)", false},
    {"reports_by_time", "reports (received, id)", true},
    {"reports_by_kind", "reports (kind, received, id)", true},
    {"reports_by_version", "reports (version, received, id)", true},
    {"reports_crashes_by_time", "reports (received, version, kind) WHERE kind = 1", true},
};

// SQLite sorts a new index's keys in runs as large as the connection's page cache, on
// threads of the sorter's own (PRAGMA threads) only when its runs go to temporary files.
// A bulk load keeps its temporary files in memory and a cache of 512 MiB, which holds a
// million reports' keys in one run, sorted on one thread once the table is read. Runs of
// a few MiB in files (the system's temporary directory; each file is gone once closed)
// fit the processor's caches and are sorted while the table is still being read: on the
// fleet's year, the machine index in 1.0 s instead of 2.3 s.
const char kIndexSortSettings[] = "PRAGMA cache_size=-4096; PRAGMA temp_store=FILE;";

// Drops or creates each read index (one statement, so one transaction, each) under the
// schema lock. Both are idempotent, so that nodes and commands may do it at once.
StoreResult ChangeReadIndexes(SqlConnection& connection, bool create) {
    std::vector<SqlRow> cache, tempStore;
    const bool sqlite = create && connection.Dialect() == SqlDialect::Sqlite;
    if (sqlite &&
        (connection.Exec("PRAGMA cache_size", {}, &cache) != StoreResult::Ok ||
         connection.Exec("PRAGMA temp_store", {}, &tempStore) != StoreResult::Ok || cache.empty() ||
         tempStore.empty() || connection.ExecScript(kIndexSortSettings) != StoreResult::Ok)) {
        return StoreResult::Error;
    }
    StoreResult result = connection.LockSchema();
    for (const ReadIndex& index : kReadIndexes) {
        if (result != StoreResult::Ok) {
            break;
        }
        if (index.postgresOnly && connection.Dialect() != SqlDialect::Postgres) {
            continue;
        }
        result = connection.ExecScript(create ? std::string("CREATE INDEX IF NOT EXISTS ") +
                                                    index.name + " ON " + index.on
                                              : std::string("DROP INDEX IF EXISTS ") + index.name);
    }
    connection.UnlockSchema();
    if (sqlite &&
        connection.ExecScript("PRAGMA cache_size=" + cache[0][0].bytes +
                              "; PRAGMA temp_store=" + tempStore[0][0].bytes) != StoreResult::Ok) {
        result = StoreResult::Error;
    }
    return result;
}

}  // namespace

StoreResult DropReadIndexes(SqlConnection& connection) {
    return ChangeReadIndexes(connection, false);
}

StoreResult CreateReadIndexes(SqlConnection& connection) {
    return ChangeReadIndexes(connection, true);
}

StoreResult MigrateSchema(SqlConnection& connection, int target, int& version, std::string& error) {
    StoreResult result = connection.LockSchema();
    if (result != StoreResult::Ok) {
        error = "cannot take the schema lock";
        return result;
    }
    result = Migrate(connection, target, version, error);
    if (result == StoreResult::Ok && connection.Dialect() == SqlDialect::Postgres &&
        connection.ExecScript(kPostgresCompression) != StoreResult::Ok) {
        STORE_LOG(CAppLog::Warning,
                  "PostgreSQL: the reports' large columns keep the server's default compression");
    }
    connection.UnlockSchema();
    return result;
}

}  // namespace collector
