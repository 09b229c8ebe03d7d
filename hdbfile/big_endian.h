#pragma once

#include <cstdint>
#include <cstring>

#include <Poco/ByteOrder.h>

// The one place where HDB and revision fields change byte order. Encode* write a big-endian field
// into a raw buffer; Decode* read one. 64-bit fields go through POCO's flipBytes.

inline void EncodeBigEndian16(uint8_t* out, uint16_t value) {
  out[0] = static_cast<uint8_t>(value >> 8);
  out[1] = static_cast<uint8_t>(value);
}

inline void EncodeBigEndian32(uint8_t* out, uint32_t value) {
  out[0] = static_cast<uint8_t>(value >> 24);
  out[1] = static_cast<uint8_t>(value >> 16);
  out[2] = static_cast<uint8_t>(value >> 8);
  out[3] = static_cast<uint8_t>(value);
}

inline void EncodeBigEndian64(uint8_t* out, uint64_t value) {
#if defined(POCO_ARCH_LITTLE_ENDIAN)
  value = Poco::ByteOrder::flipBytes(static_cast<Poco::UInt64>(value));
#endif
  std::memcpy(out, &value, sizeof value);
}

inline uint16_t DecodeBigEndian16(const uint8_t* in) {
  return static_cast<uint16_t>((in[0] << 8) | in[1]);
}

inline uint32_t DecodeBigEndian32(const uint8_t* in) {
  return (static_cast<uint32_t>(in[0]) << 24) | (static_cast<uint32_t>(in[1]) << 16) |
         (static_cast<uint32_t>(in[2]) << 8) | static_cast<uint32_t>(in[3]);
}

inline uint64_t DecodeBigEndian64(const uint8_t* in) {
  uint64_t value = 0;
  std::memcpy(&value, in, sizeof value);
#if defined(POCO_ARCH_LITTLE_ENDIAN)
  value = Poco::ByteOrder::flipBytes(static_cast<Poco::UInt64>(value));
#endif
  return value;
}
