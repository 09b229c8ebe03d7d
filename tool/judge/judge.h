#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tool/change/difference.h"
#include "tool/change/object_state.h"

class CPolicyRules;
class CRefFileObjInfo;

// The one place that decides whether and how an object of a policy changed: the batch check (a
// walk of the whole tree) and the watch service (one kernel event at a time) both ask it, so
// that a change reads the same whichever found it. It takes what the database recorded, what is
// there now, the module's check status and the rules' selection for the object, and says what
// changed in machine values (people's texts are the report's); the package manager's verdict is
// added afterwards (ExplainByPackages).
//
// Stateless apart from the rules it reads: safe to use from several threads at once.
class CJudge {
 public:
  // "rules" must outlive the judge; "root" is the policy's root (where a path lies on this
  // system weighs in its severity).
  CJudge(const CPolicyRules& rules, uint32_t policy_number, std::string root);

  // Whether the rules leave the object out, by its path or by its kind: it is neither recorded
  // nor reported, and a record of it made before the rule is left alone.
  bool Excluded(const std::string& relative, CObjectKind kind) const;

  // An object that is there now ("info", as just read) where the database records "recorded"
  // (nothing: it is new; the other of a file and a directory: its kind changed), and for which
  // the module's check answered "status". Nothing when none of what differs is reported by the
  // object's selection (a log that grew and kept its bytes, a directory whose times are ignored).
  std::optional<CDifference> Present(const std::string& relative,
                                     const std::optional<CObjectState>& recorded,
                                     const std::shared_ptr<CRefFileObjInfo>& info,
                                     uint32_t status) const;
  // A recorded object that is no longer there.
  CDifference Gone(const std::string& relative, const CObjectState& recorded,
                   uint32_t status) const;
  // A recorded object ("gone" at its old path) that arrived where "arrived" (a new object) is.
  CDifference Renamed(const CDifference& gone, CDifference arrived) const;

  // Grades a difference (see severity.h): Present, Gone and Renamed do it; a difference made
  // elsewhere (a directory's move as the service sees it) is graded here.
  void Grade(CDifference& difference) const;

  // What a whole walk found, settled: a gone and a new file with the same content become one
  // rename, a log rotated in place is no change, and the rest is sorted, the most severe first,
  // then by path.
  void Settle(std::vector<CDifference>& differences) const;

  const CPolicyRules& rules() const { return rules_; }

 private:
  const CPolicyRules& rules_;
  uint32_t policy_number_;
  std::string root_;
};

// The rotations of logs as a service sees them, one change at a time (a rename, then a new file
// under the log's name, or a copy to NAME.1 and the log cut short): the changes that a walk of
// the tree would forgive as a rotation (CJudge::Settle) are forgiven here too.
//
// Not thread-safe: the service's one thread asks it.
class CLiveRotations {
 public:
  // "rules" must outlive this.
  explicit CLiveRotations(const CPolicyRules& rules) : rules_(rules) {}

  // Whether "difference" is part of a log's rotation, and so is not reported. Remembers the
  // logs it sees rotated until their fresh start (the new or cut-short log) is seen.
  bool Forgives(const CDifference& difference);

 private:
  const CPolicyRules& rules_;
  std::set<std::string> rotated_;  // logs rotated whose fresh start is still to come
};
