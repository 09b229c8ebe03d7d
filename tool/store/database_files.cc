#include "tool/store/database_files.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/LocalDateTime.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "front/policy_files.h"
#include "hdbfile/big_endian.h"
#include "hdbfile/hdb_format.h"
#include "hdbfile/hdb_header.h"
#include "refhost/crash_point.h"
#include "refhost/file_io.h"
#include "tool/common/policy_files.h"

namespace {

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

void FinishInterruptedSave(const std::string& hdb_path, const CSignatureOf& signature_of) {
  CompleteReplacement(hdb_path, signature_of);
  CSaveMarker marker;
  if (!ReadSaveMarker(hdb_path, marker)) return;
  uint64_t saved = 0;
  uint64_t recorded = 0;
  if (ReadHeaderRevision(hdb_path, saved) && saved == marker.saving &&
      !(ReadRecordedRevision(hdb_path, recorded) && recorded == saved)) {
    WriteRecordedRevision(hdb_path, saved);
  }
  RemoveSaveMarker(hdb_path);
}

std::string StorageProblemOf(const std::string& folder) {
  struct statvfs space {};
  if (::statvfs(folder.c_str(), &space) == 0) {
    if ((space.f_flag & ST_RDONLY) != 0)
      return "the file system of " + folder + " is read-only (EROFS)";
    if (space.f_bavail == 0 || (space.f_files != 0 && space.f_favail == 0)) {
      return "no space left on the file system of " + folder + " (ENOSPC)";
    }
  }
  if (::access(folder.c_str(), W_OK | X_OK) != 0)
    return folder + " is not writable: " + ErrnoText(errno);
  return std::string();
}

void WriteSaveMarker(const std::string& hdb_path, const CSaveMarker& marker) {
  uint8_t bytes[16];
  EncodeBigEndian64(bytes, marker.before);
  EncodeBigEndian64(bytes + 8, marker.saving);
  WriteWholeFile(SaveMarkerFileOf(hdb_path), bytes, sizeof bytes);
}

bool ReadSaveMarker(const std::string& hdb_path, CSaveMarker& marker) {
  std::string path = SaveMarkerFileOf(hdb_path);
  if (!Exists(path)) return false;
  std::vector<uint8_t> bytes = ReadWholeFile(path, 16);
  if (bytes.size() < 16) return false;
  marker.before = DecodeBigEndian64(bytes.data());
  marker.saving = DecodeBigEndian64(bytes.data() + 8);
  return true;
}

void RemoveSaveMarker(const std::string& hdb_path) { Remove(SaveMarkerFileOf(hdb_path)); }

bool ReadRecordedRevision(const std::string& hdb_path, uint64_t& revision) {
  std::string path = hdb_path + kRevisionSuffix;
  if (!Exists(path)) return false;
  std::vector<uint8_t> bytes = ReadWholeFile(path, 8);
  if (bytes.size() < 8) return false;
  revision = DecodeBigEndian64(bytes.data());
  return true;
}

void WriteRecordedRevision(const std::string& hdb_path, uint64_t revision) {
  // As the front writes it: the revision, big-endian, then the local time (never read back).
  std::string time = Poco::DateTimeFormatter::format(Poco::LocalDateTime(), " %Y-%m-%d %H:%M:%S");
  std::vector<uint8_t> bytes(8 + time.size());
  EncodeBigEndian64(bytes.data(), revision);
  std::copy(time.begin(), time.end(), bytes.begin() + 8);
  WriteWholeFile(hdb_path + kRevisionSuffix, bytes.data(), bytes.size());
}

bool ReadHeaderRevision(const std::string& hdb_path, uint64_t& revision) {
  if (!Exists(hdb_path)) return false;
  std::vector<uint8_t> bytes = ReadWholeFile(hdb_path, kHeaderSize);
  if (bytes.size() < kHeaderSize) return false;
  revision = CHdbHeader::DecodeFrom(bytes.data()).revision;
  return true;
}

std::string RevisionText(uint64_t revision) {
  char text[20];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(revision));
  return text;
}
