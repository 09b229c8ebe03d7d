#pragma once

#include <cstdint>

#include "hdbfile/hdb_format.h"

// The 48-byte file header, field by field (layout in hdb_format.h).
struct CHdbHeader {
  uint64_t magic = kHdbMagic;
  uint32_t version = kHdbVersion;
  uint32_t platform_flag = 0;
  uint32_t second_flag = 0;
  uint32_t header_length = kHeaderSize;
  uint32_t policy_number = 0;
  uint32_t policy_value = 0;
  uint64_t node_count = 0;
  uint64_t revision = kNoRevision;

  void EncodeTo(uint8_t* out) const;               // writes kHeaderSize bytes
  static CHdbHeader DecodeFrom(const uint8_t* in);  // reads kHeaderSize bytes
};
