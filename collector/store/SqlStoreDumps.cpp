// SqlStore: a crash dump's bytes. A dump stored by this version keeps its module, size and
// SHA-256 but no bytes: they are decoded from the body of the report that carries them,
// which the store keeps anyway. Dumps stored by earlier versions still hold their bytes and
// are served from them.
#include "report/BodyDecoding.h"
#include "report/ReportValidator.h"
#include "store/SqlStore.h"
#include "store/StoreLog.h"

namespace collector {

StoreResult SqlStore::GetDump(int64_t id, const std::string& module, std::string& bytes) {
    // A body of up to 16 MiB: it crosses as it is (binary results).
    std::vector<SqlRow> rows;
    StoreResult result = m_db->ExecBinary(
        "SELECT d.bytes, r.size, r.sha256, p.body FROM report_dumps r JOIN dumps d ON "
        "d.machine_id = r.machine_id AND d.module = r.module AND d.sha256 = r.sha256 "
        "JOIN reports p ON p.id = r.report_id WHERE r.report_id = $1 AND r.module = $2",
        {id, module}, &rows);
    if (result != StoreResult::Ok) {
        return result;
    }
    if (rows.empty()) {
        return StoreResult::NotFound;
    }
    SqlRow& row = rows[0];
    if (!row[0].bytes.empty() || row[1].Int() == 0) {
        bytes = std::move(row[0].bytes);
        return StoreResult::Ok;
    }
    // The report was validated before it was stored, so its body holds the dump; a body
    // that does not (or a dump that is not the one recorded) means the row was damaged.
    std::string reason;
    if (!DecodeCrashDump(row[3].bytes, module, bytes, reason)) {
        STORE_LOG(CAppLog::Error, "Report %lld: its dump of %s cannot be read from its body: %s",
                  static_cast<long long>(id), module.c_str(), reason.c_str());
        return StoreResult::Error;
    }
    if (Sha256Hex(bytes) != row[2].bytes) {
        STORE_LOG(CAppLog::Error, "Report %lld: its dump of %s differs from the one recorded",
                  static_cast<long long>(id), module.c_str());
        bytes.clear();
        return StoreResult::Error;
    }
    return StoreResult::Ok;
}

}  // namespace collector
