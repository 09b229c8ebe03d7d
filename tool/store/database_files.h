#pragma once

#include <cstdint>
#include <functional>
#include <string>

// How a policy's signed pair (NAME.hdb and its signature) is replaced so that a run killed at
// any moment never leaves the policy without a loadable signed pair, and how the pair to load is
// found after such a kill.
//
// A save writes NAME.hdb.tmp and signs it (NAME.hdb.tmp.p7s), then deletes NAME.hdb.p7s, moves
// NAME.hdb.tmp onto NAME.hdb and NAME.hdb.tmp.p7s onto NAME.hdb.p7s. Whatever step a kill
// interrupts, one complete pair remains, the newest one first:
//
//   NAME.hdb.p7s there                      -> NAME.hdb + NAME.hdb.p7s (a .tmp pair is a leftover)
//   no NAME.hdb.p7s, NAME.hdb.tmp + its sig  -> NAME.hdb.tmp + NAME.hdb.tmp.p7s
//   no NAME.hdb.p7s, no NAME.hdb.tmp         -> NAME.hdb + NAME.hdb.tmp.p7s
//
// The kept previous pair (NAME.previous.hdb) is refreshed the same way.
struct CSignedPair {
  std::string hdb;
  std::string signature;
  bool interrupted = false;  // found as an interrupted replacement left it
};

using CSignatureOf = std::function<std::string(const std::string& hdb_path)>;

// The pair to load for "hdb_path" (which need not exist: the caller says it is missing).
CSignedPair FindSignedPair(const std::string& hdb_path, const CSignatureOf& signature_of);

// Finishes what an interrupted replacement left (the moves it did not make) and removes the
// leftovers of a save that never reached its replacement. Only under the policy's exclusive lock.
void CompleteReplacement(const std::string& hdb_path, const CSignatureOf& signature_of);

// Finishes everything a killed save left: the moves (CompleteReplacement) and, when the database
// now in place is the one the save wrote (its revision is the marker's), the revision file; then
// removes the marker. Only under the policy's exclusive lock.
void FinishInterruptedSave(const std::string& hdb_path, const CSignatureOf& signature_of);

// What keeps a folder from taking a file, as people read it, naming the error ("no space left on
// the file system of DIR (ENOSPC)", "... read-only (EROFS)", "... not writable (EACCES)"); empty
// when nothing is seen.
std::string StorageProblemOf(const std::string& folder);

// Puts a copy of the pair at "from" in place of the pair at "to" with the same steps as a save:
// hard links where the file system has them (nothing is copied), else copies.
void ReplacePairWithCopy(const std::string& from, const std::string& to,
                         const CSignatureOf& signature_of);

// The marker that a save is under way: "NAME.hdb.saving" holds the revision the revision file
// held before the save and the revision the save writes. While it exists, a database whose
// revision is the second one is the complete result of a save that was killed before it could
// write its revision file.
struct CSaveMarker {
  uint64_t before = ~0ull;
  uint64_t saving = ~0ull;
};
void WriteSaveMarker(const std::string& hdb_path, const CSaveMarker& marker);
bool ReadSaveMarker(const std::string& hdb_path, CSaveMarker& marker);
void RemoveSaveMarker(const std::string& hdb_path);

// The revision that the revision file "NAME.hdb.dff" records; false when there is none.
bool ReadRecordedRevision(const std::string& hdb_path, uint64_t& revision);
// Writes the revision file for "revision" as the front does, for a database that no living object
// holds (the result of a save that was killed before it wrote the file).
void WriteRecordedRevision(const std::string& hdb_path, uint64_t revision);
// The revision in an HDB file's header; false when the file is too short to hold one.
bool ReadHeaderRevision(const std::string& hdb_path, uint64_t& revision);
// A revision as people read it: 16 hex digits.
std::string RevisionText(uint64_t revision);
