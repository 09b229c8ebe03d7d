// Fuzzes what a report makes of recorded texts, which come from a database file: the security
// attributes text (read back, compared and described) and the names and link targets (printed).
// Input: recorded security text, NUL, current security text, NUL, a path, NUL, a link target.

#include <cstdint>
#include <string>
#include <string_view>

#include "tool/report/change_text.h"
#include "tool/change/attribute_changes.h"
#include "tool/change/difference.h"
#include "tool/report/report_event.h"
#include "util/safe_text.h"
#include "refhost/security_text.h"

namespace {

std::string_view NextPart(std::string_view& input) {
  size_t end = input.find('\0');
  std::string_view part = input.substr(0, end);
  input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
  return part;
}

// A line for a terminal or a line-oriented log holds no control character, C0 or C1, at all.
void RequireOneSafeLine(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7F) __builtin_trap();
    if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0) {
      __builtin_trap();
    }
  }
}

// A JSON line is plain printable ASCII: everything else is escaped.
void RequireAsciiLine(const std::string& text) {
  for (unsigned char c : text) {
    if (c < 0x20 || c > 0x7E) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string_view recorded_text = NextPart(input);
  std::string_view current_text = NextPart(input);
  std::string_view path = NextPart(input);
  std::string_view target = NextPart(input);

  // Writing what was read and reading it again gives the same items: no value forges a key.
  security_text::CSecurityItems items = security_text::Parse(recorded_text);
  std::string written = security_text::Text(items);
  RequireOneSafeLine(written);
  if (security_text::Parse(written) != items) __builtin_trap();

  CObjectState recorded;
  recorded.attributes = size > 8 ? 0100000u | data[size - 1] | (data[size - 2] << 8) : 0100644u;
  recorded.security = std::string(recorded_text);
  recorded.target = std::string(target);
  recorded.hash = "00";
  CObjectState current = recorded;
  current.security = std::string(current_text);
  current.attributes ^= size > 9 ? data[size - 3] << 12 : 0;
  current.hash = "01";

  CDifference difference =
      DescribeRecorded(CChange::kChanged, std::string(path), &recorded, &current);
  RequireOneSafeLine(DifferenceText(difference));
  CReportContext context{"2026-01-01T00:00:00.000Z", "host", "policy", "/root", "check", "sha256"};
  RequireAsciiLine(DifferenceJson(difference, context));
  RequireOneSafeLine(
      DifferenceText(DescribeRecorded(CChange::kNew, std::string(path), nullptr, &current)));
  RequireOneSafeLine(SafePath(path));
  return 0;
}
