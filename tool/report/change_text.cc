#include "tool/report/change_text.h"

#include <sys/stat.h>

#include <cstdio>
#include <string_view>

#include "refhost/security_text.h"
#include "tool/report/report_event.h"
#include "tool/report/report_sink.h"
#include "util/account_names.h"
#include "util/safe_text.h"
#include "util/text_format.h"

namespace {

using security_text::CSecurityItems;

// A hash as a line of the form shows it.
std::string HashText(const std::string& hash, CLineForm form) {
  if (form == CLineForm::kLong || hash.size() <= 14) return hash;
  return hash.substr(0, 12) + "..";
}

// A time as a line of the form shows it: to the second when "other" (the other side's) differs
// from it at that resolution.
std::string TimeOf(uint64_t nanoseconds, uint64_t other, CLineForm form) {
  if (form == CLineForm::kLong || nanoseconds == ~0ull || other == ~0ull ||
      nanoseconds / 1000000000ull == other / 1000000000ull) {
    return TimeText(nanoseconds);
  }
  std::string text = TimeText(nanoseconds - nanoseconds % 1000000000ull);
  size_t fraction = text.find('.');
  return fraction == std::string::npos ? text
                                       : text.erase(fraction, text.find(' ', fraction) - fraction);
}

// How one side of a change reads: from the state it describes for what the state holds as a
// number (mode, size, times, kind), from the change's machine value for the rest. "other" is the
// state of the other side.
std::string SideText(const CAttributeChange& change, bool old_side, const CObjectState& state,
                     const CObjectState& other, CLineForm form) {
  if (!(old_side ? change.old_present : change.new_present)) return "none";
  const std::string& value = old_side ? change.old_value : change.new_value;
  switch (change.aspect) {
    case CAspect::kContent:
      return HashText(value, form);
    case CAspect::kKind:
      return KindWords(state.kind());
    case CAspect::kOwner:
      return OwnerText(value);
    case CAspect::kGroup:
      return GroupText(value);
    case CAspect::kMode:
      return PermissionText(value, state.kind());
    case CAspect::kFlags:
      return FlagsText(value);
    case CAspect::kTarget:
      return "'" + EscapedText(value) + "'";
    case CAspect::kSize:
      return GroupedNumber(state.size);
    case CAspect::kSecurityForm:
      if (old_side) return value == "legacy" ? "recorded in an older form" : "current form";
      return value == "current" ? "current form ('signdb update' records it)" : "older form";
    case CAspect::kModified:
      return TimeOf(state.time_2, other.time_2, form);
    case CAspect::kStatusChanged:
      return TimeOf(state.time_1, other.time_1, form);
    default:
      return EscapedText(value);
  }
}

// The label of an attribute in a line.
std::string Label(const CAttributeChange& change) {
  if (change.aspect == CAspect::kXattr)
    return "xattr " + EscapedText(change.attribute.substr(
                          std::string_view(security_text::kXattrPrefix).size()));
  if (change.aspect == CAspect::kOtherSecurity) return EscapedText(change.attribute);
  return AspectLabel(change.aspect);
}

}  // namespace

std::string ChangeText(const CAttributeChange& change, const CDifference& difference,
                       CLineForm form) {
  return Label(change) + " " +
         SideText(change, true, difference.recorded, difference.current, form) + " -> " +
         SideText(change, false, difference.current, difference.recorded, form);
}

std::string ModeText(uint32_t st_mode) {
  char octal[8];
  std::snprintf(octal, sizeof octal, "%04o", st_mode & 07777u);
  return PermissionText(octal, KindOf(false, st_mode, false));
}

std::string PermissionText(const std::string& octal_mode, CObjectKind kind) {
  unsigned mode = 0;
  for (char c : octal_mode) {
    if (c < '0' || c > '7') return EscapedText(octal_mode);
    mode = mode * 8 + static_cast<unsigned>(c - '0');
  }
  std::string text(10, '-');
  text[0] = KindLetter(kind);
  const char* letters = "rwxrwxrwx";
  for (int i = 0; i < 9; ++i) {
    if (mode & (0400u >> i)) text[static_cast<size_t>(i) + 1] = letters[i];
  }
  auto special = [&](unsigned bit, size_t position, char with_x, char without_x) {
    if (mode & bit) text[position] = text[position] == 'x' ? with_x : without_x;
  };
  special(S_ISUID, 3, 's', 'S');
  special(S_ISGID, 6, 's', 'S');
  special(S_ISVTX, 9, 't', 'T');
  return text + " (" + EscapedText(octal_mode) + ")";
}

namespace {

std::string AccountText(const std::string& id, const std::string& name) {
  return name.empty() ? EscapedText(id) : EscapedText(name) + " (" + id + ")";
}

}  // namespace

std::string OwnerText(const std::string& uid) { return AccountText(uid, UserNameOf(uid)); }
std::string GroupText(const std::string& gid) { return AccountText(gid, GroupNameOf(gid)); }

std::string FlagsText(const std::string& letters) {
  std::string names;
  for (char letter : letters)
    names += (names.empty() ? "" : ", ") + std::string(security_text::InodeFlagName(letter));
  return EscapedText(letters) + " (" + names + ")";
}

std::string ObjectSummary(const CObjectState& state, CLineForm form) {
  CObjectKind kind = state.kind();
  CSecurityItems items = security_text::Parse(state.security);
  auto item = [&](const char* key) {
    auto found = items.find(key);
    return found == items.end() ? std::string() : found->second;
  };
  if (form == CLineForm::kCompact && state.attributes != kUnknownAttributes) {
    // As ls shows it: "-rwsr-xr-x root:root", then what else it has.
    std::string mode = ModeText(state.attributes);
    // A kind that the mode's letter alone would leave to guess is named.
    std::string text = kind == CObjectKind::kFile || kind == CObjectKind::kDirectory
                           ? std::string()
                           : std::string(KindWords(kind)) + " ";
    text += mode.substr(0, mode.find(' '));
    std::string uid = item(security_text::kUid);
    std::string gid = item(security_text::kGid);
    if (!uid.empty() || !gid.empty()) {
      std::string user = uid.empty() ? std::string() : UserNameOf(uid);
      std::string group = gid.empty() ? std::string() : GroupNameOf(gid);
      text += " " + EscapedText(user.empty() ? uid : user) + ":" +
              EscapedText(group.empty() ? gid : group);
    }
    if (!item(security_text::kCapabilities).empty())
      text += " caps " + EscapedText(item(security_text::kCapabilities));
    if (!item(security_text::kAccessAcl).empty()) text += " acl";
    if (!item(security_text::kDevice).empty())
      text += " device " + EscapedText(item(security_text::kDevice));
    if (!item(security_text::kFlags).empty())
      text += " flags " + EscapedText(item(security_text::kFlags));
    if (!state.target.empty()) text += " -> '" + EscapedText(state.target) + "'";
    if (!state.hash.empty()) text += " " + HashText(state.hash, form);
    return text;
  }
  std::string text = std::string("kind ") + KindWords(kind);
  if (state.attributes != kUnknownAttributes) text += "; mode " + ModeText(state.attributes);
  if (!item(security_text::kUid).empty()) text += "; owner " + OwnerText(item(security_text::kUid));
  if (!item(security_text::kGid).empty()) text += "; group " + GroupText(item(security_text::kGid));
  if (!item(security_text::kCapabilities).empty()) {
    text += "; capabilities " + EscapedText(item(security_text::kCapabilities));
  }
  if (!item(security_text::kAccessAcl).empty()) {
    text += "; acl " + EscapedText(item(security_text::kAccessAcl));
  }
  if (!item(security_text::kDefaultAcl).empty()) {
    text += "; default acl " + EscapedText(item(security_text::kDefaultAcl));
  }
  if (!item(security_text::kDevice).empty())
    text += "; device " + EscapedText(item(security_text::kDevice));
  if (!item(security_text::kFlags).empty())
    text += "; flags " + FlagsText(item(security_text::kFlags));
  if (!state.target.empty()) text += "; link target '" + EscapedText(state.target) + "'";
  if (!state.hash.empty()) text += "; hash " + HashText(state.hash, form);
  return text;
}

std::string DifferenceText(const CDifference& difference, CLineForm form) {
  char words[48];
  std::snprintf(words, sizeof words, "%-9s %-28s", SeverityWord(difference.severity),
                difference.words.c_str());
  std::string line = words;
  line += difference.path.empty() ? std::string(".") : SafePath(difference.path);
  if (difference.shown().is_dir) line += "/";
  std::string detail;
  auto add = [&detail](const std::string& text) { detail += (detail.empty() ? "" : "; ") + text; };
  switch (difference.change) {
    case CChange::kNew:
      add(ObjectSummary(difference.current, form));
      break;
    case CChange::kGone:
      add(ObjectSummary(difference.recorded, form));
      break;
    case CChange::kRenamed:
      add("from " + SafePath(difference.from));
      if (!difference.current.hash.empty()) add("hash " + HashText(difference.current.hash, form));
      break;
    case CChange::kChanged:
      break;
  }
  bool content = false;
  for (const CAttributeChange& change : difference.changes)
    content = content || change.aspect == CAspect::kContent;
  for (const CAttributeChange& change : difference.changes) {
    if (form == CLineForm::kCompact) {
      // What the rest explains: a rewrite sets the modification time, any change the status one.
      if (change.aspect == CAspect::kModified && content) continue;
      if (change.aspect == CAspect::kStatusChanged && difference.changes.size() > 1) continue;
    }
    add(ChangeText(change, difference, form));
  }
  if (!detail.empty()) line += "  " + detail;
  if (!difference.warnings.empty()) {
    line += "  [";
    for (size_t i = 0; i < difference.warnings.size(); ++i)
      line += (i ? ", " : "") + difference.warnings[i];
    line += "]";
  }
  if (difference.baseline == CBaselineVerdict::kPending) line += "  (pending)";
  if (difference.baseline == CBaselineVerdict::kAsBaseline)
    line += "  (as the baseline holds it: not pending)";
  return line;
}

std::string UnreadableText(const std::string& relative_path, const std::string& reason) {
  // What an object that cannot be read holds is not known: graded high.
  char words[48];
  std::snprintf(words, sizeof words, "%-9s %-28s", SeverityWord(CSeverity::kHigh), "unreadable");
  return words + (relative_path.empty() ? std::string(".") : SafePath(relative_path)) + "  (" +
         EscapedText(reason) + ")";
}

std::string SummaryText(const CReportSummary& summary, const CReportContext& context) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.2f", summary.seconds);
  std::string line =
      "policy " + EscapedText(context.policy) + " (" + EscapedText(context.root) + "): ";
  if (summary.from_live_record) {
    line += "compared the watch service's live record (" +
            CountText(summary.checked, "object", "objects") + ") with the baseline in " + seconds +
            " s: ";
  } else {
    line += "checked " + CountText(summary.checked, "object", "objects") + " (" +
            ByteSize(summary.bytes) + ") in " + seconds + " s: ";
  }
  if (summary.differences == 0) {
    line += "no differences";
  } else {
    line += GroupedNumber(summary.differences) +
            (summary.differences == 1 ? " difference" : " differences") +
            (summary.accepted ? " accepted (" : " (");
    bool first = true;
    for (int severity = 3; severity >= 0; --severity) {
      if (summary.by_severity[severity] == 0) continue;
      line += (first ? "" : ", ") + GroupedNumber(summary.by_severity[severity]) + " " +
              SeverityWord(static_cast<CSeverity>(severity));
      first = false;
    }
    line += ": ";
    first = true;
    for (const auto& [words, count] : summary.changes) {
      line += (first ? "" : ", ") + GroupedNumber(count) + " " + words;
      first = false;
    }
    line += ")";
  }
  if (summary.unreadable != 0) {
    line += "; " + GroupedNumber(summary.unreadable) +
            (summary.unreadable == 1 ? " object could not be read" : " objects could not be read");
  }
  return line;
}
