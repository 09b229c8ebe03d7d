// signdb rules POLICY PATH: which of the policy's rules applies to a path, and why.

#include <sys/stat.h>

#include <iostream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/object_state.h"
#include "cli/policy_rules.h"
#include "cli/session.h"
#include "refhost/safe_text.h"
#include "refhost/text_conversion.h"

int RunRules(const CCommandLine& line) {
  RequireShape(line, {}, 2, 2);
  CSession session(line);
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  const CPolicyRules& rules = session.Rules(policy);
  std::string relative = line.arguments[1];
  // A path may be given relative to the root or in full.
  std::string root = policy.root == "/" ? "/" : policy.root + "/";
  if (relative.compare(0, root.size(), root) == 0) relative = relative.substr(root.size());
  while (!relative.empty() && relative.back() == '/') relative.pop_back();
  std::string full = root + relative;
  struct stat status {};
  bool exists = ::lstat(full.c_str(), &status) == 0;
  CObjectKind kind = exists ? KindOf(S_ISDIR(status.st_mode), static_cast<uint32_t>(status.st_mode), S_ISLNK(status.st_mode))
                            : CObjectKind::kFile;
  std::cout << EscapedText(relative.empty() ? "." : relative) << " (" << KindWords(kind)
            << (exists ? "" : ", not on disk: taken as a file") << "): ";
  for (size_t slash = relative.find('/'); slash != std::string::npos; slash = relative.find('/', slash + 1)) {
    if (rules.Excluded(relative.substr(0, slash), CObjectKind::kDirectory)) {
      std::cout << "below the excluded directory " << EscapedText(relative.substr(0, slash)) << ": never walked\n  "
                << rules.Explain(relative.substr(0, slash), CObjectKind::kDirectory) << "\n";
      return kExitOk;
    }
  }
  std::cout << rules.Explain(relative, kind) << "\n";
  return kExitOk;
}
