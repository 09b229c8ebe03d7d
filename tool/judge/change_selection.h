#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tool/change/difference.h"
#include "tool/rules/policy_rules.h"

// Keeps in a changed object's difference only what its selection reports: a log that grew and
// kept its old bytes (the prefix of the recorded size still hashes to the recorded hash) loses its
// content, size and time changes; a directory whose times are ignored loses those. Returns false
// when nothing is left to report. New, gone and renamed objects are left as they are.
bool ApplySelection(CDifference& difference, const CSelection& selection, uint32_t policy_number);

// The log that "path" is a rotated name of ("log/syslog" for "log/syslog.1",
// "log/syslog.2.gz", "log/syslog-20261123"); empty when it is none.
std::string RotatedFrom(std::string path);

// Whether the object at "path" is a log that may grow, or a rotated name of one ("app.log.1",
// "app.log-20261124.gz" when a rule lets "app.log" grow, whatever it says of the rotated names).
bool GrowsAsLog(const CPolicyRules& rules, const std::string& path, CObjectKind kind);

// A log rotated in place (NAME emptied or replaced, NAME.1 or NAME-20261123, maybe compressed,
// appearing, older ones shifting or going) is not a change: drops those differences of objects
// whose rules let them grow.
void ForgiveRotations(std::vector<CDifference>& differences, const CPolicyRules& rules);
