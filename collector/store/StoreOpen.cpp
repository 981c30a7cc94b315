// Store::Open: the back end is chosen by the database setting's form.
#include "store/Schema.h"
#include "store/SqlStore.h"

namespace collector {

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
    return std::make_unique<SqlStore>(std::move(connection), version);
}

std::unique_ptr<Store> Store::Open(const std::string& database, std::string& error) {
    return OpenStoreAtVersion(database, kSchemaVersion, error);
}

}  // namespace collector
