// The collector's settings file, read with the host settings' conventions (file:line for
// every line skipped) through the host framework's reader of such files.
#include "CollectorSettings.h"

#include <boost/asio/ip/address.hpp>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>

#include "AppLog.h"
#include "HostSettings.h"

namespace collector {

namespace {

using pwhost::SettingVerdict;

// A whole decimal number from `low` to `high`, with an optional K, M or G (binary multiples)
// when `scaled`.
bool ParseNumber(const std::string& value, uint64_t low, uint64_t high, bool scaled,
                 uint64_t& number) {
    if (value.empty() || value[0] < '0' || value[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long parsed = strtoull(value.c_str(), &end, 10);
    if (errno != 0) {
        return false;
    }
    std::string suffix(end);
    unsigned int shift = 0;
    if (scaled && suffix.size() == 1) {
        const std::string units = "KMG";
        const size_t unit = units.find(static_cast<char>(toupper(suffix[0])));
        if (unit == std::string::npos) {
            return false;
        }
        shift = 10 * static_cast<unsigned int>(unit + 1);
        suffix.clear();
    }
    if (!suffix.empty() || parsed > (high >> shift) || (parsed << shift) < low) {
        return false;
    }
    number = parsed << shift;
    return true;
}

template <typename Integer>
std::function<bool(const std::string&)> Number(Integer& field, uint64_t low, uint64_t high,
                                               bool scaled = false) {
    return [&field, low, high, scaled](const std::string& value) {
        uint64_t number = 0;
        if (!ParseNumber(value, low, high, scaled, number)) {
            return false;
        }
        field = static_cast<Integer>(number);
        return true;
    };
}

std::function<bool(const std::string&)> YesNo(bool& field) {
    return [&field](const std::string& value) {
        if (value != "yes" && value != "no") {
            return false;
        }
        field = value == "yes";
        return true;
    };
}

std::function<bool(const std::string&)> Text(std::string& field) {
    return [&field](const std::string& value) {
        if (value.empty()) {
            return false;
        }
        field = value;
        return true;
    };
}

}  // namespace

bool IsListenAddress(const std::string& value) {
    const size_t colon = value.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    uint64_t port = 0;
    if (!ParseNumber(value.substr(colon + 1), 1, 65535, false, port)) {
        return false;
    }
    std::string address = value.substr(0, colon);
    const bool bracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
    if (bracketed) {
        address = address.substr(1, address.size() - 2);
    }
    boost::system::error_code error;
    const boost::asio::ip::address parsed = boost::asio::ip::make_address(address, error);
    // An IPv6 address is written in brackets, so that its colons and the port's are told apart.
    return !error && parsed.is_v6() == bracketed;
}

bool LoadCollectorSettings(const std::string& path, CollectorSettings& settings) {
    const uint64_t kUnlimited = ~0ull;
    bool listenFromFile = false;
    bool logFromFile = false;
    const std::map<std::string, std::function<bool(const std::string&)>> keys = {
        {"listen",
         [&](const std::string& value) {
             if (!IsListenAddress(value)) {
                 return false;
             }
             if (!listenFromFile) {
                 settings.listen.clear();  // the file's addresses replace the defaults
                 listenFromFile = true;
             }
             settings.listen.push_back(value);
             return true;
         }},
        {"proxy_protocol", YesNo(settings.proxyProtocol)},
        {"cert_file", Text(settings.certFile)},
        {"key_file", Text(settings.keyFile)},
        {"database", Text(settings.database)},
        {"retention_days", Number(settings.retentionDays, 0, 100000)},
        {"max_connections", Number(settings.maxConnections, 1, 1000000)},
        {"max_connections_per_address", Number(settings.maxConnectionsPerAddress, 1, 1000000)},
        {"idle_timeout", Number(settings.idleTimeoutSeconds, 1, 86400)},
        {"keep_client_address", YesNo(settings.keepClientAddress)},
        {"log",
         [&](const std::string& value) {
             logFromFile = true;
             return pwhost::ParseLogSinks(value, settings.logSinks);
         }},
        {"log_file", Text(settings.logFile)},
        {"dashboard_listen",
         [&](const std::string& value) {
             if (!IsListenAddress(value)) {
                 return false;
             }
             settings.dashboardListen = value;
             return true;
         }},
        {"dashboard_token", Text(settings.dashboardToken)},
        {"state_directory", Text(settings.stateDirectory)},
        {"time_scale",
         [&](const std::string& value) {
             return pwhost::ParseTimeScale(value, settings.timeScale);
         }},
        {"clock_start",
         [&](const std::string& value) {
             return pwhost::ParseClockStartValue(value, settings.clockStart);
         }},
        {"header_timeout", Number(settings.headerTimeoutSeconds, 1, 3600)},
        {"slow_client_strikes", Number(settings.slowClientStrikes, 0, 1000000)},
        {"min_body_rate", Number(settings.minBodyRate, 1, 1u << 30, true)},
        {"body_budget", Number(settings.bodyBudgetBytes, 17u << 20, kUnlimited, true)},
        {"address_posts_per_minute", Number(settings.postsPerMinutePerAddress, 1, 1000000)},
        {"address_bytes_per_hour", Number(settings.bytesPerHourPerAddress, 1, kUnlimited, true)},
        {"address_damaged_bytes_per_day",
         Number(settings.damagedBytesPerDayPerAddress, 0, kUnlimited, true)},
        {"min_free_space", Number(settings.minFreeBytes, 0, kUnlimited, true)},
        {"drain_timeout", Number(settings.drainTimeoutSeconds, 1, 3600)},
    };
    const bool read =
        pwhost::ReadSettingsFile(path, [&keys](const std::string& key, const std::string& value) {
            auto found = keys.find(key);
            if (found == keys.end()) {
                return SettingVerdict::UnknownKey;
            }
            return found->second(value) ? SettingVerdict::Applied : SettingVerdict::BadValue;
        });
    // A log file named without a `log` line is where the log goes.
    if (!logFromFile && !settings.logFile.empty()) {
        settings.logSinks = CAppLog::SinkFile;
    }
    return read;
}

}  // namespace collector
