// Deterministic generators of the bencode benchmark's inputs: trees are built with the
// library, written in its canonical form, and sized by a search over one parameter so that
// each file comes out just under the 10 MiB load limit.
#include "Generators.h"

#include <cstdint>
#include <cstdio>
#include <functional>

#include "Bencode.h"

namespace bencodebench {

namespace {

// Files stay this far under the limit, so that a file is always loadable.
const size_t kTargetSize = MAX_BENCODE_FILE_SIZE - 1024;

// A small linear congruential generator: the same sequence everywhere.
class CSequence {
public:
    explicit CSequence(uint32_t seed) : m_state(seed) {}
    uint32_t Next() {
        m_state = m_state * 1664525u + 1013904223u;
        return m_state >> 8;
    }
    uint32_t Below(uint32_t bound) { return Next() % bound; }
    std::string Text(size_t length) {
        static const char kAlphabet[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string text(length, ' ');
        for (char& c : text) {
            c = kAlphabet[Below(64)];
        }
        return text;
    }

private:
    uint32_t m_state;
};

std::string Serialise(CBencode& root) {
    CBencodeStream out("", false);
    if (!root.Externalize(out)) {
        fprintf(stderr, "bencode_bench: generator could not serialise its tree\n");
        return std::string();
    }
    return std::string(out.Data(), out.Size());
}

// The largest parameter in [low, high] whose output fits kTargetSize, and that output.
std::string LargestFitting(unsigned int low, unsigned int high,
                           const std::function<std::string(unsigned int)>& generate) {
    std::string best = generate(low);
    while (low < high) {
        const unsigned int middle = low + (high - low + 1) / 2;
        std::string candidate = generate(middle);
        if (candidate.size() <= kTargetSize) {
            low = middle;
            best.swap(candidate);
        } else {
            high = middle - 1;
        }
    }
    return best;
}

std::string Name(const char* prefix, unsigned int index) {
    char text[64];
    snprintf(text, sizeof(text), "%s%03u", prefix, index);
    return text;
}

// One module's data: `keys` top-level entries, each a dictionary of a few counters and a
// short name over a "details" dictionary of four small records (nesting four levels below
// the module, like the feedback files that modules write: many short keys and values).
void FillModule(CBencodeDictionary& module, CSequence& sequence, unsigned int keys) {
    static const char* const kDetailNames[] = {"connect", "disconnect", "reconnect", "timeout"};
    static const char* const kStates[] = {"ok", "failed", "pending", "skipped"};
    for (unsigned int k = 0; k < keys; ++k) {
        CBencodeDictionary* entry = nullptr;
        module.Get(Name("Counter_", k) + sequence.Text(4), entry, true);
        entry->Insert("count", static_cast<long long>(sequence.Below(100000)));
        entry->Insert("first_seen", 1400000000LL + sequence.Below(2592000));
        entry->Insert("last_seen", 1402000000LL + sequence.Below(592000));
        entry->Insert("name", sequence.Text(6 + sequence.Below(12)));
        CBencodeDictionary* details = nullptr;
        entry->Get("details", details, true);
        for (const char* detailName : kDetailNames) {
            CBencodeDictionary* record = nullptr;
            details->Get(detailName, record, true);
            record->Insert("code", static_cast<long long>(sequence.Below(1000)));
            record->Insert("state", std::string(kStates[sequence.Below(4)]));
            CBencodeList* samples = nullptr;
            record->Get("samples", samples, true);
            for (unsigned int i = 0; i < 3; ++i) {
                samples->Append(static_cast<long long>(sequence.Below(5000)));
            }
        }
    }
}

std::string PayloadWithKeys(unsigned int keys) {
    CSequence sequence(20240601u);
    CBencodeList payload(false);
    payload.Append(7LL);
    payload.Append(std::string("3f786850e387550fdab836ed7e6dc881de23001b"));
    payload.Append(3LL);
    CBencodeList* level2 = nullptr;
    payload.Append(level2);
    level2->Append(1400000000LL);
    level2->Append(1402592000LL);
    CBencodeDictionary* level3 = nullptr;
    level2->Append(level3);
    level3->Insert("CustomerID", std::string("CUST-0001-EXAMPLE"));
    level3->Insert("Locale", std::string("en_US"));
    level3->Insert("ProductVersion", std::string("5.1.00123"));
    CBencodeDictionary* os = nullptr;
    level3->Get("OSDetails", os, true);
    os->Insert("Name", std::string("Linux"));
    os->Insert("Release", std::string("6.1.0-18-686-pae"));
    os->Insert("Architecture", std::string("i686"));
    CBencodeDictionary* quality = nullptr;
    level3->Get("QualityImprovementData", quality, true);
    CBencodeDictionary* modules = nullptr;
    quality->Get("ModuleData", modules, true);
    const char* moduleNames[] = {"dart", "nvm", "posture", "vpnagent"};
    for (const char* name : moduleNames) {
        CBencodeDictionary* module = nullptr;
        modules->Get(name, module, true);
        FillModule(*module, sequence, keys);
    }
    CBencodeDictionary* crashes = nullptr;
    quality->Get("CrashReports", crashes, true);
    CBencodeList* reports = nullptr;
    crashes->Get("vpnagent", reports, true);
    CBencodeDictionary* report = nullptr;
    reports->Append(report);
    report->Insert("Dump", sequence.Text(400 * 1024));
    report->Insert("FileName", std::string("vpnagent.core.1402000000"));
    report->Insert("Time", 1402000000LL);
    return Serialise(payload);
}

std::string FlatDictionaryWithValueLength(unsigned int length) {
    CSequence sequence(7u);
    CBencodeDictionary dictionary(false);
    for (unsigned int i = 0; i < 200000; ++i) {
        char key[16];
        snprintf(key, sizeof(key), "key%06u", i);
        if (i % 4 == 0) {
            dictionary.Insert(key, static_cast<long long>(sequence.Next()));
        } else {
            dictionary.Insert(key, sequence.Text(length / 2 + sequence.Below(length + 1)));
        }
    }
    return Serialise(dictionary);
}

}  // namespace

std::string GeneratePayload() {
    return LargestFitting(1000, 20000, PayloadWithKeys);
}

std::string GenerateFlatDictionary() {
    return LargestFitting(0, 200, FlatDictionaryWithValueLength);
}

std::string GenerateStringList() {
    CSequence sequence(99u);
    CBencodeList list(false);
    for (unsigned int i = 0; i < 20; ++i) {
        list.Append(sequence.Text(524280));
    }
    return Serialise(list);
}

}  // namespace bencodebench
