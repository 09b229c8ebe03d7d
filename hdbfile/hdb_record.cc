#include "hdbfile/hdb_record.h"

#include <cstring>

#include "hdbfile/big_endian.h"

void CHdbRecordHeader::EncodeTo(uint8_t* out) const {
  out[kRecordMarkOffset] = mark;
  out[kRecordDirectoryOffset] = directory;
  EncodeBigEndian32(out + kRecordAttributesOffset, attributes);
  EncodeBigEndian64(out + kRecordTime1Offset, time_1);
  EncodeBigEndian64(out + kRecordTime2Offset, time_2);
  out[kRecordHashLengthOffset] = hash_length;
  EncodeBigEndian16(out + kRecordPathLengthOffset, path_length);
  EncodeBigEndian16(out + kRecordSecurityLengthOffset, security_length);
  EncodeBigEndian16(out + kRecordTargetLengthOffset, target_length);
  EncodeBigEndian64(out + kRecordSizeOffset, size);
  EncodeBigEndian32(out + kRecordEndMarkOffset, end_mark);
}

CHdbRecordHeader CHdbRecordHeader::DecodeFrom(const uint8_t* in) {
  CHdbRecordHeader record;
  record.mark = in[kRecordMarkOffset];
  record.directory = in[kRecordDirectoryOffset];
  record.attributes = DecodeBigEndian32(in + kRecordAttributesOffset);
  record.time_1 = DecodeBigEndian64(in + kRecordTime1Offset);
  record.time_2 = DecodeBigEndian64(in + kRecordTime2Offset);
  record.hash_length = in[kRecordHashLengthOffset];
  record.path_length = DecodeBigEndian16(in + kRecordPathLengthOffset);
  record.security_length = DecodeBigEndian16(in + kRecordSecurityLengthOffset);
  record.target_length = DecodeBigEndian16(in + kRecordTargetLengthOffset);
  record.size = DecodeBigEndian64(in + kRecordSizeOffset);
  record.end_mark = DecodeBigEndian32(in + kRecordEndMarkOffset);
  return record;
}

bool IsRecordStart(const uint8_t* position, const uint8_t* end) {
  if (position >= end || static_cast<size_t>(end - position) < kRecordHeaderSize) return false;
  return position[kRecordMarkOffset] == kRecordMark &&
         DecodeBigEndian32(position + kRecordEndMarkOffset) == kRecordEndMark;
}

const uint8_t* FindRecordStart(const uint8_t* from, const uint8_t* end) {
  if (from >= end || static_cast<size_t>(end - from) < kRecordHeaderSize) return end;
  const uint8_t* last = end - kRecordHeaderSize;
  for (const uint8_t* p = from; p <= last; ++p) {
    p = static_cast<const uint8_t*>(std::memchr(p, kRecordMark, static_cast<size_t>(last - p) + 1));
    if (p == nullptr) return end;
    if (DecodeBigEndian32(p + kRecordEndMarkOffset) == kRecordEndMark) return p;
  }
  return end;
}

CHdbRecordFault DecodeRecord(const uint8_t* data, size_t available, CHdbRecordView& record) {
  if (available < kRecordHeaderSize || data[kRecordMarkOffset] != kRecordMark) return CHdbRecordFault::kMark;
  record.header = CHdbRecordHeader::DecodeFrom(data);
  if (record.header.end_mark != kRecordEndMark) return CHdbRecordFault::kEndMark;
  size_t variable = record.header.VariableLength();
  if (available - kRecordHeaderSize < variable) return CHdbRecordFault::kTruncated;
  const char* field = reinterpret_cast<const char*>(data) + kRecordHeaderSize;
  record.hash = std::string_view(field, record.header.hash_length);
  field += record.header.hash_length;
  record.path = std::string_view(field, record.header.path_length);
  field += record.header.path_length;
  record.security = std::string_view(field, record.header.security_length);
  field += record.header.security_length;
  record.target = std::string_view(field, record.header.target_length);
  record.length = kRecordHeaderSize + variable;
  return CHdbRecordFault::kNone;
}
