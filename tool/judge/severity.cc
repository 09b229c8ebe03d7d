#include "tool/judge/severity.h"

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tool/change/difference.h"
#include "tool/rules/path_pattern.h"
#include "tool/rules/policy_rules.h"

namespace {

// Where an intruder who got in once makes sure to get in again, relative to "/".
const std::vector<CPathPattern>& PersistencePlaces() {
  static const std::vector<CPathPattern> kPlaces = [] {
    std::vector<CPathPattern> places;
    for (const char* text : {"etc/crontab",
                             "etc/cron.*/**",
                             "etc/cron.d",
                             "var/spool/cron/**",
                             "etc/anacrontab",
                             "etc/systemd/**",
                             "lib/systemd/system/**",
                             "usr/lib/systemd/system/**",
                             "etc/init.d/**",
                             "etc/rc.local",
                             "etc/rc*.d/**",
                             "etc/ld.so.preload",
                             "etc/ld.so.conf",
                             "etc/ld.so.conf.d/**",
                             "etc/pam.d/**",
                             "etc/security/**",
                             "etc/sudoers",
                             "etc/sudoers.d/**",
                             "etc/passwd",
                             "etc/shadow",
                             "etc/group",
                             "etc/gshadow",
                             "etc/ssh/**",
                             "etc/profile",
                             "etc/profile.d/**",
                             "etc/bash.bashrc",
                             "etc/environment",
                             "etc/modules",
                             "etc/modules-load.d/**",
                             "etc/modprobe.d/**",
                             "etc/udev/rules.d/**",
                             "etc/xdg/autostart/**",
                             "root/.ssh/**",
                             "home/*/.ssh/**",
                             "root/.bashrc",
                             "root/.profile",
                             "root/.bash_profile",
                             "root/.bash_login",
                             "root/.zshrc",
                             "root/.config/systemd/**",
                             "home/*/.bashrc",
                             "home/*/.profile",
                             "home/*/.bash_profile",
                             "home/*/.bash_login",
                             "home/*/.zshrc",
                             "home/*/.config/systemd/**",
                             "home/*/.config/autostart/**"}) {
      places.emplace_back(text);
    }
    return places;
  }();
  return kPlaces;
}

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// A shared library or a kernel module, by its name.
bool IsLibraryOrModule(std::string_view full_path) {
  std::string_view name = full_path.substr(full_path.rfind('/') + 1);
  return EndsWith(name, ".so") || name.find(".so.") != std::string_view::npos ||
         EndsWith(name, ".ko") || name.find(".ko.") != std::string_view::npos;
}

bool IsExecutable(const CObjectState& state) {
  return state.kind() == CObjectKind::kFile && state.attributes != kUnknownAttributes &&
         (state.attributes & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

bool Has(const std::vector<CAttributeChange>& changes, CAspect aspect) {
  return std::any_of(changes.begin(), changes.end(),
                     [aspect](const CAttributeChange& change) { return change.aspect == aspect; });
}

bool OnlyTimes(const std::vector<CAttributeChange>& changes) {
  return std::all_of(changes.begin(), changes.end(), [](const CAttributeChange& change) {
    return change.aspect == CAspect::kModified || change.aspect == CAspect::kStatusChanged;
  });
}

// What a changed object gained that stands out: "setuid added", "now a symlink", ...; each only
// where the selection reports the aspect that shows it.
std::vector<std::string> WhatWasAdded(const CDifference& difference) {
  std::vector<std::string> added;
  const std::vector<CAttributeChange>& changes = difference.changes;
  std::vector<std::string> before = Warnings(difference.recorded);
  for (const std::string& warning : Warnings(difference.current)) {
    CAspect shown = warning == "capabilities" ? CAspect::kCapabilities : CAspect::kMode;
    if (std::find(before.begin(), before.end(), warning) == before.end() && Has(changes, shown))
      added.push_back(warning + " added");
  }
  CObjectKind was = difference.recorded.kind();
  CObjectKind now = difference.current.kind();
  if (Has(changes, CAspect::kKind) && was != now &&
      (now == CObjectKind::kSymlink || now == CObjectKind::kCharDevice ||
       now == CObjectKind::kBlockDevice)) {
    added.push_back(std::string("now a ") + KindWords(now));
  }
  return added;
}

}  // namespace

bool IsPersistencePlace(std::string_view full_path) {
  while (!full_path.empty() && full_path.front() == '/') full_path.remove_prefix(1);
  // Every place lies below one of these: the rest of the system is told apart at once.
  std::string_view first = full_path.substr(0, full_path.find('/'));
  if (first != "etc" && first != "var" && first != "lib" && first != "usr" && first != "root" &&
      first != "home") {
    return false;
  }
  std::vector<std::string_view> names = SplitPath(full_path);
  for (const CPathPattern& place : PersistencePlaces()) {
    if (place.Matches(names)) return true;
  }
  return false;
}

void Grade(CDifference& difference, std::string_view full_path, const CSelection& selection) {
  CSeverity severity = CSeverity::kMedium;
  const CObjectState& shown = difference.shown();
  bool place = IsPersistencePlace(full_path);
  switch (difference.change) {
    case CChange::kNew:
    case CChange::kRenamed:
      if (difference.change == CChange::kRenamed) difference.warnings = Warnings(shown);
      if (!difference.warnings.empty()) {
        severity = CSeverity::kCritical;
      } else if (place || IsExecutable(shown) || IsLibraryOrModule(full_path)) {
        severity = CSeverity::kHigh;
      } else if (shown.is_dir) {
        severity = CSeverity::kLow;
      }
      break;
    case CChange::kGone:
      severity = place ? CSeverity::kHigh : shown.is_dir ? CSeverity::kLow : CSeverity::kMedium;
      break;
    case CChange::kChanged: {
      std::vector<std::string> added = WhatWasAdded(difference);
      difference.warnings.insert(difference.warnings.end(), added.begin(), added.end());
      bool content = Has(difference.changes, CAspect::kContent);
      if (!added.empty()) {
        severity = CSeverity::kCritical;
      } else if (place && !OnlyTimes(difference.changes)) {
        severity = CSeverity::kHigh;
      } else if (content && (IsExecutable(difference.current) ||
                             IsExecutable(difference.recorded) || IsLibraryOrModule(full_path))) {
        severity = CSeverity::kHigh;
      } else if (OnlyTimes(difference.changes) || shown.is_dir) {
        severity = CSeverity::kLow;
      }
      break;
    }
  }
  if (selection.has_severity) severity = selection.severity;
  difference.severity = severity;
}
