// What `pathweave-host status` reports beyond the status interface: the profile it read,
// the reports waiting for delivery and the schedule the history records. These come from
// the documented files of the feedback directory, read here without the plug-in's help.
#pragma once

#include <string>

// The profile's path, and why the defaults apply when it is missing or does not parse.
std::string DescribeProfile(const std::string& profilePath);

// "N reports waiting, oldest TIME" for the outbound directory, "none waiting" when it is
// empty, or why it cannot be listed.
std::string DescribeOutbound(const std::string& outboundDir);

// The history's value of `key` as a UTC time ("never" when empty or absent), or why the
// history cannot be read. The file is read with the limits the service applies to it:
// a regular file of at most 1 MiB, opened without blocking.
std::string DescribeHistoryTime(const std::string& historyPath, const std::string& key);

// Empty when `path` names a regular file that can be opened for reading, else the reason.
std::string UnreadableReason(const std::string& path);
