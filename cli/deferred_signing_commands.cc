// Signing on another host: "signdb scan|update POLICY --sign-later" keeps the new database as an
// unsigned candidate; "signdb sign FILE" signs it (and its binding) where the signer key lives;
// "signdb accept POLICY" puts the signed candidate in place on the monitored host. Root on the
// monitored host then never holds a key that could re-sign what it changed.

#include <boost/filesystem/operations.hpp>
#include <iostream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/journal_entry.h"
#include "cli/policy_arguments.h"
#include "hashdb/hash_db.h"
#include "refhost/pkcs7.h"
#include "tool/common/exit_status.h"
#include "tool/common/policy_files.h"
#include "tool/session/session.h"
#include "tool/store/database_files.h"
#include "tool/store/policy_binding.h"
#include "tool/store/signer_keys.h"
#include "util/text_conversion.h"

int RunSign(const CCommandLine& line) {
  RequireShape(line, {}, 1, 1);
  CSession session(SessionOptionsOf(line));
  std::string file = boost::filesystem::absolute(line.arguments[0]).lexically_normal().string();
  uint64_t revision = 0;
  bool is_hdb = false;
  try {
    is_hdb = ReadHeaderRevision(file, revision);
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
  if (!is_hdb) throw CToolError(file + " is not an HDB file (or is cut short); nothing was signed");
  std::unique_ptr<CRefSigner> signer = session.signer().Signer();
  std::string result;
  if (!signer->Sign(Utf8ToWide(file), result, 0, 0))
    throw CToolError(result + "; nothing was signed");
  std::cout << "signed " << file << " (revision " << RevisionText(revision) << "): " << file
            << ".p7s\n";
  boost::system::error_code missing;
  if (!boost::filesystem::exists(BindingFileOf(file), missing)) {
    std::cout << "no binding beside it (" << BindingFileOf(file)
              << "): the monitored host accepts the candidate only with its signed binding\n";
    return kExitOk;
  }
  try {
    CPolicyBinding binding = SignPolicyBinding(file, *signer);
    if (!binding.Vouches(revision)) {
      throw CToolError("the binding " + BindingFileOf(file) + " does not vouch for revision " +
                       RevisionText(revision) + "; it was not signed");
    }
    std::cout << "signed its binding to policy '" << binding.policy << "' (" << binding.root
              << ") on host '" << binding.host << "': " << BindingFileOf(file) << "\n";
  } catch (const CToolError&) {
    throw;
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
  return kExitOk;
}

int RunAccept(const CCommandLine& line) {
  RequireShape(line, {}, 1, 1);
  CSession session(SessionOptionsOf(line));
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  CJournalEntry entry = JournalEntryOf(line, "accept-candidate", policy);
  uint64_t revision = session.Store(policy).Accept(&entry);
  std::cout << "accepted the candidate of policy " << policy.name << " (revision "
            << RevisionText(revision) << "): it is the policy's baseline now";
  if (entry.sequence != 0)
    std::cout << "; journalled in " << session.Store(policy).journal().path() << " (entry "
              << entry.sequence << ")";
  std::cout << "\n";
  // The accepted candidate is what the host holds now (loaded only for a fleet to tell).
  if (std::shared_ptr<CFleetPublisher> publisher = FleetPublisherOf(session)) {
    std::shared_ptr<CHashDB> database = session.Store(policy).Load();
    PublishToFleet(*publisher, session, policy, *database);
  }
  return kExitOk;
}
