// Checks one posted body against the report layout and classifies it by content.
//
// Never fails: a body that does not validate comes back as a damaged report with the
// reason, so that it is kept and answered like any other. Thread-safe (no shared state).
#pragma once

#include <string>

#include "report/Report.h"

namespace collector {

// `posted` is the whole request body as received ("data=" and the report). `zipped` is
// true when the request carried "Zip: True": the report after "data=" is zlib data and is
// inflated (at most 16 MiB of output; more is a damaged body, never inflated further).
// Fills everything but `received` and `clientAddress`, which the caller sets.
ValidatedReport ValidateBody(std::string posted, bool zipped);

// The same for a report's bytes alone (what follows "data=", not zipped): a report file as
// a client keeps it, validated without first being made a posted body.
ValidatedReport ValidateReport(std::string body);

// The decoded crash dump of `module` in a stored body (the report after "data=", inflated
// when it came zipped), for a store that keeps a dump's size and SHA-256 but reads its bytes
// from the body. False with `reason` when the body holds no such dump.
bool DecodeCrashDump(const std::string& body, const std::string& module, std::string& bytes,
                     std::string& reason);

}  // namespace collector
