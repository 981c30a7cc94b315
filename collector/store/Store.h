// The store: where reports are kept. One interface, one file per back end (SQLite, the
// embedded default; PostgreSQL for several collector nodes sharing one database).
//
// Threads: a Store object is used by one thread at a time (the committer, or one API
// request, or a command); a program that needs more opens more. Several Store objects,
// in one process or in several, may use the same database at once.
// Failures are return values; nothing is thrown across this interface.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "report/Report.h"

namespace collector {

enum class StoreResult {
    Ok = 0,
    NotFound,     // no such report, dump or machine
    Unavailable,  // storage cannot be reached or written now (database gone, disk full):
                  // the caller answers 503 and tries again later
    Error,        // anything else, logged where it happened
};

// What became of one report of a batch.
struct InsertOutcome {
    int64_t id = 0;          // the stored report's id (the earlier one for a duplicate)
    bool duplicate = false;  // same machine id, collection period and SHA-256 as a stored one
};

class Store {
public:
    // Opens `database`: a SQLite file path, or a postgresql:// URI. Creates the schema or
    // brings an older one up to date. Null with `error` set when it cannot.
    static std::unique_ptr<Store> Open(const std::string& database, std::string& error);

    virtual ~Store() = default;

    // Stores `batch` in one transaction that is durable when Ok is returned (synced to
    // disk, or committed by PostgreSQL). `outcomes` gets one entry per report, in order.
    // Daily figures are updated in the same transaction.
    virtual StoreResult InsertBatch(const std::vector<ValidatedReport>& batch,
                                    std::vector<InsertOutcome>& outcomes) = 0;

    // Ok when the storage answers (readiness).
    virtual StoreResult Ping() = 0;
};

}  // namespace collector
