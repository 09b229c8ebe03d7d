#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

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

// One record read in place: the fixed part decoded and the variable parts as views into the data.
struct CHdbRecordView {
  CHdbRecordHeader header;
  std::string_view hash;      // the binary hash, hash_length bytes
  std::string_view path;      // relative to the root, as stored
  std::string_view security;  // the security attributes text
  std::string_view target;    // the target path text
  size_t length = 0;          // bytes the whole record occupies
};

// Why a record could not be read.
enum class CHdbRecordFault {
  kNone,
  kMark,       // fewer than 41 bytes left, or the first byte is not the record mark
  kEndMark,    // the end mark is wrong
  kTruncated,  // the variable parts run past the end of the data
};

// Reads the record at the start of [data, data + available): the one decoder of records, shared
// by the loader, the tool's dump and the fuzzers. Touches nothing outside that range.
CHdbRecordFault DecodeRecord(const uint8_t* data, size_t available, CHdbRecordView& record);
