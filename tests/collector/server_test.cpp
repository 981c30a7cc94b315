// The collector's network side below its sockets, each against the behaviour an operator
// relies on: caps that free their slots, allowances that refill with time, PROXY headers as
// a load balancer sends them, and the dashboard token. (The committer is tested on the running
// program: durability_test.py.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "server/DashboardAccess.h"
#include "server/Limits.h"
#include "server/ProxyHeader.h"

namespace collector {
namespace {

TEST(ConnectionLimiter, CapsInAllAndPerAddressAndFreesSlotsOnRelease) {
    ConnectionLimiter limiter(3, 2);
    auto a1 = limiter.TryAcquire("10.0.0.1");
    auto a2 = limiter.TryAcquire("10.0.0.1");
    EXPECT_FALSE(limiter.TryAcquire("10.0.0.1")) << "third from one address";
    auto b1 = limiter.TryAcquire("10.0.0.2");
    EXPECT_TRUE(a1 && a2 && b1);
    EXPECT_FALSE(limiter.TryAcquire("10.0.0.3")) << "past the cap in all";
    a1 = ConnectionLimiter::Slot();
    EXPECT_EQ(2u, limiter.Open());
    auto again = limiter.TryAcquire("10.0.0.1");
    EXPECT_TRUE(again);
    auto moved = std::move(again);
    EXPECT_EQ(3u, limiter.Open()) << "a moved slot is counted once";
}

TEST(AddressQuotas, PostsRefillAtTheMinuteRateAndBytesPerHour) {
    AddressQuotas quotas({60, 1000, 0});
    unsigned int retry = 0;
    for (int i = 0; i < 60; ++i)
        ASSERT_TRUE(quotas.AdmitPost("a", 1, 100.0, retry)) << i;
    EXPECT_FALSE(quotas.AdmitPost("a", 1, 100.0, retry));
    EXPECT_EQ(1u, retry) << "one post a second comes back";
    EXPECT_TRUE(quotas.AdmitPost("b", 1, 100.0, retry)) << "addresses are apart";
    EXPECT_TRUE(quotas.AdmitPost("a", 1, 101.0, retry));

    AddressQuotas bytes({1000, 1000, 0});
    EXPECT_TRUE(bytes.AdmitPost("a", 900, 0.0, retry));
    EXPECT_FALSE(bytes.AdmitPost("a", 200, 600.0, retry));
    EXPECT_EQ(3000u, retry) << "the rest of the hour";
    EXPECT_TRUE(bytes.AdmitPost("a", 200, 3600.0, retry)) << "a new hour";
}

TEST(SlowClientGuard, RefusesAnAddressForAMinuteAfterItsStrikesWithinOne) {
    SlowClientGuard guard(3);
    EXPECT_FALSE(guard.NoteOverrun("a", 0.0));
    EXPECT_FALSE(guard.NoteOverrun("a", 59.0));
    EXPECT_TRUE(guard.NoteOverrun("a", 59.5)) << "the third within a minute begins a refusal";
    EXPECT_TRUE(guard.Refused("a", 60.0));
    EXPECT_FALSE(guard.Refused("b", 60.0)) << "addresses are apart";
    EXPECT_FALSE(guard.NoteOverrun("a", 100.0)) << "a refusal is logged once";
    EXPECT_FALSE(guard.Refused("a", 119.5)) << "the minute is over";
    // An address that comes back is refused twice as long each time, up to an hour, until
    // it has behaved for an hour after its last refusal.
    double now = 200;
    for (double expected : {120.0, 240.0, 480.0, 960.0, 1920.0, 3600.0, 3600.0}) {
        guard.NoteOverrun("a", now);
        guard.NoteOverrun("a", now);
        EXPECT_EQ(expected, guard.NoteOverrun("a", now)) << "at " << now;
        EXPECT_TRUE(guard.Refused("a", now + expected - 1));
        now += expected;
    }
    now += SlowClientGuard::kForgiveSeconds + 1;
    guard.NoteOverrun("a", now);
    guard.NoteOverrun("a", now);
    EXPECT_EQ(60.0, guard.NoteOverrun("a", now)) << "forgiven";

    EXPECT_FALSE(guard.NoteOverrun("c", 0.0));
    EXPECT_FALSE(guard.NoteOverrun("c", 30.0));
    EXPECT_FALSE(guard.NoteOverrun("c", 61.0)) << "the first fell out of its window";
    EXPECT_FALSE(guard.Refused("c", 61.0));

    SlowClientGuard off(0);
    for (int i = 0; i < 100; ++i)
        EXPECT_FALSE(off.NoteOverrun("a", i));
    EXPECT_FALSE(off.Refused("a", 100.0));
}

TEST(BodyBudget, LargeBodiesNeitherStarveSmallOnesNorLetOneAddressHoldTheRest) {
    using Pool = BodyBudget::Pool;
    constexpr uint64_t MiB = 1 << 20;
    BodyBudget budget(80 * MiB);  // 10 MiB for small bodies, 70 for the rest, 17.5 an address
    EXPECT_EQ(Pool::Large, budget.TryReserve("a", 16 * MiB));
    EXPECT_EQ(Pool::None, budget.TryReserve("a", 16 * MiB)) << "past the address's share";
    for (const char* other : {"b", "c", "d"})
        EXPECT_EQ(Pool::Large, budget.TryReserve(other, 16 * MiB)) << other;
    EXPECT_EQ(Pool::None, budget.TryReserve("e", 16 * MiB)) << "the large pool is full";
    EXPECT_EQ(Pool::Small, budget.TryReserve("a", 600)) << "small bodies have their own";
    for (int i = 0; i < 159; ++i)
        ASSERT_EQ(Pool::Small, budget.TryReserve("f", 64 * 1024)) << i;
    EXPECT_EQ(Pool::Large, budget.TryReserve("f", 64 * 1024)) << "then draw on the rest";
    budget.Release("b", 16 * MiB, Pool::Large);
    EXPECT_EQ(Pool::Large, budget.TryReserve("e", 16 * MiB)) << "a release makes room";
    budget.Release("a", 16 * MiB, Pool::Large);
    EXPECT_EQ(Pool::Large, budget.TryReserve("a", 16 * MiB)) << "and gives the share back";
}

TEST(AddressQuotas, DamagedBytesPerDay) {
    AddressQuotas quotas({60, 1u << 30, 100});
    EXPECT_TRUE(quotas.AdmitDamaged("a", 60, 0.0));
    EXPECT_FALSE(quotas.AdmitDamaged("a", 60, 10.0));
    EXPECT_TRUE(quotas.AdmitDamaged("b", 60, 10.0));
    EXPECT_TRUE(quotas.AdmitDamaged("a", 60, 86400.0));
}

std::string V2(unsigned char command, unsigned char family,
               const std::vector<unsigned char>& tail) {
    std::string header("\r\n\r\n\0\r\nQUIT\n", 12);
    header += static_cast<char>(0x20 | command);
    header += static_cast<char>(family);
    header += static_cast<char>(tail.size() >> 8);
    header += static_cast<char>(tail.size() & 0xff);
    header.append(tail.begin(), tail.end());
    return header;
}

TEST(ProxyHeader, VersionsOneAndTwo) {
    const std::vector<unsigned char> v4 = {192, 0, 2, 7, 10, 0, 0, 1, 0x30, 0x39, 1, 187};
    std::vector<unsigned char> v6(36, 0);
    v6[0] = 0x20, v6[1] = 0x01, v6[2] = 0x0d, v6[3] = 0xb8, v6[15] = 1;
    struct Row {
        const char* name;
        std::string bytes;
        ProxyParse result;
        std::string address;
        size_t length;
    } rows[] = {
        {"v1 tcp4", "PROXY TCP4 192.0.2.7 10.0.0.1 12345 443\r\nTLS", ProxyParse::Done, "192.0.2.7",
         41},
        {"v1 tcp6", "PROXY TCP6 2001:db8::1 ::1 1 443\r\n", ProxyParse::Done, "2001:db8::1", 34},
        {"v1 unknown", "PROXY UNKNOWN\r\n", ProxyParse::Done, "", 15},
        {"v1 partial", "PROXY TCP4 192.0.2.7 10.0", ProxyParse::NeedMore, "", 0},
        {"v1 bad address", "PROXY TCP4 192.0.2.999 10.0.0.1 1 2\r\n", ProxyParse::Invalid, "", 0},
        {"v1 bad port", "PROXY TCP4 192.0.2.7 10.0.0.1 1 65536\r\n", ProxyParse::Invalid, "", 0},
        {"v1 no end", "PROXY TCP4 " + std::string(120, '1'), ProxyParse::Invalid, "", 0},
        {"not a header", "\x16\x03\x01\x02\x00", ProxyParse::Invalid, "", 0},
        {"v2 tcp4", V2(1, 0x11, v4) + "TLS", ProxyParse::Done, "192.0.2.7", 28},
        {"v2 tcp6", V2(1, 0x21, v6), ProxyParse::Done, "2001:db8::1", 52},
        {"v2 local", V2(0, 0x00, {}), ProxyParse::Done, "", 16},
        {"v2 partial", V2(1, 0x11, v4).substr(0, 20), ProxyParse::NeedMore, "", 0},
        {"v2 address cut short", V2(1, 0x11, {1, 2, 3}), ProxyParse::Invalid, "", 0},
        {"v2 udp", V2(1, 0x12, v4), ProxyParse::Invalid, "", 0},
    };
    for (const Row& row : rows) {
        ProxyHeader header;
        EXPECT_EQ(row.result, ParseProxyHeader(row.bytes.data(), row.bytes.size(), header))
            << row.name;
        if (row.result == ProxyParse::Done) {
            EXPECT_EQ(row.address, header.clientAddress) << row.name;
            EXPECT_EQ(row.length, header.length) << row.name;
        }
    }
}

TEST(DashboardAccess, TokenFromSettingsStateFileOrOff) {
    char pattern[] = "/tmp/collector-access-XXXXXX";
    const std::string state = mkdtemp(pattern) + std::string("/state");
    CollectorSettings settings;
    settings.stateDirectory = state;
    DashboardAccess made, reread;
    std::string error;
    ASSERT_TRUE(made.Load(settings, true, error)) << error;
    ASSERT_TRUE(reread.Load(settings, false, error)) << error;
    std::ifstream file(state + "/dashboard-token");
    std::string token;
    file >> token;
    struct stat info {};
    ASSERT_EQ(0, stat((state + "/dashboard-token").c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 0777);
    EXPECT_EQ(64u, token.size());
    const std::string cookie = std::string(DashboardAccess::kCookieName) + "=" + made.CookieValue();
    struct Row {
        std::string authorization, cookie;
        bool allowed;
    } rows[] = {
        {"Bearer " + token, "", true},
        {"", "theme=dark; " + cookie, true},
        {"Bearer " + token + "x", "", false},
        {"Bearer " + token.substr(1), "", false},
        {"bearer " + token, "", false},
        {token, "", false},
        {"", std::string(DashboardAccess::kCookieName) + "=" + token, false},
        {"", "x" + cookie, false},
        {"", "", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.allowed, reread.Allows(row.authorization, row.cookie))
            << row.authorization << " | " << row.cookie;
    }
    settings.dashboardToken = "off";
    DashboardAccess open, refused;
    EXPECT_TRUE(open.Load(settings, true, error));
    EXPECT_TRUE(open.Allows("", ""));
    EXPECT_FALSE(refused.Load(settings, false, error)) << "off on a listener beyond loopback";
    std::system(("rm -rf " + state.substr(0, state.rfind('/'))).c_str());
}

}  // namespace
}  // namespace collector
