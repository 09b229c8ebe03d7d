#pragma once

#include <cstddef>
#include <cstdint>

#include "hashdb/hash_db.h"  // kNoRevision

// HDB file layout: a 48-byte header, then one record per node from offset 48 to the end.
// All integers are big-endian; there is no padding, trailer or checksum (a detached signature
// protects the file).

// Header: magic (8), version (4), platform flag (4), second host flag (4), header length (4),
// policy number (4), policy-derived value (4), node count (8), revision (8).
inline constexpr size_t kHeaderMagicOffset = 0;
inline constexpr size_t kHeaderVersionOffset = 8;
inline constexpr size_t kHeaderPlatformOffset = 12;
inline constexpr size_t kHeaderSecondFlagOffset = 16;
inline constexpr size_t kHeaderLengthOffset = 20;
inline constexpr size_t kHeaderPolicyNumberOffset = 24;
inline constexpr size_t kHeaderPolicyValueOffset = 28;
inline constexpr size_t kHeaderNodeCountOffset = 32;
inline constexpr size_t kHeaderRevisionOffset = 40;
inline constexpr size_t kHeaderSize = 8 + 4 + 4 + 4 + 4 + 4 + 4 + 8 + 8;
static_assert(kHeaderSize == 48);

inline constexpr uint64_t kHdbMagic = 0xE525EA2D6D0E4424ull;
inline constexpr uint32_t kHdbVersion = 130;

// Record header: mark (1), directory flag (1), attributes (4), first time (8), second time (8),
// hash length (1), path length (2), security attributes length (2), target length (2), size (8),
// end mark (4); then the hash bytes, path, security attributes and target, in that order.
inline constexpr size_t kRecordMarkOffset = 0;
inline constexpr size_t kRecordDirectoryOffset = 1;
inline constexpr size_t kRecordAttributesOffset = 2;
inline constexpr size_t kRecordTime1Offset = 6;
inline constexpr size_t kRecordTime2Offset = 14;
inline constexpr size_t kRecordHashLengthOffset = 22;
inline constexpr size_t kRecordPathLengthOffset = 23;
inline constexpr size_t kRecordSecurityLengthOffset = 25;
inline constexpr size_t kRecordTargetLengthOffset = 27;
inline constexpr size_t kRecordSizeOffset = 29;
inline constexpr size_t kRecordEndMarkOffset = 37;
inline constexpr size_t kRecordHeaderSize = 1 + 1 + 4 + 8 + 8 + 1 + 2 + 2 + 2 + 8 + 4;
static_assert(kRecordHeaderSize == 41);

inline constexpr uint8_t kRecordMark = 0x29;  // ")", also the record header's length
inline constexpr uint32_t kRecordEndMark = 0xFAFBFCFD;
