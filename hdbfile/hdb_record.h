#pragma once

#include <cstddef>
#include <cstdint>

#include "hdbfile/hdb_format.h"

// The fixed 41-byte part of a node record (layout in hdb_format.h). The lengths are stored as
// they come: the writer decides what fits (a 256-byte hash wraps to 0, a security-attributes
// length wraps modulo 65536, on purpose).
struct CHdbRecordHeader {
  uint8_t mark = kRecordMark;
  uint8_t directory = 0;
  uint32_t attributes = 0;
  uint64_t time_1 = 0;
  uint64_t time_2 = 0;
  uint8_t hash_length = 0;
  uint16_t path_length = 0;
  uint16_t security_length = 0;
  uint16_t target_length = 0;
  uint64_t size = 0;
  uint32_t end_mark = kRecordEndMark;

  void EncodeTo(uint8_t* out) const;                     // writes kRecordHeaderSize bytes
  static CHdbRecordHeader DecodeFrom(const uint8_t* in);  // reads kRecordHeaderSize bytes
  // Bytes of the variable parts that follow the fixed part.
  size_t VariableLength() const {
    return size_t{hash_length} + path_length + security_length + target_length;
  }
};

// Whether a record starts at "position": the mark byte there and the end mark 37 bytes on. A
// position with fewer than 41 bytes before "end" is never a record start. Hash or text bytes can
// fool this test; the format accepts that.
bool IsRecordStart(const uint8_t* position, const uint8_t* end);

// The first record start in [from, end), or "end" when there is none.
const uint8_t* FindRecordStart(const uint8_t* from, const uint8_t* end);
