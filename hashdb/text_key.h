#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// A text as an ordering key: its first eight bytes packed most significant first, beside a view of
// the text itself, so that almost every comparison is decided on the packed bytes without reading
// the text from its own allocation. Orders exactly like the texts (byte-wise). The text must
// outlive the key.
struct CTextKey {
  CTextKey() = default;
  CTextKey(uint64_t packed, std::string_view key_text) : prefix(packed), text(key_text) {}
  explicit CTextKey(std::string_view key_text) : prefix(PrefixOf(key_text)), text(key_text) {}

  static uint64_t PrefixOf(std::string_view text) {
    uint64_t packed = 0;
    for (size_t i = 0; i < sizeof packed; ++i) {
      packed = packed << 8 | (i < text.size() ? static_cast<uint8_t>(text[i]) : 0);
    }
    return packed;
  }

  uint64_t prefix = 0;
  std::string_view text;

  friend bool operator<(const CTextKey& a, const CTextKey& b) {
    if (a.prefix != b.prefix) return a.prefix < b.prefix;
    return a.text < b.text;
  }
};
