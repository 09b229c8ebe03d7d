#include "refhost/save_hooks.h"

#include "refhost/crypto_service.h"
#include "refhost/log_service.h"
#include "refhost/ref_host.h"
#include "refhost/utility_service.h"

void CSaveHooks::PresetNextRevision(uint64_t revision) {
  host_.ref_utility().PresetNextStamp(revision);
}

void CSaveHooks::DeferSigningTo(const std::string& candidate_path) {
  host_.ref_crypto().DeferSigningTo(candidate_path);
}

void CSaveHooks::SignHere() { host_.ref_crypto().DeferSigningTo(std::string()); }

void CSaveHooks::SetSignerPassphrase(const std::string& passphrase) {
  host_.ref_crypto().SetSignerPassphrase(passphrase);
}

void CSaveHooks::KeepProblems() { host_.log().KeepRecords(true, Poco::Message::PRIO_WARNING); }

std::vector<std::string> CSaveHooks::TakeProblems() {
  std::vector<std::string> lines;
  for (const CLogRecord& record : host_.log().Records()) lines.push_back(record.text);
  host_.log().ClearRecords();
  return lines;
}
