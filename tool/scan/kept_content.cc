#include "tool/scan/kept_content.h"

#include <iostream>
#include <optional>
#include <string>

#include "hashdb/hash_db.h"
#include "refhost/crypto_service.h"
#include "tool/change/difference.h"
#include "tool/report/content_diff.h"
#include "tool/rules/policy_rules.h"
#include "tool/session/session.h"
#include "tool/store/content_store.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"

namespace {

constexpr size_t kMostLines = 20;

CContentStore StoreOf(CSession& session) {
  return CContentStore(session.DataFolder() + "/content", session.settings().policy_number);
}

// Keeps the file at "relative" when its content on the disk is "hash".
void KeepIfStill(CSession& session, const CRefPolicySettings& policy, CContentStore& store,
                 const std::string& relative, const std::string& hash) {
  std::optional<std::string> content = CContentStore::ReadText(session.FullPath(policy, relative));
  if (!content) return;
  try {
    store.Keep(hash, *content);  // false: it changed again since; the next acceptance keeps it
  } catch (const std::exception& e) {
    std::cerr << "signdb: " << EscapedText(e.what()) << "\n";
  }
}

}  // namespace

void KeepRecordedContent(CSession& session, const CRefPolicySettings& policy, CHashDB& database) {
  const CPolicyRules& rules = session.Rules(policy);
  if (rules.empty()) return;
  CContentStore store = StoreOf(session);
  std::shared_ptr<CPathEntryList> nodes = database.SubNodes(L"");
  for (const CPathEntry& node : *nodes) {
    if (node.first) continue;
    std::string relative = WideToUtf8(node.second);
    if (rules.SelectionFor(relative, CObjectKind::kFile).kept == CKeptContent::kNone) continue;
    std::wstring full = session.WideFullPath(policy, relative);
    if (database.SizeOfObject(full) > CContentStore::kLargest) continue;
    std::string hash = database.HashOfObject(full);
    if (!hash.empty()) KeepIfStill(session, policy, store, relative, hash);
  }
}

void KeepAcceptedContent(CSession& session, const CRefPolicySettings& policy,
                         const std::vector<CDifference>& accepted) {
  const CPolicyRules& rules = session.Rules(policy);
  if (rules.empty()) return;
  CContentStore store = StoreOf(session);
  for (const CDifference& difference : accepted) {
    if (difference.change == CChange::kGone || difference.current.hash.empty() ||
        difference.current.kind() != CObjectKind::kFile ||
        difference.current.size > CContentStore::kLargest)
      continue;
    if (rules.SelectionFor(difference.path, CObjectKind::kFile).kept == CKeptContent::kNone)
      continue;
    KeepIfStill(session, policy, store, difference.path, difference.current.hash);
  }
}

void ExplainContent(std::vector<CDifference>& differences, CSession& session,
                    const CRefPolicySettings& policy) {
  const CPolicyRules& rules = session.Rules(policy);
  if (rules.empty()) return;
  CContentStore store = StoreOf(session);
  for (CDifference& difference : differences) {
    // Only against content a person accepted: a new file (a copy of a secret, say) shows none.
    if (difference.change != CChange::kChanged) continue;
    if (difference.current.kind() != CObjectKind::kFile || difference.current.hash.empty())
      continue;
    if (difference.change == CChange::kChanged &&
        difference.recorded.hash == difference.current.hash)
      continue;
    CKeptContent kept = rules.SelectionFor(difference.path, CObjectKind::kFile).kept;
    if (kept == CKeptContent::kNone) continue;
    std::string before;
    if (difference.change == CChange::kChanged) {
      switch (store.Find(difference.recorded.hash, before)) {
        case CContentStore::CFound::kMissing:
          difference.content.push_back("(no copy of the accepted content is kept)");
          continue;
        case CContentStore::CFound::kTampered:
          difference.content.push_back(
              "(the kept copy of the accepted content is not what its name says: it was changed "
              "behind the tool's back)");
          difference.severity = CSeverity::kCritical;
          continue;
        case CContentStore::CFound::kFound:
          break;
      }
    }
    std::optional<std::string> after =
        CContentStore::ReadText(session.FullPath(policy, difference.path));
    if (!after || HashBytes(after->data(), after->size(), session.settings().policy_number) !=
                      difference.current.hash) {
      difference.content.push_back("(the file changed again since: run the check again)");
      continue;
    }
    std::string full_path = session.FullPath(policy, difference.path);
    if (IsAccountFile(full_path)) {
      for (const CAccountChange& change : AccountChanges(full_path, before, *after)) {
        difference.content.push_back(change.text);
        if (change.critical) {
          difference.severity = CSeverity::kCritical;
          difference.warnings.push_back(change.text.substr(0, change.text.find(':')));
        }
      }
      continue;
    }
    // A secret copied over a kept file is not shown either.
    bool secret = kept == CKeptContent::kRedact || LooksSecret(before) || LooksSecret(*after);
    difference.content = secret ? RedactedLineChanges(before, *after, kMostLines)
                                : LineChanges(before, *after, kMostLines);
  }
}
