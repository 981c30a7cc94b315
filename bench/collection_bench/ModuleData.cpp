// Generated module feedback files.
#include <cstdio>
#include <random>
#include <string>

#include "CollectionBenchSupport.h"

namespace collectionbench {

namespace {

void Text(std::string& out, const std::string& text) {
    out += std::to_string(text.size());
    out += ':';
    out += text;
}

void Integer(std::string& out, long long value) {
    out += 'i';
    out += std::to_string(value);
    out += 'e';
}

std::string Printable(std::mt19937& random, size_t length) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 .,:/-_";
    std::string text(length, ' ');
    for (char& c : text) {
        c = kAlphabet[random() % (sizeof kAlphabet - 1)];
    }
    return text;
}

}  // namespace

// Keys are written in ascending byte order, as the library itself writes them.
std::string MakeModuleData(size_t bytes, unsigned int seed) {
    static const char* const kEventTypes[] = {"connect", "disconnect", "dns",
                                              "error",   "handshake",  "reconnect"};
    std::mt19937 random(seed);
    std::string out = "d";

    Text(out, "blobs");
    out += 'l';
    for (int i = 0; i < 4; ++i) {
        Text(out, Printable(random, 8192));
    }
    out += 'e';

    Text(out, "counters");
    out += 'd';
    for (int i = 0; i < 300; ++i) {
        char key[16];
        snprintf(key, sizeof key, "c%04d", i);
        Text(out, key);
        Integer(out, static_cast<long long>(random() % 100000));
    }
    out += 'e';

    std::string tail;
    Text(tail, "module");
    Text(tail, "module" + std::to_string(seed));
    Text(tail, "version");
    Text(tail, "5.1.00123");
    tail += 'e';

    Text(out, "events");
    out += 'l';
    for (long long i = 0; out.size() + tail.size() + 1 < bytes; ++i) {
        std::string event = "d";
        Text(event, "code");
        Integer(event, static_cast<long long>(random() % 600));
        Text(event, "detail");
        Text(event, Printable(random, 24 + random() % 137));
        Text(event, "duration_ms");
        Integer(event, static_cast<long long>(random() % 30000));
        Text(event, "time");
        Integer(event, 1400000000LL + i * 7);
        Text(event, "type");
        Text(event, kEventTypes[random() % 6]);
        event += 'e';
        if (out.size() + event.size() + tail.size() + 1 > bytes) {
            break;
        }
        out += event;
    }
    out += 'e';
    out += tail;
    return out;
}

}  // namespace collectionbench
