#include "refhost/security_text.h"

#include <linux/fs.h>

#include <cctype>

#include "util/text_conversion.h"

namespace security_text {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

std::string Escape(std::string_view text, bool escape_equals) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x21 || byte > 0x7E || c == '%' || (escape_equals && c == '=')) {
      out += '%';
      out += kHexDigits[byte >> 4];
      out += kHexDigits[byte & 15];
    } else {
      out += c;
    }
  }
  return out;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Calls "take(key, value, has_equals)" for each space-separated item of "text", split at its first
// '=' (an item without one gives its whole text as the key and an empty value), as written, not
// unescaped.
template <typename Take>
void ForEachItem(std::string_view text, Take take) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(' ', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view item = text.substr(start, end - start);
    if (!item.empty()) {
      size_t equals = item.find('=');
      if (equals == std::string_view::npos) {
        take(item, std::string_view(), false);
      } else {
        take(item.substr(0, equals), item.substr(equals + 1), true);
      }
    }
    start = end + 1;
  }
}

// The older form: "owner=0 group=0 mode=0644 acl=u::rw-,..." (unescaped; the ACL text has no
// spaces).
CSecurityItems ParseLegacy(std::string_view text) {
  static const std::map<std::string_view, const char*> kKeys = {
      {"owner", kUid}, {"group", kGid}, {"mode", kMode}, {"acl", kAccessAcl}};
  CSecurityItems items;
  ForEachItem(text, [&items](std::string_view key, std::string_view value, bool has_equals) {
    auto known = kKeys.find(key);
    if (has_equals && known != kKeys.end()) items[known->second] = std::string(value);
  });
  return items;
}

}  // namespace

std::span<const CInodeFlag> InodeFlags() {
  static constexpr CInodeFlag kFlags[] = {
      {FS_SECRM_FL, 's', "secure-deletion"},
      {FS_UNRM_FL, 'u', "undelete"},
      {FS_SYNC_FL, 'S', "synchronous"},
      {FS_DIRSYNC_FL, 'D', "synchronous-directory"},
      {FS_IMMUTABLE_FL, 'i', "immutable"},
      {FS_APPEND_FL, 'a', "append-only"},
      {FS_NODUMP_FL, 'd', "no-dump"},
      {FS_NOATIME_FL, 'A', "no-atime"},
      {FS_COMPR_FL, 'c', "compressed"},
      {FS_ENCRYPT_FL, 'E', "encrypted"},
      {FS_JOURNAL_DATA_FL, 'j', "journalled-data"},
      {FS_NOTAIL_FL, 't', "no-tail-merging"},
      {FS_TOPDIR_FL, 'T', "top-of-hierarchy"},
      {FS_NOCOW_FL, 'C', "no-copy-on-write"},
      {FS_DAX_FL, 'x', "dax"},
      {FS_CASEFOLD_FL, 'F', "casefold"},
      {FS_PROJINHERIT_FL, 'P', "project-inherit"},
      {FS_VERITY_FL, 'V', "verity"},
      {FS_NOCOMP_FL, 'm', "no-compression"},
  };
  return kFlags;
}

const char* InodeFlagName(char letter) {
  for (const CInodeFlag& flag : InodeFlags()) {
    if (flag.letter == letter) return flag.name;
  }
  return "unknown";
}

std::string EscapeKey(std::string_view key) { return Escape(key, true); }
std::string EscapeValue(std::string_view value) { return Escape(value, false); }

std::string Unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string XattrValueText(std::string_view bytes) {
  std::string_view shown = bytes;
  if (!shown.empty() && shown.back() == '\0') shown.remove_suffix(1);
  bool printable = true;
  for (char c : shown) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte > 0x7E) printable = false;
  }
  if (printable) return "\"" + std::string(shown) + "\"";
  return "0x" + HexText(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string Text(const CSecurityItems& items) {
  std::string text;
  for (const auto& [key, value] : items) {
    if (!text.empty()) text += ' ';
    text += EscapeKey(key);
    text += '=';
    text += EscapeValue(value);
  }
  return text;
}

CSecurityItems Parse(std::string_view text, bool* legacy) {
  // The older form starts "owner=... group=...". The current form is sorted, so when it starts
  // with a key "owner" no key "group" follows, and an escaped value holds no space: no text of
  // the current form reads as the older one.
  bool old_form = text.rfind("owner=", 0) == 0 && text.find(" group=") != std::string_view::npos;
  if (legacy != nullptr) *legacy = old_form;
  if (old_form) return ParseLegacy(text);
  CSecurityItems items;
  ForEachItem(text, [&items](std::string_view key, std::string_view value, bool) {
    items[Unescape(key)] = Unescape(value);
  });
  return items;
}

}  // namespace security_text
