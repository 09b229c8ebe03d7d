#include "tool/scan/difference_apply.h"

#include <memory>

#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "tool/session/session.h"

void ApplyDifferences(CSession& session, const CRefPolicySettings& policy, CHashDB& database,
                      const std::vector<CDifference>& differences) {
  for (const CDifference& difference : differences) {
    std::shared_ptr<CObjInfo> none;
    if (difference.change == CChange::kGone) {
      database.RemoveObject(none, session.WideFullPath(policy, difference.path));
    } else if (difference.change == CChange::kRenamed) {
      database.RemoveObject(none, session.WideFullPath(policy, difference.from));
    }
  }
  for (const CDifference& difference : differences) {
    if (difference.change == CChange::kGone || !difference.info) continue;
    std::shared_ptr<CObjInfo> immediate;
    database.InsertObject(immediate, difference.info);
  }
}
