#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// UTF-8 narrow text to and from the platform's wide strings (UTF-32 on Linux, UTF-16 on Windows),
// losslessly: a file name is a string of bytes, and one that is not UTF-8 must still be recorded as
// itself and told apart from every other. Each byte that starts no valid UTF-8 sequence becomes the
// lone surrogate U+DC80 + (byte - 0x80) (only bytes 0x80-0xFF can), and such a character becomes
// that byte again, so Utf8ToWide then WideToUtf8 gives back the very bytes for any input.
std::string WideToUtf8(const std::wstring& wide);
std::wstring Utf8ToWide(const std::string& narrow);

// The wide character that stands for a byte that is not UTF-8, and back.
inline constexpr uint32_t kEscapedByteBase = 0xDC00;
inline bool IsEscapedByte(uint32_t character) { return character >= 0xDC80 && character <= 0xDCFF; }

// Bytes as lowercase hexadecimal text, two digits a byte.
std::string HexText(const uint8_t* bytes, uint64_t length);

// The length of the valid UTF-8 sequence that starts "text" (1 for an ASCII byte), or 0 when the
// first byte starts none (a stray, overlong, cut-short or otherwise illegal sequence). When one is
// there and "code_point" is given, it receives the character.
size_t Utf8SequenceAt(std::string_view text, int* code_point = nullptr);
