#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tool/change/attribute_changes.h"
#include "tool/change/object_state.h"

class CRefFileObjInfo;

// What happened to one object since the database recorded it.
enum class CChange {
  kNew,      // not recorded (or recorded as the other of file and directory: see kChanged)
  kGone,     // recorded, and no longer there
  kRenamed,  // a gone file and a new file that carry the same content
  kChanged,  // recorded and there, with the differences in "changes"
};

// What the package manager says of a changed or new file.
enum class CPackageVerdict {
  kNone,                // no package owns it (or it was not asked)
  kByPackage,           // its content is what its package installed
  kConffileEdited,      // a configuration file of a package, changed since installed
  kDiffersFromPackage,  // a file of a package whose content is not what the package holds
};

// How dangerous a difference is, as the judge grades it (rules may set it for a path). Reports
// list the most severe first.
enum class CSeverity { kLow, kMedium, kHigh, kCritical };
// "low", "medium", "high", "critical".
const char* SeverityWord(CSeverity severity);
// The word's severity; false for another word.
bool SeverityOfWord(const std::string& word, CSeverity& severity);
// The ECS event.severity of it: 21, 47, 73, 99 (the scale of risk scores that SIEMs use).
int SeverityScore(CSeverity severity);

// Where the watch service says it after a change: whether the object now differs from what the
// policy's baseline holds (pending until a person accepts it) or is as the baseline holds it again.
enum class CBaselineVerdict {
  kNotSaid,     // a check, an update, a diff: the difference is against the baseline itself
  kPending,     // differs from the baseline
  kAsBaseline,  // back to what the baseline holds: nothing to accept
};

struct CDifference {
  CChange change = CChange::kNew;
  std::string words;  // the report's words: "new", "gone", "renamed", or the headline of "changes"
  uint32_t status = 0;    // the database's check status; 0 for a rename, which pairs two
  std::string path;       // relative to the policy's root; "" is the root itself
  std::string from;       // a rename's old path
  CObjectState recorded;  // what the database holds (changed, gone, renamed: the old path's record)
  CObjectState current;   // what is there now (changed, new, renamed)
  std::vector<CAttributeChange> changes;  // every difference, most important first
  // What stands out: about a new object what it is ("setuid", "world-writable", ...), about a
  // changed one what was added ("setuid added", "now a symlink", ...).
  std::vector<std::string> warnings;
  CSeverity severity = CSeverity::kMedium;
  std::shared_ptr<CRefFileObjInfo> info;  // the object as it is now; null when gone
  CPackageVerdict package_verdict = CPackageVerdict::kNone;
  std::string package;  // "name version" of the package that owns it, when one does
  CBaselineVerdict baseline = CBaselineVerdict::kNotSaid;
  // What changed inside a file whose accepted content is kept: one line for people each (the
  // lines taken out and put in, the accounts added or changed), safe to print.
  std::vector<std::string> content;

  // The state that describes the object in a report: the current one unless it is gone.
  const CObjectState& shown() const { return change == CChange::kGone ? recorded : current; }
};

// Sets the words of a difference from its change (or its most important attribute change, or the
// check status when no recorded field shows one), and a new object's warnings.
void SetHeadline(CDifference& difference);

// An object recorded in one database and not in the other, or recorded in both with differences.
CDifference DescribeRecorded(CChange change, const std::string& relative_path,
                             const CObjectState* recorded, const CObjectState* current);

// One object that left "gone"'s path and arrived at "arrived"'s: a rename, with whatever else
// changed on the way (a move always sets the status-change time: that alone is no change).
CDifference RenamedDifference(const CDifference& gone, CDifference arrived);

// Orders differences the most severe first, keeping the order of those of one severity.
void SortMostSevereFirst(std::vector<CDifference>& differences);

// Pairs a gone directory and a new one that are the same inode into one rename (what moved with
// it unchanged is no difference of its own), then a gone file and a new file that carry the same
// content, when no other gone or new file carries it; then sorts by path.
void PairRenamesAndSort(std::vector<CDifference>& differences);
