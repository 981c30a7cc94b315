// A simulated fleet of client machines and the reports they post.
//
// Every machine has a fixed identity (a machine identifier that is the SHA-1 of a seed of
// its own, a customer, a product version, a kernel and a locale) and a collection period
// that each report continues where the previous one ended, as a running client's does.
// Bodies are built with the project's bencode library and are exactly what a client
// posts: "data=" followed by the report list. The fleet is deterministic for a given seed.
//
// Not thread-safe: one fleet belongs to one load run.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace collectorload {

enum class ReportKind { kFeedback = 0, kCrash = 1, kThreat = 2 };
constexpr int kReportKinds = 3;
const char* KindName(ReportKind kind);

// Which reports the fleet posts: feedback reports only; the mix of a real fleet (about 95%
// feedback, 4% crash reports with a 64 KiB dump, 1% threat reports); or only the largest
// report a client can send, a crash report whose dump fills the body to 16 MiB.
enum class ReportMix { kFeedbackOnly, kFleet, kLargest };

class CReportFleet {
public:
    // `machines` simulated machines; their first collection periods start within the
    // month before `now` (UNIX seconds).
    CReportFleet(unsigned int machines, ReportMix mix, uint64_t seed, int64_t now);

    // The next report of a machine picked at random: the body as posted, and its kind.
    // False (with a message on stderr) only if the bencode library refuses to write it.
    bool Next(std::string& body, ReportKind& kind);
    // The next feedback report of a machine picked at random, whatever the mix.
    bool NextFeedback(std::string& body);

    size_t Machines() const { return m_machines.size(); }

private:
    struct Machine {
        std::string id;  // 40 lower-case hex digits
        std::string customer;
        std::string version;
        size_t kernel;  // index into the kernel table
        size_t locale;  // index into the locale table
        bool hasScanner;
        int64_t periodEnd;  // end of the last report's period
        uint32_t reports;   // reports written so far
    };

    ReportKind PickKind();
    bool Write(ReportKind kind, std::string& body);
    // The base64 text of a crash dump that no other report carries.
    std::string CrashData(const Machine& machine, const std::string& module);

    ReportMix m_mix;
    std::mt19937_64 m_random;
    std::vector<Machine> m_machines;
    std::string m_dumpPool;     // random bytes that the crash dumps are cut from
    std::string m_largestTail;  // base64 of the largest dumps' shared tail, once made
};

}  // namespace collectorload
