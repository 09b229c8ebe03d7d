#pragma once

#include <Poco/JSON/Object.h>

#include <optional>
#include <string>

#include "tool/change/check_result.h"

class CSession;
struct CRefPolicySettings;

// The watch service's answer to {"request":"pending","policy":P}: what differs between the
// policy's live record and its baseline, each difference whole (both states, every attribute
// change, the package's word), so that a check reports from it the lines a walk would give and an
// update accepts exactly what was shown. Texts that may hold any bytes (names, targets, security
// texts, values) travel as hexadecimal: what arrives is byte for byte what was sent.
//
//   {"ok":true,"checked":N,"seconds":S,"differences":[...],"unreadable":[[PATH,REASON],...]}

// The answer for "result".
std::string PendingAnswer(const CTreeCheckResult& result);

// What the running watch service says is pending in the policy; nothing when no service runs on
// the data folder or it does not watch the policy. Throws std::runtime_error when it runs and
// cannot answer (a writer holds the baseline, the baseline is refused, no answer in time).
std::optional<CTreeCheckResult> AskPending(CSession& session, const CRefPolicySettings& policy);

// Reads an answer; each difference's object (what an update inserts) is made from its current
// state, as the live record holds it, for the policy's paths. Throws std::runtime_error when the
// answer is not one.
CTreeCheckResult ReadPendingAnswer(const Poco::JSON::Object& answer, CSession& session,
                                   const CRefPolicySettings& policy);
