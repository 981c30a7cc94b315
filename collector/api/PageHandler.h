// The dashboard's pages: static files (HTML, CSS, ES modules) from the web root, and the
// chart library from where its Debian package installs it. The pages fetch everything they
// show from the JSON API and set it as text, so the server never writes report data into
// HTML; every answer carries the headers that keep a browser from running anything else
// (Content-Security-Policy without inline script or eval, nosniff, no referrer, no framing).
//
// Called after the dashboard token was checked, for every path that is not /api/,
// /metrics, /login or /logout. Reads the files on each request (they are small and the
// page cache keeps them); no directory is ever listed and no path leaves its root.
#pragma once

#include <string>

#include "api/ApiHandler.h"

namespace collector {

struct PageRoots {
    std::string web;      // the pages, styles and scripts
    std::string chartJs;  // the chart library's directory, served under /vendor/chart.js/
};

// Where the pages are: beside the program's installation (../share/pathweave-collector/web
// from the program's directory) when they were installed, else the source tree's
// collector/web (a build tree), and the chart library's package directory.
PageRoots DefaultPageRoots();

// Answers a GET or HEAD of a page, style, script or the chart library; 404 for anything
// else under the roots, 405 for other methods.
ApiAnswer HandlePageRequest(const ApiRequest& request, const PageRoots& roots);

// The headers every page answer carries (exposed for the listener's own answers).
const std::vector<std::pair<std::string, std::string>>& PageSecurityHeaders();

}  // namespace collector
