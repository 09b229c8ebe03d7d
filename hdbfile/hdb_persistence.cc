// The database's operations on its HDB file: load, file revision (and, in their own files, save
// and the signature check). Each hands the work to the HDB file classes, which see the tree only
// through the operations the database gives them.

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "hashdb/hash_db_impl.h"
#include "hashdb/map_hash_db.h"
#include "hdbfile/big_endian.h"
#include "hdbfile/hdb_file_context.h"
#include "hdbfile/hdb_format.h"
#include "hdbfile/hdb_header.h"
#include "hdbfile/hdb_loader.h"
#include "hdbfile/hdb_saver.h"
#include "host/buffer.h"
#include "host/message.h"
#include "host/path_status.h"
#include "host/utility_service.h"

CHdbFileContext CHashDBImpl::FileContext() {
  CHdbFileContext context;
  context.utility = utility_;
  context.crypto = crypto_;
  context.cfg = cfg_;
  context.log = log_;
  context.pool = pool_;
  context.time_service = time_service_;
  // The language is this database's own: a share of the database keeps it alive.
  context.language = std::shared_ptr<CLanguage>(shared_from_this(), static_cast<CLanguage*>(this));
  context.policy_number = policy_number_;
  context.digest_descriptor = digest_descriptor_;
  context.hdb_path = hdb_path_;
  context.hdb_path_text = hdb_path_text_;
  context.temporary_path = temporary_path_;
  context.root_path = root_path_;
  context.restore_time_limit_ms = restore_time_limit_ms_;
  return context;
}

bool CHashDBImpl::Load(const std::atomic<bool>* exit_flag, bool verify_signature,
                       const std::string& hdb_path, const std::shared_ptr<CBuffer>& hdb,
                       const std::shared_ptr<CBuffer>& signature) {
  std::shared_ptr<CStopwatch> stopwatch = utility_->StartStopwatch();
  std::lock_guard<std::mutex> load_save(load_save_mutex_);
  if (loaded_) throw std::runtime_error(Compose(*this, "[hdbi,rmhdfd]Can NOT call more than once!"));
  if (verify_signature && !VerifySignature(hdb_path, hdb, signature)) return false;
  if (!hdb || hdb->Empty()) {
    LogError(*log_, Compose(*this, "[hdbi,rmhdfd] Bad hdb data! [HDB]=", hdb_path));
    return false;
  }
  if (!signature || signature->Empty()) {
    LogError(*log_, Compose(*this, "[hdbi,rmhdfd] Bad sig data! [HDB]=", hdb_path));
    return false;
  }

  // Held while the restore tasks build the tree; they rely on the nodes' own locks.
  CExclusiveGuard<CSharedMutex> tree(tree_lock_);
  CHdbFileContext context = FileContext();
  auto loader = std::make_shared<CHdbLoader>(
      context, std::shared_ptr<CTreeBuilder>(shared_from_this(), static_cast<CTreeBuilder*>(this)));
  CHdbHeader header;
  bool platform_matches = true;
  if (!loader->ReadHeader(*hdb, hdb_path, header, platform_matches)) return false;
  // Only a header that passed every check changes the database.
  platform_flag_ = header.platform_flag != 0;
  second_flag_ = header.second_flag != 0;
  revision_.exchange(header.revision);
  uint64_t node_count = header.node_count;
  root_ = MakeRoot();
  if (index_->enabled()) index_->Clear();
  change_counter_ = kNoRevision;

  uint64_t count = 0;
  if (node_count > 0) {
    LogInformation(*log_, Compose(*this, "Loading HDB.Nodes need to restore=", node_count,
                                  LKey{" [HDB]="}, hdb_path));
    WarnIfLargeCount(context, node_count);
    count = loader->Restore(exit_flag, hdb, hdb_path, header, platform_matches);
  }
  loaded_ = true;

  std::string elapsed = stopwatch ? stopwatch->Report(count) : std::string();
  std::string revision = utility_->FormatNumber(revision_.load());
  if (count == node_count) {
    LogInformation(*log_, Compose(*this, "HDB loaded.Restore nodes=", count, elapsed,
                                  LKey{" [HDB]="}, hdb_path, LKey{" [RDM]="}, revision));
  } else {
    LogWarning(*log_, Compose(*this, "HDB loaded.But restore nodes=", count,
                              LKey{",nodes need to restore="}, node_count, elapsed,
                              LKey{" [HDB]="}, hdb_path, LKey{" [RDM]="}, revision));
  }
  return true;
}

void CHashDBImpl::Save() {
  std::lock_guard<std::mutex> load_save(load_save_mutex_);
  LogInformation(*log_, Compose(*this, "Saving HDB,path=", hdb_path_text_));
  std::shared_ptr<CStopwatch> stopwatch = utility_->StartStopwatch();
  CSharedGuard tree(tree_lock_);

  uint64_t stamp = 0;
  do {
    stamp = utility_->RandomStamp();
  } while (stamp == kNoRevision || stamp == revision_.load());

  CHdbSaver saver(FileContext(), *this);
  uint64_t total_nodes = saver.WriteSigned(stamp);
  saver.Replace();
  revision_.exchange(stamp);
  LogInformation(*log_, Compose(*this, "HDB saved.Total nodes=", total_nodes,
                                stopwatch ? stopwatch->Report(total_nodes) : std::string(), ", path=",
                                hdb_path_text_));
}

uint64_t CHashDBImpl::FileRevision() {
  if (!PathExistsInAnyForm(hdb_path_, *utility_)) return kNoRevision;
  std::shared_ptr<CBuffer> header;
  try {
    header = utility_->ReadFile(hdb_path_, kHeaderSize);
  } catch (const std::exception&) {
    return kNoRevision;  // cannot be examined
  }
  if (!header || header->Size() < kHeaderSize) {
    LogError(*log_, Compose(*this, "[HDBI,ghdrvfdf]HDB file corrupted-1.File=", hdb_path_text_));
    return kNoRevision;
  }
  return DecodeBigEndian64(header->Data() + kHeaderRevisionOffset);
}
