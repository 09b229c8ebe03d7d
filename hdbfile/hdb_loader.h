#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "hdbfile/hdb_file_context.h"
#include "hdbfile/hdb_header.h"
#include "hashdb/tree_builder.h"

class CBuffer;
class CRestoreLeavesHelper;
struct CHdbRecordView;

// Reads an HDB file's records into a tree: the header checks, the cut of the record area into
// pieces at record starts, one restore task per piece on the host's pool, and the index of the
// restored hashes once every piece has been read. Made with std::make_shared: each task holds the
// loader (and through it the tree) until it ends, also after the loader has stopped waiting.
class CHdbLoader : public std::enable_shared_from_this<CHdbLoader> {
 public:
  CHdbLoader(CHdbFileContext context, std::shared_ptr<CTreeBuilder> tree);

  // Checks the header of "hdb" in the order the format gives; logs the first fault (each message
  // followed by "path") and returns false. On success "header" holds the fields and
  // "platform_matches" whether the file's platform is this one (a mismatch is logged as a warning).
  bool ReadHeader(CBuffer& hdb, const std::string& path, CHdbHeader& header, bool& platform_matches);

  // Restores every record of the body into the tree; returns the number of records read. Throws
  // std::runtime_error when the body holds no record start, a piece cannot be made, or a piece is
  // not read within the restore time limit.
  // "path" is the file's path as the caller named it, for messages.
  uint64_t Restore(const std::atomic<bool>* exit_flag, const std::shared_ptr<CBuffer>& hdb,
                   const std::string& path, const CHdbHeader& header, bool platform_matches);

 private:
  // The directory of the previous record a task read (records of one directory follow one
  // another, so most records find their parent here), and the hashes the task's records gave.
  struct CPieceState {
    std::wstring parent_path;
    std::shared_ptr<CHashNode> parent;
    CCompactText security;  // the last record's: neighbours mostly carry the same
    CTreeBuilder::CPiece read;
  };

  // One task's reading of its piece; the task marks the helper done afterwards.
  void RestoreLeaves(CRestoreLeavesHelper& helper);
  // One record into the tree. Throws CBadObjNameError for an illegal name and std::runtime_error
  // for a file record of size 0 without a hash.
  void RestoreRecord(const CHdbRecordView& record, CPieceState& piece);

  const CHdbFileContext context_;
  const std::shared_ptr<CTreeBuilder> tree_;
  bool platform_matches_ = true;  // of the file being loaded; set before the tasks start
  bool platform_flag_ = true;
};
