#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "refhost/file_obj_info.h"

class CHashDB;

// The kind of a file-system object. The attributes field holds st_mode, whose type bits say it;
// a record without known attributes still tells a directory and a symbolic link by their fields.
enum class CObjectKind { kFile, kDirectory, kSymlink, kCharDevice, kBlockDevice, kFifo, kSocket };

CObjectKind KindOf(bool is_dir, uint32_t attributes, bool has_target);
// "file", "directory", "symlink", "char device", "block device", "fifo", "socket".
const char* KindWords(CObjectKind kind);
// The event schema's file.type: "file", "dir", "symlink", "char_device", "block_device", "fifo",
// "socket".
const char* KindType(CObjectKind kind);
// The type letter of ls: '-', 'd', 'l', 'c', 'b', 'p', 's'.
char KindLetter(CObjectKind kind);

constexpr uint32_t kUnknownAttributes = 0xFFFFFFFFu;
constexpr uint64_t kUnknownTime = ~0ull;

// Everything recorded about one object, or read from the disk now: is_dir, hash (empty: none, for
// a directory, a link, a device, or not hashed), size, attributes (st_mode), time_1 (status
// change, ns since the epoch), time_2 (modification), security (refhost/security_text.h) and a
// symbolic link's target.
struct CObjectState : CRecordedValues {
  CObjectKind kind() const { return KindOf(is_dir, attributes, !target.empty()); }
};

// One item of the state's security text ("" when it has none): security_text's keys, "inode",
// "nlink", "uid", ...
std::string SecurityItem(const CObjectState& state, const char* key);

// The object as the disk showed it.
CObjectState StateOfObject(CRefFileObjInfo& info);
// Its kind alone, without copying its texts.
CObjectKind KindOfObject(CRefFileObjInfo& info);
// The object as "database" recorded it at this full path (which must be recorded).
CObjectState RecordedState(CHashDB& database, const std::wstring& full_path);
// The same, or nothing when nothing is recorded at that path.
std::optional<CObjectState> RecordedStateIfAny(CHashDB& database, const std::wstring& full_path);
