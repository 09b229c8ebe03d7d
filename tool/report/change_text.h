#pragma once

#include <cstdint>
#include <string>

#include "tool/change/attribute_changes.h"
#include "tool/change/difference.h"
#include "tool/change/object_state.h"

struct CReportContext;
struct CReportSummary;

// Texts for people about objects and their changes, made from the change model's machine values
// (and account names looked up as the text is made). Every text is safe to print, whatever the
// names it holds.

// How much a line says. Compact (what a terminal shows by default): a hash's first 12 digits,
// times to the second where that tells the two apart, no modification time when the content
// changed and no status-change time when anything else changed (they follow from it): a line
// about a short path fits 120 columns. Long: every digit of every value, as the system log,
// files and --long get it.
enum class CLineForm { kCompact, kLong };

std::string ModeText(uint32_t st_mode);                                       // "-rwsr-xr-x (4755)"
std::string PermissionText(const std::string& octal_mode, CObjectKind kind);  // from "4755"
std::string OwnerText(const std::string& uid);  // "root (0)", or "1234" without a name
std::string GroupText(const std::string& gid);
std::string FlagsText(const std::string& letters);  // "ia (immutable, append-only)"

// The main properties of an object for a "new" or "gone" line: kind, mode, owner, group,
// capabilities, ACLs, device, flags, link target, hash.
std::string ObjectSummary(const CObjectState& state, CLineForm form = CLineForm::kLong);

// One difference of "difference": "owner root (0) -> nobody (65534)", "size 1,024 -> 2,048".
std::string ChangeText(const CAttributeChange& change, const CDifference& difference,
                       CLineForm form = CLineForm::kLong);

// One line: the words, the path, then every difference with its recorded and current value (or,
// for a new or gone object, what it is), and what stands out about a new object.
std::string DifferenceText(const CDifference& difference, CLineForm form = CLineForm::kLong);

// A line for an object that could not be read: "unreadable", the path and the reason.
std::string UnreadableText(const std::string& relative_path, const std::string& reason);

// A report's last line: what was checked, in how long, and how many of each kind of change
// ("policy etc (/etc): checked 1,234 objects (5.6 MB) in 0.12 s: 2 differences (1 new, ...)").
std::string SummaryText(const CReportSummary& summary, const CReportContext& context);
