// signdb rules POLICY PATH: which of the policy's rules applies to a path, and why.

#include <sys/stat.h>

#include <iostream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "tool/change/object_state.h"
#include "tool/common/exit_status.h"
#include "tool/rules/policy_rules.h"
#include "tool/scan/tree_check.h"
#include "tool/session/session.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"

int RunRules(const CCommandLine& line) {
  RequireShape(line, {}, 2, 2);
  CSession session(SessionOptionsOf(line));
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  const CPolicyRules& rules = session.Rules(policy);
  std::string relative = RelativeToRoot(policy, line.arguments[1]);
  std::string full = (policy.root == "/" ? "/" : policy.root + "/") + relative;
  struct stat status {};
  bool exists = ::lstat(full.c_str(), &status) == 0;
  CObjectKind kind = exists ? KindOf(S_ISDIR(status.st_mode), static_cast<uint32_t>(status.st_mode),
                                     S_ISLNK(status.st_mode))
                            : CObjectKind::kFile;
  std::cout << EscapedText(relative.empty() ? "." : relative) << " (" << KindWords(kind)
            << (exists ? "" : ", not on disk: taken as a file") << "): ";
  if (std::string_view above = rules.ExcludedAncestor(relative); !above.empty()) {
    std::cout << "below the excluded directory " << EscapedText(above) << ": never walked\n  "
              << rules.Explain(above, CObjectKind::kDirectory) << "\n";
    return kExitOk;
  }
  std::cout << rules.Explain(relative, kind) << "\n";
  return kExitOk;
}
