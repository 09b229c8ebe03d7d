#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hashdb/tree_source.h"
#include "hdbfile/hdb_file_context.h"

class CBufferedWriter;
class CHashNode;

// Writes a database's tree into the temporary file beside its HDB file: the records from the
// walk's workers, the header last, then the signature; and puts the signed pair in place of the
// HDB file and its signature. The caller holds the tree lock shared and the database's load/save
// mutex throughout.
class CHdbSaver {
 public:
  CHdbSaver(CHdbFileContext context, CTreeSource& tree);

  // Writes and signs the temporary file with "stamp" as its revision; returns the node count.
  // Throws std::runtime_error when the file cannot be opened, written or signed, or a node does
  // not fit its record ("[HDBI,wn] bad size-N!"); the HDB file is then untouched.
  uint64_t WriteSigned(uint64_t stamp);
  // Moves the signed temporary file and its signature over the HDB file and its signature.
  void Replace();

 private:
  // Records gathered by one worker thread, handed to the writer a batch at a time, so that the
  // record write mutex is taken once per batch instead of once per node; every record stays in
  // one piece. The directory of the node last written, with its path, saves walking up from most
  // nodes (a directory's files are visited one after another).
  struct CThreadBatch {
    std::string records;
    std::weak_ptr<CHashNode> directory;
    std::string directory_path;
    std::string path;  // the node's path, built here to keep its room from node to node
  };

  // One node's record into the calling thread's batch.
  void WriteNode(CThreadBatch& batch, const std::shared_ptr<CHashNode>& node);
  // The batch of the calling thread for this save.
  CThreadBatch& BatchOfThisThread();
  // Moves a batch's records into the writer under the record write mutex.
  void Drain(CThreadBatch& batch);

  const CHdbFileContext context_;
  CTreeSource& tree_;
  std::shared_ptr<CBufferedWriter> writer_;
  std::mutex record_write_mutex_;  // one batch of whole records at a time into the writer
  std::mutex batches_mutex_;
  std::vector<std::unique_ptr<CThreadBatch>> batches_;  // guarded by batches_mutex_
  const uint64_t identity_;  // tells this save's batches from an earlier save's in a thread
};
