// Store::Open: the back end is chosen by the database setting's form.
#include "store/Schema.h"
#include "store/SqlStore.h"

namespace collector {

namespace {
constexpr int64_t kStatisticsAfterReports = 10000;
}

std::unique_ptr<Store> OpenStoreAtVersion(const std::string& database, int schemaVersion,
                                          std::string& error) {
    const bool postgres =
        database.rfind("postgresql://", 0) == 0 || database.rfind("postgres://", 0) == 0;
    std::unique_ptr<SqlConnection> connection =
        postgres ? OpenPostgres(database, error) : OpenSqlite(database, error);
    if (!connection) {
        return nullptr;
    }
    int version = 0;
    if (MigrateSchema(*connection, schemaVersion, version, error) != StoreResult::Ok) {
        return nullptr;
    }
    // A SQLite database that grew without a purge yet has no planner statistics.
    if (!postgres) {
        std::vector<SqlRow> rows;
        connection->Exec(
            "SELECT max(id), (SELECT count(*) FROM sqlite_master WHERE name = "
            "'sqlite_stat1') FROM reports",
            {}, &rows);
        if (!rows.empty() && rows[0][0].Int() > kStatisticsAfterReports && rows[0][1].Int() == 0) {
            connection->Reclaim();
        }
    }
    return std::make_unique<SqlStore>(std::move(connection), version);
}

std::unique_ptr<Store> Store::Open(const std::string& database, std::string& error) {
    return OpenStoreAtVersion(database, kSchemaVersion, error);
}

}  // namespace collector
