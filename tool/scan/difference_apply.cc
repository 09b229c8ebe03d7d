#include "tool/scan/difference_apply.h"

#include <memory>

#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "tool/session/session.h"
#include "util/relative_path.h"

void MoveRecord(CSession& session, const CRefPolicySettings& policy, CHashDB& database,
                const std::string& from, const std::string& to) {
  auto wide = [&](const std::string& relative) { return session.WideFullPath(policy, relative); };
  auto recorded = [&](const std::string& relative) {
    std::wstring full = wide(relative);
    return database.ExistsAs(full, false) || database.ExistsAs(full, true);
  };
  std::shared_ptr<CObjInfo> none;
  std::string from_parent = ParentOf(from);
  std::string to_parent = ParentOf(to);
  std::string from_name = NameOf(from);
  std::string to_name = NameOf(to);
  if (from_parent == to_parent || from_name == to_name) {
    database.RenameObject(none, wide(from), wide(to));
    return;
  }
  // A move keeps the object's name: it moves under a name that is free in both directories,
  // then takes its new name there.
  std::string passing = from_name;
  for (unsigned n = 0; recorded(JoinRelative(to_parent, passing)) ||
                       (passing != from_name && recorded(JoinRelative(from_parent, passing)));
       ++n) {
    passing = ".signdb-moving-" + std::to_string(n);
  }
  if (passing != from_name)
    database.RenameObject(none, wide(from), wide(JoinRelative(from_parent, passing)));
  database.RenameObject(none, wide(JoinRelative(from_parent, passing)),
                        wide(JoinRelative(to_parent, passing)));
  database.RenameObject(none, wide(JoinRelative(to_parent, passing)), wide(to));
}

void ApplyDifferences(CSession& session, const CRefPolicySettings& policy, CHashDB& database,
                      const std::vector<CDifference>& differences) {
  for (const CDifference& difference : differences) {
    std::shared_ptr<CObjInfo> none;
    if (difference.change == CChange::kGone) {
      database.RemoveObject(none, session.WideFullPath(policy, difference.path));
    } else if (difference.change == CChange::kRenamed && !difference.recorded.is_dir) {
      database.RemoveObject(none, session.WideFullPath(policy, difference.from));
    }
  }
  // A directory moves with what is recorded below it (what else changed there is a difference of
  // its own, taken in around this).
  for (const CDifference& difference : differences) {
    if (difference.change == CChange::kRenamed && difference.recorded.is_dir)
      MoveRecord(session, policy, database, difference.from, difference.path);
  }
  for (const CDifference& difference : differences) {
    if (difference.change == CChange::kGone || !difference.info) continue;
    std::shared_ptr<CObjInfo> immediate;
    database.InsertObject(immediate, difference.info);
  }
}
