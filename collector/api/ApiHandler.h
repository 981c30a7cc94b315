// The dashboard listener's read side: one request in, one answer out, independent of the
// network layer that carries them. Called after the token was checked.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace collector {

class Store;

struct ApiRequest {
    std::string method;  // "GET", ...
    std::string target;  // path and query, as received ("/api/reports?kind=crash")
};

struct ApiAnswer {
    int status = 200;
    std::string contentType = "application/json";
    std::vector<std::pair<std::string, std::string>> headers;  // extra headers
    std::string body;
};

// Answers `request` from `store`: the JSON API under /api/. Any other path is 404.
ApiAnswer HandleApiRequest(Store& store, const ApiRequest& request);

}  // namespace collector
