// Who may read through the dashboard listener: the holder of the dashboard token.
//
// The token is `dashboard_token` from the settings or, when that is not set, the one kept in
// the state directory (dashboard-token, 0600), made at first start. "off" turns the check
// off, which is refused unless the listener is on loopback. A request presents the token
// as "Authorization: Bearer TOKEN" or as the session cookie that the login form sets;
// both are compared in constant time.
//
// Threads: const members from any thread once Load() has succeeded.
#pragma once

#include <string>

#include "CollectorSettings.h"

namespace collector {

class DashboardAccess {
public:
    static constexpr const char* kCookieName = "pathweave_dashboard";

    // Settles the token for a listener that is (or is not) on loopback; false with `error`
    // set when it cannot.
    bool Load(const CollectorSettings& settings, bool loopback, std::string& error);

    bool Open() const { return open_; }
    // The Authorization header and Cookie header of a request (either may be empty).
    bool Allows(const std::string& authorization, const std::string& cookie) const;
    // True when `candidate` (what a login form sent) is the token.
    bool IsToken(const std::string& candidate) const;
    // The session cookie's value after a successful login: derived from the token, so the
    // token itself is not kept in the browser.
    const std::string& CookieValue() const { return cookieValue_; }

private:
    bool open_ = false;
    std::string tokenDigest_;  // SHA-256 of the token: equal lengths for the comparison
    std::string cookieValue_;
};

// Whether a dashboard listener address ("127.0.0.1:8080", "[::1]:8080") is on loopback.
bool IsLoopbackListen(const std::string& listen);
// The value of cookie `name` in a Cookie header; empty when it has none.
std::string CookieFrom(const std::string& header, const std::string& name);

}  // namespace collector
