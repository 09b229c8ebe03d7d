#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// UTF-8 narrow text to and from the platform's wide strings (UTF-32 on Linux). Invalid UTF-8
// bytes come back as replacement characters rather than failing.
std::string WideToUtf8(const std::wstring& wide);
std::wstring Utf8ToWide(const std::string& narrow);

// Bytes as lowercase hexadecimal text, two digits a byte.
std::string HexText(const uint8_t* bytes, uint64_t length);

// The length of the valid UTF-8 sequence that starts "text" (1 for an ASCII byte), or 0 when the
// first byte starts none (a stray, overlong, cut-short or otherwise illegal sequence). When one is
// there and "code_point" is given, it receives the character.
size_t Utf8SequenceAt(std::string_view text, int* code_point = nullptr);
