#include "StoreFixture.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <atomic>

#include "AppLog.h"
#include "PostgresServer.h"

namespace pwsupport {

namespace {

PostgresServer* SharedPostgres(std::string& error) {
    static std::string startError;
    static PostgresServer* server = [] {
        auto* made = new PostgresServer();
        if (!made->Start(startError)) {
            delete made;
            return static_cast<PostgresServer*>(nullptr);
        }
        // Stopped at exit with the program's other static objects.
        static std::unique_ptr<PostgresServer> owner(made);
        return made;
    }();
    error = startError;
    return server;
}

}  // namespace

TestDatabase::TestDatabase(const std::string& backend) {
    // The store's log lines go with the test's output, where a failure is read.
    CAppLog::ConfigureSinks(CAppLog::SinkStderr);
    if (backend == "sqlite") {
        m_location = m_scratch / "state/collector.db";
        return;
    }
    static std::atomic<int> next{0};
    std::string error;
    PostgresServer* server = SharedPostgres(error);
    std::string name = "t" + std::to_string(next++);
    if (server == nullptr || !server->CreateDatabase(name, error)) {
        ADD_FAILURE() << "PostgreSQL: " << error;
        return;
    }
    m_location = server->Uri(name);
}

std::unique_ptr<collector::Store> TestDatabase::Open() const {
    std::string error;
    std::unique_ptr<collector::Store> store = collector::Store::Open(m_location, error);
    EXPECT_TRUE(store) << error;
    return store;
}

std::string Sha256Hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text.push_back(hex[digest[i] >> 4]);
        text.push_back(hex[digest[i] & 15]);
    }
    return text;
}

collector::ValidatedReport MakeReport(const std::string& machine, int64_t period, int64_t received,
                                      const std::string& content) {
    collector::ValidatedReport r;
    // The report's layout, its dictionary holding only the content (AddDump adds a dump).
    r.body = "li7e40:" + machine + "i3eli" + std::to_string(period) + "ei" +
             std::to_string(period + 600) + "ed7:Content" + std::to_string(content.size()) + ":" +
             content + "eee";
    r.sha256 = Sha256Hex(r.body);
    r.received = received;
    r.clientAddress = "192.0.2.7";
    r.kind = collector::ReportKind::Feedback;
    r.machineId = machine;
    r.customerId = "customer-" + content.substr(0, 1);
    r.version = "5.1." + std::to_string(content.size() % 3);
    r.osType = "Linux";
    r.osName = content.size() % 2 ? "Debian" : "Ubuntu";
    r.osLocale = "en_US";
    r.osMajor = 6;
    r.hasPeriod = true;
    r.periodStart = period;
    r.periodEnd = period + 600;
    r.modules = {"Tunnel"};
    r.moduleDataJson = "{\"Tunnel\":{\"Connects\":" + std::to_string(content.size()) +
                       ",\"Proto\":\"p" + content.substr(0, 1) + "\"}}";
    return r;
}

void AddDump(collector::ValidatedReport& report, const std::string& module,
             const std::string& bytes) {
    // The dump goes into the body as a client sends it, base64 in CrashData, where the
    // store reads it back from.
    std::string base64(4 * ((bytes.size() + 2) / 3), '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&base64[0]),
                    reinterpret_cast<const unsigned char*>(bytes.data()),
                    static_cast<int>(bytes.size()));
    report.body.resize(report.body.size() - 3);  // into the report dictionary
    report.body += "22:QualityImprovementDatad12:CrashReportsd" + std::to_string(module.size()) +
                   ":" + module + "d9:CrashData" + std::to_string(base64.size()) + ":" + base64 +
                   "eeeeee";
    report.sha256 = Sha256Hex(report.body);
    report.kind = collector::ReportKind::Crash;
    report.crashDumps.push_back({module, Sha256Hex(bytes), bytes.size(), bytes});
    report.modules.push_back(module);
    std::sort(report.modules.begin(), report.modules.end());
}

using namespace collector;

std::string Figures(collector::Store& store, int64_t first, int64_t last) {
    std::string text;
    std::vector<DailyFigures> days;
    EXPECT_EQ(StoreResult::Ok, store.Daily(first, last, days));
    for (const DailyFigures& d : days) {
        text += std::to_string(d.day) + ":" + std::to_string(d.perKind[0]) + "," +
                std::to_string(d.perKind[1]) + "," + std::to_string(d.perKind[3]) + "," +
                std::to_string(d.duplicates) + "," + std::to_string(d.machines) + "," +
                std::to_string(d.bytes) + " ";
    }
    for (int by = 0; by < 5; ++by) {
        std::vector<BreakdownRow> rows;
        EXPECT_EQ(StoreResult::Ok,
                  store.Breakdown(static_cast<BreakdownBy>(by), first, last, rows));
        for (const BreakdownRow& row : rows) {
            text += row.value + "=" + std::to_string(row.count) + "/" +
                    std::to_string(row.repeats) + " ";
        }
    }
    std::vector<ModuleField> fields;
    store.ModuleFields("Tunnel", first, last, fields);
    for (const ModuleField& field : fields) {
        for (const ModuleFieldDay& day : field.days) {
            text += field.path + "@" + std::to_string(day.day) + "#" + std::to_string(day.count) +
                    "+" + std::to_string(day.sum) + "[" + std::to_string(day.min) + "," +
                    std::to_string(day.max) + "]";
            for (const auto& value : day.top) {
                text += "," + value.first + "x" + std::to_string(value.second);
            }
            text += " ";
        }
    }
    return text;
}

}  // namespace pwsupport
