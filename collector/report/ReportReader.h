// Reads a report (the bytes after "data=") into a bencode tree with the collector's reader
// limits, and accepts it only in the exact form a client writes. Shared by the validator
// and by whatever maps a stored body to JSON. Thread-safe (no shared state).
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Bencode.h"

namespace collector {

// The largest report, zipped or inflated: the largest file a client posts (16 MiB). A
// crash report of that size holds a dump of about 12.6 MB as one base64 string.
constexpr size_t kMaxReportBytes = 16u * 1024 * 1024;
// A report nests six levels down to a module's own dictionary; module data may nest more,
// but not without bound.
constexpr size_t kMaxReportDepth = 64;
// Each value read takes about a hundred bytes or more in the tree: this bounds the memory
// of one report's tree to a few tens of MiB, whatever its 16 MiB hold.
constexpr size_t kMaxReportValues = 256u * 1024;

// The reader limits above, with the library's log records turned off (a refused body is
// reported once, with its reason, by whoever stores it).
BencodeReadLimits ReportReadLimits();

// The tree of `report`, or null with `reason` when it is not one bencode list in the form
// a client writes: no NUL byte, within the limits, valid bencode with nothing after it, and
// written back byte for byte as it came (integers without leading zeros or "+", keys in
// order and each once, no other tolerance of the reader).
std::unique_ptr<CBencodeList> ReadReportTree(const std::string& report, std::string& reason);

// The whole report in the JSON form that cefdump prints (one line); false with `reason` when
// ReadReportTree refuses it.
bool ReportToJson(const std::string& report, std::string& json, std::string& reason);

// The same text as ReportToJson, appended to `json`, for a report that ReadReportTree
// accepted before (any stored report not classified as damaged): written as the bytes are
// read, without building the tree or writing the report back. False, with `json` as it
// was, when the bytes do not read as one list with its keys in order after all: ask
// ReportToJson then.
bool AppendAcceptedReportJson(const std::string& report, std::string& json);

}  // namespace collector
