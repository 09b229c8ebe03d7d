#include "cli/policy_arguments.h"

#include <algorithm>
#include <iostream>
#include <optional>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "hashdb/hash_db.h"
#include "refhost/settings.h"
#include "tool/common/exit_status.h"
#include "tool/fleet/fleet_change_sink.h"
#include "tool/fleet/fleet_publisher.h"
#include "tool/fleet/fleet_settings.h"
#include "tool/report/file_sink.h"
#include "tool/report/stream_sinks.h"
#include "tool/watch/pending_answer.h"
#include "util/relative_path.h"
#include "util/safe_text.h"

CSessionOptions SessionOptionsOf(const CCommandLine& line) {
  CSessionOptions options;
  options.config_path = line.Value("--config");
  options.module_path = line.Value("--module");
  options.wait_for_locks = line.Has("--wait");
  options.accept_unbound = line.Has("--bind");
  options.passphrase_fd = line.Value("--passphrase-fd");
  options.sign_later = line.Has("--sign-later");
  return options;
}

std::vector<const CRefPolicySettings*> PoliciesOf(CSession& session, const CCommandLine& line) {
  std::vector<const CRefPolicySettings*> policies;
  if (line.Has("--all") || line.arguments.empty()) {
    if (!line.arguments.empty()) throw CToolError("--all names no policy: give one or the other");
    for (const CRefPolicySettings& policy : session.settings().policies)
      policies.push_back(&policy);
    if (policies.empty())
      throw CToolError("the configuration " + session.config_path() + " names no policy");
  } else {
    policies.push_back(&session.Policy(line.arguments.front()));
  }
  return policies;
}

std::string RelativeToRoot(const CRefPolicySettings& policy, const std::string& path) {
  std::optional<std::string> relative = RelativeBelow(policy.root, path);
  if (!relative) {
    throw CToolError(path + " is not below the root of policy '" + policy.name + "' (" +
                     policy.root + ")");
  }
  return *relative;
}

void ReportPolicyError(const CRefPolicySettings& policy, const CToolError& error) {
  std::cerr << "signdb: policy '" << EscapedText(policy.name) << "': " << EscapedText(error.what())
            << "\n";
  for (const std::string& hint : error.hints()) std::cerr << "  " << EscapedText(hint) << "\n";
}

int WorstStatus(int a, int b) {
  if (a == kExitError || b == kExitError) return kExitError;
  return std::max(a, b);
}

std::unique_ptr<CReportSinks> ReportSinksOf(const CCommandLine& line, CSession& session) {
  auto sinks = std::make_unique<CReportSinks>();
  if (std::shared_ptr<CFleetPublisher> publisher = FleetPublisherOf(session))
    sinks->Add(std::make_unique<CFleetChangeSink>(std::move(publisher), true));
  if (line.Has("--json")) {
    sinks->Add(std::make_unique<CJsonSink>(std::cout));
  } else {
    sinks->Add(std::make_unique<CTextSink>(
        std::cout, line.Has("--long") ? CLineForm::kLong : CLineForm::kCompact));
  }
  for (const std::string& destination : line.Values("--report"))
    sinks->Add(MakeReportDestination(destination));
  return sinks;
}

std::optional<CTreeCheckResult> PendingFromService(CSession& session,
                                                   const CRefPolicySettings& policy) {
  try {
    return AskPending(session, policy);
  } catch (const std::runtime_error& e) {
    std::cerr << "signdb: the watch service did not say what is pending in policy '"
              << EscapedText(policy.name) << "' (" << EscapedText(e.what())
              << "); walking the tree instead\n";
    return std::nullopt;
  }
}

std::shared_ptr<CFleetPublisher> FleetPublisherOf(CSession& session) {
  CFleetSettings settings;
  try {
    settings = ReadFleetSettings(session.config_path());
  } catch (const CToolError& e) {
    std::cerr << "signdb: nothing is published to the fleet store: " << EscapedText(e.what())
              << "\n";
    return nullptr;
  }
  if (!settings.configured) return nullptr;
  return std::make_shared<CFleetPublisher>(settings, session.DataFolder(), kToolVersion);
}

void PublishToFleet(CSession& session, const CRefPolicySettings& policy, CHashDB& database) {
  if (std::shared_ptr<CFleetPublisher> publisher = FleetPublisherOf(session))
    PublishToFleet(*publisher, session, policy, database);
}

void PublishToFleet(CFleetPublisher& publisher, CSession& session, const CRefPolicySettings& policy,
                    CHashDB& database) {
  CFleetSigner signer = FleetSignerOf(session.settings());
  std::cerr << "signdb: policy '" << EscapedText(policy.name) << "': "
            << publisher.Publish(policy.name, database, database.Revision(), signer.cstm_id,
                                 signer.lcs_id)
            << "\n";
}
