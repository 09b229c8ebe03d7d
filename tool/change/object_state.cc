#include "tool/change/object_state.h"

#include <sys/stat.h>

#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "refhost/security_text.h"
#include "util/text_conversion.h"

namespace {

struct CKindNames {
  const char* words;
  const char* type;
  char letter;
};

const CKindNames& NamesOf(CObjectKind kind) {
  static const CKindNames kNames[] = {
      {"file", "file", '-'},
      {"directory", "dir", 'd'},
      {"symlink", "symlink", 'l'},
      {"char device", "char_device", 'c'},
      {"block device", "block_device", 'b'},
      {"fifo", "fifo", 'p'},
      {"socket", "socket", 's'},
  };
  return kNames[static_cast<int>(kind)];
}

}  // namespace

CObjectKind KindOf(bool is_dir, uint32_t attributes, bool has_target) {
  if (attributes != kUnknownAttributes) {
    switch (attributes & S_IFMT) {
      case S_IFDIR:
        return CObjectKind::kDirectory;
      case S_IFLNK:
        return CObjectKind::kSymlink;
      case S_IFCHR:
        return CObjectKind::kCharDevice;
      case S_IFBLK:
        return CObjectKind::kBlockDevice;
      case S_IFIFO:
        return CObjectKind::kFifo;
      case S_IFSOCK:
        return CObjectKind::kSocket;
      case S_IFREG:
        return CObjectKind::kFile;
      default:
        break;
    }
  }
  return is_dir ? CObjectKind::kDirectory : has_target ? CObjectKind::kSymlink : CObjectKind::kFile;
}

const char* KindWords(CObjectKind kind) { return NamesOf(kind).words; }
const char* KindType(CObjectKind kind) { return NamesOf(kind).type; }
char KindLetter(CObjectKind kind) { return NamesOf(kind).letter; }

CObjectKind KindOfObject(CRefFileObjInfo& info) {
  return KindOf(info.IsDirectory(), info.Attributes(), !info.TargetPath().empty());
}

CObjectState StateOfObject(CRefFileObjInfo& info) {
  CObjectState state;
  state.is_dir = info.IsDirectory();
  state.hash = info.HashText();
  state.size = info.Size();
  state.attributes = info.Attributes();
  state.time_1 = info.Time1();
  state.time_2 = info.Time2();
  state.security = info.SecurityAttributes();
  state.target = info.TargetPath();
  return state;
}

CObjectState RecordedState(CHashDB& database, const std::wstring& full_path) {
  std::optional<CObjectState> state = RecordedStateIfAny(database, full_path);
  return state ? *state : CObjectState{};
}

std::optional<CObjectState> RecordedStateIfAny(CHashDB& database, const std::wstring& full_path) {
  CObjectState state;
  // Asked first: nothing recorded there (a new object, the usual case) costs one look-up.
  if (!database.AttributesOfObject(full_path, state.attributes, state.time_1, state.time_2,
                                   state.security)) {
    return std::nullopt;
  }
  state.is_dir = database.IsDirectory(full_path);
  state.hash = database.HashOfObject(full_path);
  state.size = database.SizeOfObject(full_path);
  bool target_is_dir = false;
  state.target = WideToUtf8(database.TargetOfObject(full_path, target_is_dir));
  return state;
}

std::string SecurityItem(const CObjectState& state, const char* key) {
  security_text::CSecurityItems items = security_text::Parse(state.security);
  auto found = items.find(key);
  return found == items.end() ? std::string() : found->second;
}
