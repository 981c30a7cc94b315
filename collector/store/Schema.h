// The store's tables, and the migrations that bring an older database up to date.
//
// Versions only grow; each migration runs in one transaction with the version it sets,
// so a database is always at exactly one version. Several processes starting at once
// take the back end's schema lock first, so that only one of them migrates.
#pragma once

#include <string>

#include "store/SqlConnection.h"

namespace collector {

// The version this collector writes.
constexpr int kSchemaVersion = 7;

// Brings the database behind `connection` to `target` (at most kSchemaVersion); `version`
// gets the version it is at afterwards. A database newer than this collector is refused.
StoreResult MigrateSchema(SqlConnection& connection, int target, int& version, std::string& error);

// The indexes that only reading uses and that cost a bulk load most to keep (those keyed
// by machine and customer ids; in PostgreSQL, those by time, kind and version too):
// inserting a report needs none of them. A bulk load into
// an empty store drops them first and builds each once at its end, a sort instead of a
// million inserts at random places. Queries stay correct without them, only slower. Both
// calls take the schema lock; a migration that changes one of these indexes must allow
// for it to be missing (IF EXISTS).
StoreResult DropReadIndexes(SqlConnection& connection);
// Builds those that are missing (none is rebuilt); Ok when all are there.
StoreResult CreateReadIndexes(SqlConnection& connection);

}  // namespace collector
