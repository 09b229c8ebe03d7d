#include "tool/report/check_report.h"

#include <cstdio>
#include <map>

#include "refhost/settings.h"
#include "tool/change/difference.h"
#include "tool/report/change_text.h"
#include "tool/report/report_event.h"
#include "util/safe_text.h"
#include "util/text_format.h"

void PrintCheckReport(std::ostream& out, const CTreeCheckResult& result,
                      const CRefPolicySettings& policy, const CReportContext& context, bool json,
                      bool accepted) {
  std::map<std::string, uint64_t> counts;  // ordered, so that the summary reads the same each time
  for (const CDifference& difference : result.differences) {
    ++counts[difference.words];
    out << (json ? DifferenceJson(difference, context) : DifferenceText(difference)) << "\n";
  }
  for (const auto& [path, reason] : result.unreadable) {
    if (json) {
      out << UnreadableJson(path, reason, context) << "\n";
    } else {
      char words[40];
      std::snprintf(words, sizeof words, "%-28s", "unreadable");
      out << words << (path.empty() ? std::string(".") : SafePath(path)) << "  ("
          << EscapedText(reason) << ")\n";
    }
  }
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.2f", result.seconds);
  if (json) {
    out << "{\"@timestamp\":" << JsonString(context.timestamp)
        << ",\"host\":{\"name\":" << JsonString(context.host_name)
        << "},\"summary\":{\"policy\":" << JsonString(policy.name)
        << ",\"root\":" << JsonString(policy.root) << ",\"checked\":" << result.checked
        << ",\"bytes\":" << result.bytes << ",\"seconds\":" << seconds
        << ",\"differences\":" << result.differences.size()
        << ",\"unreadable\":" << result.unreadable.size()
        << ",\"accepted\":" << (accepted ? "true" : "false") << ",\"changes\":{";
    bool first = true;
    for (const auto& [words, count] : counts) {
      out << (first ? "" : ",") << JsonString(words) << ":" << count;
      first = false;
    }
    out << "}}}\n";
    return;
  }
  out << "policy " << EscapedText(policy.name) << " (" << EscapedText(policy.root) << "): checked "
      << GroupedNumber(result.checked) << " objects (" << ByteSize(result.bytes) << ") in "
      << seconds << " s: ";
  if (result.differences.empty()) {
    out << "no differences";
  } else {
    out << GroupedNumber(result.differences.size())
        << (result.differences.size() == 1 ? " difference" : " differences")
        << (accepted ? " accepted (" : " (");
    bool first = true;
    for (const auto& [words, count] : counts) {
      out << (first ? "" : ", ") << GroupedNumber(count) << " " << words;
      first = false;
    }
    out << ")";
  }
  if (!result.unreadable.empty()) {
    out << "; " << GroupedNumber(result.unreadable.size())
        << (result.unreadable.size() == 1 ? " object could not be read"
                                          : " objects could not be read");
  }
  out << "\n";
}
