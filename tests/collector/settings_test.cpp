// The collector's settings file: each key's values, and the file:line record of every line
// that is skipped.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "AppLog.h"
#include "CollectorSettings.h"

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(CollectorSettings, ReadsKeysAndNamesSkippedLines) {
    char dir[] = "/tmp/collector-settings-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string conf = std::string(dir) + "/collector.conf";
    const std::string log = std::string(dir) + "/log";
    std::ofstream(conf) << "# comment\n"
                           "listen = 0.0.0.0:443\n"
                           "listen=[::]:8443\n"
                           "listen=::1:443\n"
                           "listen=127.0.0.1:0\n"
                           "retention_days=30\n"
                           "max_connections=0\n"
                           "body_budget=256M\n"
                           "min_free_space=1G\n"
                           "keep_client_address=no\n"
                           "proxy_protocol=maybe\n"
                           "log_file=" +
                               log +
                               "\n"
                               "time_scale=1000\n"
                               "clock_start=2027-01-01\n"
                               "colour=blue\n"
                               "no equals sign\n"
                               "dashboard_listen=127.0.0.1:9090\n";
    CAppLog::ConfigureSinks(CAppLog::SinkFile, log);
    collector::CollectorSettings settings;
    settings.listen = {"0.0.0.0:80"};
    ASSERT_TRUE(collector::LoadCollectorSettings(conf, settings));
    CAppLog::ConfigureSinks(0);

    EXPECT_EQ(settings.listen, (std::vector<std::string>{"0.0.0.0:443", "[::]:8443"}));
    EXPECT_EQ(settings.retentionDays, 30u);
    EXPECT_EQ(settings.maxConnections, 20000u);
    EXPECT_EQ(settings.bodyBudgetBytes, 256ull << 20);
    EXPECT_EQ(settings.minFreeBytes, 1ull << 30);
    EXPECT_FALSE(settings.keepClientAddress);
    EXPECT_FALSE(settings.proxyProtocol);
    EXPECT_EQ(settings.logSinks, static_cast<unsigned int>(CAppLog::SinkFile));
    EXPECT_EQ(settings.timeScale, 1000.0);
    EXPECT_EQ(settings.clockStart, 1798761600);
    EXPECT_EQ(settings.dashboardListen, "127.0.0.1:9090");

    const std::string logged = ReadFile(log);
    for (const std::string& line :
         {conf + ":4: bad value \"::1:443\" for listen", conf + ":5: bad value",
          conf + ":7: bad value \"0\" for max_connections", conf + ":11: bad value",
          conf + ":15: unknown key \"colour\"", conf + ":16: no \"=\""}) {
        EXPECT_NE(logged.find(line), std::string::npos) << line << "\n" << logged;
    }
    EXPECT_FALSE(collector::LoadCollectorSettings(std::string(dir) + "/missing", settings));
    EXPECT_EQ(system(("rm -rf " + std::string(dir)).c_str()), 0);
}

}  // namespace
