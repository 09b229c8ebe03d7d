#include "cli/database_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "refhost/crash_point.h"
#include "refhost/file_io.h"

namespace {

constexpr const char* kTemporarySuffix = ".tmp";
constexpr const char* kSavingSuffix = ".saving";
constexpr const char* kRevisionSuffix = ".dff";
constexpr size_t kHeaderSize = 48;
constexpr size_t kHeaderRevisionOffset = 40;

bool Exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

void Remove(const std::string& path) {
  if (!Exists(path)) return;
  CrashPoint();
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    throw std::runtime_error("cannot remove " + path + ": " + std::strerror(errno));
  }
  SyncDirectoryOf(path);
}

uint64_t BigEndian(const uint8_t* bytes) {
  uint64_t value = 0;
  for (int i = 0; i < 8; ++i) value = (value << 8) | bytes[i];
  return value;
}

void PutBigEndian(uint64_t value, uint8_t* bytes) {
  for (int i = 7; i >= 0; --i, value >>= 8) bytes[i] = static_cast<uint8_t>(value & 0xFF);
}

// A fresh copy of "from" at "to": a hard link, or a copy where links are not possible.
void CopyFresh(const std::string& from, const std::string& to) {
  Remove(to);
  CrashPoint();
  if (::link(from.c_str(), to.c_str()) == 0) return;
  boost::filesystem::copy_file(from, to);
  CrashPoint();
}

}  // namespace

CSignedPair FindSignedPair(const std::string& hdb_path, const CSignatureOf& signature_of) {
  std::string signature = signature_of(hdb_path);
  std::string temporary = hdb_path + kTemporarySuffix;
  std::string temporary_signature = signature_of(temporary);
  if (Exists(signature) || !Exists(temporary_signature)) return {hdb_path, signature, false};
  if (Exists(temporary)) return {temporary, temporary_signature, true};
  return {hdb_path, temporary_signature, true};
}

void CompleteReplacement(const std::string& hdb_path, const CSignatureOf& signature_of) {
  std::string signature = signature_of(hdb_path);
  std::string temporary = hdb_path + kTemporarySuffix;
  std::string temporary_signature = signature_of(temporary);
  CSignedPair pair = FindSignedPair(hdb_path, signature_of);
  if (pair.interrupted) {
    if (pair.hdb == temporary) DurableRename(temporary, hdb_path);
    DurableRename(temporary_signature, signature);
  } else {
    Remove(temporary);
    Remove(temporary_signature);
  }
}

void ReplacePairWithCopy(const std::string& from, const std::string& to,
                         const CSignatureOf& signature_of) {
  CompleteReplacement(to, signature_of);
  std::string temporary = to + kTemporarySuffix;
  CopyFresh(from, temporary);
  CopyFresh(signature_of(from), signature_of(temporary));
  Remove(signature_of(to));
  DurableRename(temporary, to);
  DurableRename(signature_of(temporary), signature_of(to));
}

std::string SaveMarkerPath(const std::string& hdb_path) { return hdb_path + kSavingSuffix; }

void WriteSaveMarker(const std::string& hdb_path, const CSaveMarker& marker) {
  uint8_t bytes[16];
  PutBigEndian(marker.before, bytes);
  PutBigEndian(marker.saving, bytes + 8);
  WriteWholeFile(SaveMarkerPath(hdb_path), bytes, sizeof bytes);
}

bool ReadSaveMarker(const std::string& hdb_path, CSaveMarker& marker) {
  std::string path = SaveMarkerPath(hdb_path);
  if (!Exists(path)) return false;
  std::vector<uint8_t> bytes = ReadWholeFile(path, 16);
  if (bytes.size() < 16) return false;
  marker.before = BigEndian(bytes.data());
  marker.saving = BigEndian(bytes.data() + 8);
  return true;
}

void RemoveSaveMarker(const std::string& hdb_path) { Remove(SaveMarkerPath(hdb_path)); }

bool ReadRecordedRevision(const std::string& hdb_path, uint64_t& revision) {
  std::string path = hdb_path + kRevisionSuffix;
  if (!Exists(path)) return false;
  std::vector<uint8_t> bytes = ReadWholeFile(path, 8);
  if (bytes.size() < 8) return false;
  revision = BigEndian(bytes.data());
  return true;
}

bool ReadHeaderRevision(const std::string& hdb_path, uint64_t& revision) {
  if (!Exists(hdb_path)) return false;
  std::vector<uint8_t> bytes = ReadWholeFile(hdb_path, kHeaderSize);
  if (bytes.size() < kHeaderSize) return false;
  revision = BigEndian(bytes.data() + kHeaderRevisionOffset);
  return true;
}

std::string RevisionText(uint64_t revision) {
  char text[20];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(revision));
  return text;
}
