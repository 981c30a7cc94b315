// Stores for the tests: a fresh SQLite file or a fresh database on the test program's one
// PostgreSQL server (started on first use), and reports made to order.
#pragma once

#include <memory>
#include <string>

#include "ScratchFiles.h"
#include "store/Store.h"

namespace pwsupport {

// A fresh, empty database of `backend` ("sqlite" or "postgres"); Open() may be called
// again for a second Store on the same database. Fails the current test when it cannot.
class TestDatabase {
public:
    explicit TestDatabase(const std::string& backend);
    const std::string& location() const { return m_location; }
    std::unique_ptr<collector::Store> Open() const;

private:
    ScratchDir m_scratch{"/tmp", "pw-store-"};
    std::string m_location;
};

// A feedback report of `machine` for the period starting at `period`, received at
// `received`, whose body is made from `content` (same content, same SHA-256).
collector::ValidatedReport MakeReport(const std::string& machine, int64_t period, int64_t received,
                                      const std::string& content);
// Adds a crash dump of `module` with `bytes` (to the body too, in base64, as a client
// sends it) and makes the report a crash report.
void AddDump(collector::ValidatedReport& report, const std::string& module,
             const std::string& bytes);
std::string Sha256Hex(const std::string& bytes);

// Everything the daily figures, breakdowns and the fields of module "Tunnel" say about
// days [first, last], as one text: two stores with the same reports give the same text.
std::string Figures(collector::Store& store, int64_t first, int64_t last);

}  // namespace pwsupport
