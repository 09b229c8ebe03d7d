#include "tool/rules/policy_rules.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/JSON/Stringifier.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>

#include "refhost/file_io.h"
#include "tool/common/exit_status.h"
#include "util/safe_text.h"

namespace {

using Poco::JSON::Array;
using Poco::JSON::Object;

std::bitset<kAspectCount> Aspects(std::initializer_list<CAspect> aspects) {
  std::bitset<kAspectCount> set;
  for (CAspect aspect : aspects) set.set(static_cast<size_t>(aspect));
  return set;
}

std::bitset<kAspectCount> PermissionAspects() {
  return Aspects({CAspect::kKind, CAspect::kOwner, CAspect::kGroup, CAspect::kMode,
                  CAspect::kCapabilities, CAspect::kAccessAcl, CAspect::kDefaultAcl,
                  CAspect::kSelinux, CAspect::kXattr, CAspect::kFlags, CAspect::kDevice,
                  CAspect::kOtherSecurity, CAspect::kSecurityForm});
}

// Adds a group or an aspect word to "selection"; false when the word is neither.
bool AddWord(const std::string& word, CSelection& selection) {
  if (word == "everything") {
    selection.aspects.set();
  } else if (word == "read-only") {
    selection.aspects.set();
    selection.aspects.reset(static_cast<size_t>(CAspect::kStatusChanged));
  } else if (word == "permissions") {
    selection.aspects |= PermissionAspects();
  } else if (word == "log") {
    selection.aspects |=
        PermissionAspects() | Aspects({CAspect::kTarget, CAspect::kContent, CAspect::kSize});
    selection.may_grow = true;
  } else if (word == "ignore directory times") {
    selection.directory_times = false;  // alone, it means everything else (see Load)
  } else if (word == "content") {
    selection.aspects.set(static_cast<size_t>(CAspect::kContent));
  } else {
    CAspect aspect;
    if (!AspectOfLabel(word, aspect)) return false;
    selection.aspects.set(static_cast<size_t>(aspect));
  }
  return true;
}

bool KindOfWord(const std::string& word, std::vector<CObjectKind>& kinds) {
  static const std::map<std::string, std::vector<CObjectKind>> kKinds = {
      {"file", {CObjectKind::kFile}},
      {"directory", {CObjectKind::kDirectory}},
      {"symlink", {CObjectKind::kSymlink}},
      {"device", {CObjectKind::kCharDevice, CObjectKind::kBlockDevice}},
      {"fifo", {CObjectKind::kFifo}},
      {"socket", {CObjectKind::kSocket}},
  };
  auto found = kKinds.find(word);
  if (found == kKinds.end()) return false;
  kinds.insert(kinds.end(), found->second.begin(), found->second.end());
  return true;
}

// The words of a value that is a string or a list of strings.
std::vector<std::string> Words(const Poco::Dynamic::Var& value, const std::string& key) {
  std::vector<std::string> words;
  if (value.isString()) {
    words.push_back(value.extract<std::string>());
  } else if (value.type() == typeid(Array::Ptr)) {
    Array::Ptr list = value.extract<Array::Ptr>();
    for (size_t i = 0; i < list->size(); ++i) {
      Poco::Dynamic::Var item = list->get(static_cast<unsigned>(i));
      if (!item.isString())
        throw std::invalid_argument("\"" + key + "\" lists something that is not a text");
      words.push_back(item.extract<std::string>());
    }
  } else {
    throw std::invalid_argument("\"" + key + "\" must be a text or a list of texts");
  }
  if (words.empty()) throw std::invalid_argument("\"" + key + "\" is empty");
  return words;
}

// The line of the configuration where the rule with this path text is written, looked for after
// "from"; 0 when it cannot be told.
int LineOf(const std::string& text, const std::string& path, size_t& from) {
  std::ostringstream literal;
  Poco::JSON::Stringifier::formatString(path, literal);
  size_t at = text.find(literal.str(), from);
  if (at == std::string::npos) return 0;
  from = at + 1;
  return 1 + static_cast<int>(
                 std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
}

}  // namespace

CSelection EverythingSelection() {
  CSelection selection;
  selection.aspects.set();
  selection.name = "everything";
  return selection;
}

CPolicyRules CPolicyRules::Load(const std::string& config_path, const std::string& policy_name) {
  CPolicyRules rules;
  if (config_path.size() < 5 || config_path.compare(config_path.size() - 5, 5, ".json") != 0)
    return rules;
  std::vector<uint8_t> bytes = ReadWholeFile(config_path, 16 << 20);
  std::string text(bytes.begin(), bytes.end());
  Object::Ptr config = Poco::JSON::Parser().parse(text).extract<Object::Ptr>();
  Array::Ptr policies = config->getArray("policies");
  if (!policies) return rules;
  Object::Ptr policy;
  for (size_t i = 0; i < policies->size(); ++i) {
    Object::Ptr candidate = policies->getObject(static_cast<unsigned>(i));
    if (candidate && candidate->optValue<std::string>("name", "") == policy_name)
      policy = candidate;
  }
  if (!policy) return rules;
  auto fail = [&](int index, int line, const std::string& what) -> CToolError {
    return CToolError(config_path + ":" + (line > 0 ? std::to_string(line) : std::string("?")) +
                      ": rule " + std::to_string(index + 1) + " of policy '" + policy_name +
                      "': " + what);
  };
  if (policy->has("cross_mounts")) {
    Poco::Dynamic::Var value = policy->get("cross_mounts");
    if (!value.isBoolean()) {
      throw CToolError(config_path + ": \"cross_mounts\" of policy '" + policy_name +
                       "' must be true or false");
    }
    rules.cross_mounts_ = value.extract<bool>();
  }
  if (policy->has("dpkg")) {
    Poco::Dynamic::Var value = policy->get("dpkg");
    if (!value.isString() || value.extract<std::string>().empty() ||
        value.extract<std::string>()[0] != '/') {
      throw CToolError(
          config_path + ": \"dpkg\" of policy '" + policy_name +
          "' must be the absolute path of the system root its packages are installed in (\"/\")");
    }
    rules.dpkg_root_ = value.extract<std::string>();
  }
  if (!policy->has("rules")) return rules;
  Array::Ptr list = policy->getArray("rules");
  if (!list)
    throw CToolError(config_path + ": \"rules\" of policy '" + policy_name +
                     "' must be a list of objects");
  size_t search_from = text.find("\"rules\"");
  for (size_t i = 0; i < list->size(); ++i) {
    int index = static_cast<int>(i);
    Object::Ptr entry = list->getObject(static_cast<unsigned>(i));
    if (!entry)
      throw fail(index, 0,
                 "a rule is an object: {\"path\": ..., \"exclude\": true} or {\"path\": ..., "
                 "\"check\": ...}");
    if (!entry->has("path") || !entry->get("path").isString())
      throw fail(index, 0, "\"path\" (a text) is missing");
    std::string path = entry->getValue<std::string>("path");
    int line = LineOf(text, path, search_from);
    try {
      for (const std::string& key : entry->getNames()) {
        if (key != "path" && key != "kind" && key != "exclude" && key != "check" &&
            key != "severity" && key != "content") {
          throw std::invalid_argument(
              "unknown key \"" + key +
              "\" (a rule has path, kind, exclude or check, severity, content)");
        }
      }
      CRule rule{CPathPattern(path), {}, false, CSelection(), line};
      if (entry->has("kind")) {
        for (const std::string& word : Words(entry->get("kind"), "kind")) {
          if (!KindOfWord(word, rule.kinds)) {
            throw std::invalid_argument("unknown kind \"" + word +
                                        "\" (file, directory, symlink, device, fifo, socket)");
          }
        }
      }
      bool exclude = entry->has("exclude");
      if (exclude == entry->has("check"))
        throw std::invalid_argument("a rule has either \"exclude\" or \"check\"");
      if (entry->has("content")) {
        Poco::Dynamic::Var value = entry->get("content");
        std::string word = value.isString() ? value.extract<std::string>() : std::string();
        if (word == "diff") {
          rule.selection.kept = CKeptContent::kDiff;
        } else if (word == "redact") {
          rule.selection.kept = CKeptContent::kRedact;
        } else {
          throw std::invalid_argument(
              "\"content\" is \"diff\" (keep the accepted content of small text files and "
              "show what changed in them) or \"redact\" (for secrets: changed lines by their "
              "first field only)");
        }
      }
      if (exclude && entry->has("content"))
        throw std::invalid_argument("an excluded path has no content to keep");
      if (exclude && entry->has("severity"))
        throw std::invalid_argument("an excluded path has no severity: nothing is reported");
      if (exclude) {
        Poco::Dynamic::Var value = entry->get("exclude");
        if (!value.isBoolean() || !value.extract<bool>())
          throw std::invalid_argument("\"exclude\" must be true");
        rule.exclude = true;
      } else {
        std::vector<std::string> words = Words(entry->get("check"), "check");
        for (const std::string& word : words) {
          if (!AddWord(word, rule.selection)) {
            throw std::invalid_argument(
                "unknown group or attribute \"" + word +
                "\" (groups: everything, read-only, permissions, log, ignore directory "
                "times; attributes: hash, size, owner, group, mode, ...)");
          }
          rule.selection.name += (rule.selection.name.empty() ? "" : ", ") + word;
        }
        if (rule.selection.aspects.none()) rule.selection.aspects.set();  // a modifier alone
        if (entry->has("severity")) {
          Poco::Dynamic::Var value = entry->get("severity");
          if (!value.isString() ||
              !SeverityOfWord(value.extract<std::string>(), rule.selection.severity)) {
            throw std::invalid_argument(
                "\"severity\" is one of \"low\", \"medium\", \"high\", \"critical\"");
          }
          rule.selection.has_severity = true;
          rule.selection.name += std::string(", severity ") + SeverityWord(rule.selection.severity);
        }
        if (rule.selection.kept != CKeptContent::kNone) {
          rule.selection.name += rule.selection.kept == CKeptContent::kDiff
                                     ? ", content kept (diff)"
                                     : ", content kept (redacted)";
        }
      }
      if (const std::string* first = rule.pattern.FirstLiteral()) {
        rules.by_first_name_[*first].push_back(rules.rules_.size());
      } else {
        rules.any_first_name_.push_back(rules.rules_.size());
      }
      rules.rules_.push_back(std::move(rule));
    } catch (const std::invalid_argument& e) {
      throw fail(index, line, e.what());
    }
  }
  return rules;
}

const CPolicyRules::CRule* CPolicyRules::Deciding(std::string_view relative_path, CObjectKind kind,
                                                  size_t* index) const {
  if (rules_.empty()) return nullptr;
  std::vector<std::string_view> names = SplitPath(relative_path);
  const CRule* found = nullptr;
  ForEachCandidate(names, [&](size_t i) {
    const CRule& rule = rules_[i];
    if (!rule.kinds.empty() &&
        std::find(rule.kinds.begin(), rule.kinds.end(), kind) == rule.kinds.end())
      return true;
    if (!rule.pattern.Matches(names)) return true;
    if (index != nullptr) *index = i;
    found = &rule;
    return false;
  });
  return found;
}

template <typename CVisit>
void CPolicyRules::ForEachCandidate(const std::vector<std::string_view>& names,
                                    const CVisit& visit) const {
  static const std::vector<size_t> kNone;
  const std::vector<size_t>* named = &kNone;
  if (!names.empty()) {
    auto found = by_first_name_.find(names.front());
    if (found != by_first_name_.end()) named = &found->second;
  }
  // Both lists ascend: walk them from their ends, the later rule first.
  auto a = named->rbegin();
  auto b = any_first_name_.rbegin();
  while (a != named->rend() || b != any_first_name_.rend()) {
    size_t next = 0;
    if (b == any_first_name_.rend() || (a != named->rend() && *a > *b)) {
      next = *a++;
    } else {
      next = *b++;
    }
    if (!visit(next)) return;
  }
}

bool CPolicyRules::Excluded(std::string_view relative_path, CObjectKind kind) const {
  const CRule* rule = Deciding(relative_path, kind, nullptr);
  return rule != nullptr && rule->exclude;
}

CPolicyRules::CVerdict CPolicyRules::VerdictBeforeKind(std::string_view relative_path) const {
  if (rules_.empty()) return CVerdict::kKept;
  std::vector<std::string_view> names = SplitPath(relative_path);
  CVerdict verdict = CVerdict::kKept;
  ForEachCandidate(names, [&](size_t i) {
    const CRule& rule = rules_[i];
    if (!rule.pattern.Matches(names)) return true;
    if (!rule.kinds.empty()) {
      verdict = CVerdict::kByKind;  // a rule for some kinds: the object's kind decides
    } else {
      verdict = rule.exclude ? CVerdict::kExcluded : CVerdict::kKept;
    }
    return false;
  });
  return verdict;
}

bool CPolicyRules::ExcludedHereOrAbove(std::string_view relative_path, CObjectKind kind) const {
  if (rules_.empty()) return false;
  return !ExcludedAncestor(relative_path).empty() || Excluded(relative_path, kind);
}

std::string_view CPolicyRules::ExcludedAncestor(std::string_view relative_path) const {
  if (rules_.empty()) return std::string_view();
  for (size_t slash = relative_path.find('/'); slash != std::string_view::npos;
       slash = relative_path.find('/', slash + 1)) {
    if (Excluded(relative_path.substr(0, slash), CObjectKind::kDirectory))
      return relative_path.substr(0, slash);
  }
  return std::string_view();
}

CSelection CPolicyRules::SelectionFor(std::string_view relative_path, CObjectKind kind) const {
  const CRule* rule = Deciding(relative_path, kind, nullptr);
  if (rule != nullptr && !rule->exclude) return rule->selection;
  // No rule: everything but a directory's times, which change with every entry that comes or
  // goes (and each entry is reported itself).
  CSelection selection = EverythingSelection();
  selection.directory_times = false;
  selection.name = "everything but directory times (no rule)";
  return selection;
}

std::string CPolicyRules::Explain(std::string_view relative_path, CObjectKind kind) const {
  size_t index = 0;
  const CRule* rule = Deciding(relative_path, kind, &index);
  if (rule == nullptr) {
    return "no rule matches (" + std::to_string(rules_.size()) +
           " rules looked at): everything is checked but a directory's times";
  }
  std::string where = "rule " + std::to_string(index + 1) +
                      (rule->line > 0 ? " (line " + std::to_string(rule->line) + ")" : "") +
                      ", \"" + EscapedText(rule->pattern.text()) + "\"" +
                      (rule->kinds.empty() ? "" : " for this kind");
  std::string verdict = rule->exclude ? "excluded: not recorded, and nothing below it is walked"
                                      : "checks " + rule->selection.name;
  return where + ", is the last rule that matches: " + verdict;
}
