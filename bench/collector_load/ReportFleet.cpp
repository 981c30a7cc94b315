// The simulated fleet: machine identities and the three kinds of report, shaped like the
// reports the plug-in writes (the report list, the report dictionary, module data of the
// four modules, one crash file per crash report, one threat incident per threat report).
#include "ReportFleet.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "Bencode.h"

namespace collectorload {

namespace {

const size_t kDumpSize = 64 * 1024;
// The largest dump: its base64 text and the rest of the report (well under 2 KiB) fill a
// body of at most 16 MiB after "data=".
const size_t kLargestDumpSize = (16 * 1024 * 1024 - 2048) / 4 * 3;
// Its header, padded: a multiple of three bytes, and longer than any header's text.
const size_t kLargestHeaderSize = 120;

struct Kernel {
    const char* release;
    long long major, minor, build;
};
const Kernel kKernels[] = {
    {"6.1.0-18-686-pae", 6, 1, 76}, {"6.1.0-25-686", 6, 1, 106}, {"5.10.0-28-686-pae", 5, 10, 209},
    {"6.18.44-fc-v669", 6, 18, 44}, {"6.6.30-i686", 6, 6, 30},
};
const char* const kLocales[] = {"en_US.UTF-8", "de_DE.UTF-8", "fr_FR.UTF-8", "C.UTF-8",
                                "ja_JP.UTF-8", "pt_BR.UTF-8", "en_GB.UTF-8"};
const char* const kVersions[] = {"5.1.00123", "5.1.00123", "5.1.00120", "5.0.00988"};
const char* const kProtocols[] = {"ikev2", "ssl", "ipsec"};
const char* const kCrashModules[] = {"VpnModule", "OstraModule", "WebSecurityModule", "GuiModule",
                                     "DownloaderModule"};
const char* const kEngines[] = {"3.2.1", "3.2.0", "3.1.7"};

template <typename T, size_t N>
const T& Pick(const T (&table)[N], uint64_t value) {
    return table[value % N];
}

std::string Hex(const unsigned char* bytes, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0xF]);
    }
    return text;
}

// The SHA-1 of `seed` in hex, as a client derives its machine identifier.
std::string Sha1Hex(const std::string& seed) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(seed.data(), seed.size(), digest, &length, EVP_sha1(), nullptr) != 1) {
        return std::string(40, '0');
    }
    return Hex(digest, length);
}

// Standard base64, padded, without line breaks.
std::string Base64(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                        reinterpret_cast<const unsigned char*>(bytes.data()),
                                        static_cast<int>(bytes.size()));
    text.resize(written > 0 ? static_cast<size_t>(written) : 0);
    return text;
}

CBencodeDictionary* NewDictionary() {
    return new CBencodeDictionary(false);
}

// One module's data, as the modules write their files: counters and a few texts.
void AddModuleData(CBencodeDictionary& modules, bool hasScanner, std::mt19937_64& random) {
    std::unique_ptr<CBencodeDictionary> telemetry(NewDictionary());
    telemetry->Insert("samples", static_cast<long long>(600 + random() % 1200));
    modules.Insert("TelemetryModule", telemetry.release());

    std::unique_ptr<CBencodeDictionary> vpn(NewDictionary());
    vpn->Insert("connects", static_cast<long long>(random() % 60));
    vpn->Insert("protocol", std::string(Pick(kProtocols, random())));
    vpn->Insert("tunnel_failures",
                static_cast<long long>(random() % 8 == 0 ? 1 + random() % 3 : 0));
    modules.Insert("VpnModule", vpn.release());

    std::unique_ptr<CBencodeDictionary> web(NewDictionary());
    web->Insert("blocked_pages", static_cast<long long>(random() % 40));
    web->Insert("engine_version", std::string(Pick(kEngines, random())));
    modules.Insert("WebSecurityModule", web.release());

    if (hasScanner) {
        std::unique_ptr<CBencodeDictionary> scanner(NewDictionary());
        scanner->Insert("detections", static_cast<long long>(random() % 16 == 0 ? 1 : 0));
        scanner->Insert("files_scanned", static_cast<long long>(random() % 50000));
        modules.Insert("OstraModule", scanner.release());
    }
}

}  // namespace

const char* KindName(ReportKind kind) {
    switch (kind) {
        case ReportKind::kCrash:
            return "crash";
        case ReportKind::kThreat:
            return "threat";
        case ReportKind::kFeedback:
            break;
    }
    return "feedback";
}

CReportFleet::CReportFleet(unsigned int machines, ReportMix mix, uint64_t seed, int64_t now)
    : m_mix(mix), m_random(seed) {
    m_machines.reserve(machines);
    const int64_t month = 30 * 86400;
    for (unsigned int i = 0; i < machines; ++i) {
        Machine machine;
        machine.id =
            Sha1Hex("pathweave-load-machine-" + std::to_string(seed) + "-" + std::to_string(i));
        const uint64_t traits = m_random();
        // One machine in ten has no customer profile and reports the default.
        machine.customer = traits % 10 == 0 ? std::string("release")
                                            : "customer-" + std::to_string(1 + traits % 400);
        machine.version = Pick(kVersions, traits >> 12);
        machine.kernel = (traits >> 20) % (sizeof kKernels / sizeof kKernels[0]);
        machine.locale = (traits >> 28) % (sizeof kLocales / sizeof kLocales[0]);
        machine.hasScanner = (traits >> 36) % 3 == 0;
        machine.periodEnd = now - month + static_cast<int64_t>(m_random() % month);
        machine.reports = 0;
        m_machines.push_back(machine);
    }
    m_dumpPool.resize(2 * kDumpSize);
    for (char& byte : m_dumpPool) {
        byte = static_cast<char>(m_random() & 0xFF);
    }
}

ReportKind CReportFleet::PickKind() {
    if (m_mix != ReportMix::kFleet) {
        return m_mix == ReportMix::kLargest ? ReportKind::kCrash : ReportKind::kFeedback;
    }
    const uint64_t draw = m_random() % 100;
    return draw < 95 ? ReportKind::kFeedback
                     : (draw < 99 ? ReportKind::kCrash : ReportKind::kThreat);
}

// A dump of 64 KiB that no other report carries: a header naming the machine and the
// report, then bytes cut from the pool at an offset of the report's own.
//
// The largest dumps share their tail, whose base64 text is made once: the header is padded
// to a multiple of three bytes, so that the dump's base64 is the header's followed by the
// tail's, and a 16 MiB report costs copies rather than encoding.
std::string CReportFleet::CrashData(const Machine& machine, const std::string& module) {
    std::string header = "core dump of " + module + " on " + machine.id + " report " +
                         std::to_string(machine.reports) + '\n';
    if (m_mix != ReportMix::kLargest) {
        const size_t offset = static_cast<size_t>(m_random() % kDumpSize);
        return Base64(header + m_dumpPool.substr(offset, kDumpSize - header.size()));
    }
    header.resize(kLargestHeaderSize, ' ');
    if (m_largestTail.empty()) {
        std::string tail;
        tail.reserve(kLargestDumpSize - kLargestHeaderSize);
        while (tail.size() < kLargestDumpSize - kLargestHeaderSize) {
            tail.append(
                m_dumpPool, 0,
                std::min(m_dumpPool.size(), kLargestDumpSize - kLargestHeaderSize - tail.size()));
        }
        m_largestTail = Base64(tail);
    }
    return Base64(header) + m_largestTail;
}

bool CReportFleet::Next(std::string& body, ReportKind& kind) {
    kind = PickKind();
    return Write(kind, body);
}

bool CReportFleet::NextFeedback(std::string& body) {
    return Write(ReportKind::kFeedback, body);
}

bool CReportFleet::Write(ReportKind kind, std::string& body) {
    Machine& machine = m_machines[static_cast<size_t>(m_random() % m_machines.size())];

    // Each report's period starts where the machine's previous one ended and lasts
    // between ten minutes and an hour.
    const int64_t periodStart = machine.periodEnd;
    machine.periodEnd = periodStart + 600 + static_cast<int64_t>(m_random() % 3000);
    ++machine.reports;

    CBencodeList report(false);
    report.Append(7LL);
    report.Append(machine.id);
    report.Append(3LL);
    CBencodeList* period = new CBencodeList(false);
    report.Append(period);  // owned by the report from here on
    period->Append(static_cast<long long>(periodStart));
    period->Append(static_cast<long long>(machine.periodEnd));

    CBencodeDictionary* fields = NewDictionary();
    period->Append(fields);
    fields->Insert("CustomerId", machine.customer);
    fields->Insert("MachineId", machine.id);
    const Kernel& kernel = kKernels[machine.kernel];
    std::unique_ptr<CBencodeDictionary> os(NewDictionary());
    os->Insert("OSBuildVersion", kernel.build);
    os->Insert("OSLocale", std::string(kLocales[machine.locale]));
    os->Insert("OSMajorVersion", kernel.major);
    os->Insert("OSMinorVersion", kernel.minor);
    os->Insert("OSName", std::string("Linux"));
    os->Insert("OSType", std::string("Linux"));
    os->Insert("OSVersionDetails", std::string(kernel.release));
    fields->Insert("OSDetails", os.release());
    fields->Insert("PWVersion", machine.version);
    fields->Insert("PhoneHomeFormatVersion", std::string("1.0"));

    CBencodeDictionary* quality = nullptr;
    fields->Get("QualityImprovementData", quality, true);
    // Module data waiting for a locked file rides along in some crash and threat reports.
    if (kind == ReportKind::kFeedback || m_random() % 4 == 0) {
        CBencodeDictionary* modules = nullptr;
        quality->Get("ModuleData", modules, true);
        AddModuleData(*modules, machine.hasScanner, m_random);
    }
    if (kind == ReportKind::kCrash) {
        const std::string module = Pick(kCrashModules, m_random());
        CBencodeDictionary* crashes = nullptr;
        quality->Get("CrashReports", crashes, true);
        std::unique_ptr<CBencodeDictionary> crash(NewDictionary());
        crash->Insert("CrashData", CrashData(machine, module));
        crashes->Insert(module, crash.release());
    } else if (kind == ReportKind::kThreat) {
        CBencodeDictionary* threats = nullptr;
        quality->Get("ThreatReports", threats, true);
        threats->Insert("ThreatIncident",
                        "blocked connection to 203.0.113." + std::to_string(m_random() % 254 + 1) +
                            ":" + std::to_string(1024 + m_random() % 60000) + " by vpnagent");
    }

    CBencodeStream out("", false);
    if (!report.Externalize(out)) {
        fprintf(stderr, "collector_load: the bencode library could not write a report\n");
        return false;
    }
    body.assign("data=");
    body.append(out.Data(), out.Size());
    return true;
}

}  // namespace collectorload
