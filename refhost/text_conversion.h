#pragma once

#include <cstdint>
#include <string>

// UTF-8 narrow text to and from the platform's wide strings (UTF-32 on Linux). Invalid UTF-8
// bytes come back as replacement characters rather than failing.
std::string WideToUtf8(const std::wstring& wide);
std::wstring Utf8ToWide(const std::string& narrow);

// Bytes as lowercase hexadecimal text, two digits a byte.
std::string HexText(const uint8_t* bytes, uint64_t length);
