// Loading: the header is checked, the root rebuilt from the disk, and the record area cut at
// record starts into pieces that restore tasks read in parallel on the host's pool.

#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <vector>

#include <boost/interprocess/streams/bufferstream.hpp>
#include <boost/system/system_error.hpp>
#include <Poco/Exception.h>

#include "hashdb/bad_obj_name_error.h"
#include "hashdb/hash_db_impl.h"
#include "hashdb/map_hash_db.h"
#include "hashdb/wide_path.h"
#include "hdbfile/hdb_header.h"
#include "hdbfile/hdb_record.h"
#include "hdbfile/restore_leaves_helper.h"
#include "host/buffer.h"
#include "host/crypto_service.h"
#include "host/message.h"
#include "host/path_status.h"
#include "host/thread_pool.h"
#include "host/utility_service.h"

namespace {

constexpr uint64_t kProgressEvery = 10000;

// Reads exactly "length" bytes or reports that the data ended.
bool ReadExactly(std::istream& in, void* out, size_t length, uint64_t& consumed) {
  in.read(static_cast<char*>(out), static_cast<std::streamsize>(length));
  consumed += static_cast<uint64_t>(in.gcount());
  return static_cast<size_t>(in.gcount()) == length;
}

}  // namespace

bool CHashDBImpl::ValidateHeader(const std::shared_ptr<CBuffer>& hdb, const std::string& path,
                                 CHdbHeader& header) {
  if (hdb->Size() < kHeaderSize) {
    LogError(*log_, Compose(*this, "[HDBI,rmhdfd]HDB file corrupted-0.[HDB]=", path));
    return false;
  }
  header = CHdbHeader::DecodeFrom(hdb->Data());
  const char* fault = nullptr;
  if (header.magic != kHdbMagic) {
    fault = "[HDBI,rmhdfd]HDB file corrupted-0.[HDB]=";
  } else if (header.version != kHdbVersion) {
    LogError(*log_, Compose(*this, "[HDBI,rmhdfd]HDB file version is ",
                            LKey{header.version < kHdbVersion ? "older" : "newer"},
                            LKey{" than program.File = "}, path));
    return false;
  } else if (header.header_length > kHeaderSize) {
    fault = "[HDBI,rmhdfd]HDB file corrupted-1.[HDB]=";
  } else if (header.policy_number != policy_number_) {
    fault = "[HDBI,rmhdfd]HDB file corrupted-2.[HDB]=";
  } else if (header.policy_value != digest_descriptor_) {
    fault = "[HDBI,rmhdfd]HDB file corrupted-3.[HDB]=";
  }
  if (fault != nullptr) {
    LogError(*log_, Compose(*this, fault, path));
    return false;
  }
  bool platform_matches = utility_->PlatformMatches(header.platform_flag != 0);
  if (!platform_matches) {
    LogWarning(*log_, Compose(*this,
                              "[Attention] Attributes and security attributes are both ignored "
                              "because of current HDB file is generate from different OS "
                              "Platform.[HDB]=",
                              path));
  }
  if (header.revision == kNoRevision) {
    LogError(*log_, Compose(*this, "[HDBI,rmhdfd]HDB file corrupted-6.[HDB]=", path));
    return false;
  }
  // Only a header that passed every check changes the database.
  platform_flag_ = header.platform_flag != 0;
  second_flag_ = header.second_flag != 0;
  platform_matches_ = platform_matches;
  revision_.exchange(header.revision);
  return true;
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
  std::unique_lock<boost::shared_mutex> tree(tree_lock_);
  CHdbHeader header;
  if (!ValidateHeader(hdb, hdb_path, header)) return false;
  uint64_t node_count = header.node_count;
  root_ = MakeRoot();
  if (index_->enabled()) index_->Clear();
  change_counter_ = kNoRevision;

  auto restored = std::make_shared<std::atomic<uint64_t>>(0);
  if (node_count > 0) {
    LogInformation(*log_, Compose(*this, "Loading HDB.Nodes need to restore=", node_count,
                                  LKey{" [HDB]="}, hdb_path));
    WarnIfLargeCount(node_count);
    RestoreRecordArea(exit_flag, hdb, utility_->ToWide(hdb_path), restored);
  }
  loaded_ = true;

  uint64_t count = restored->load();
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

void CHashDBImpl::RestoreRecordArea(const std::atomic<bool>* exit_flag,
                                    const std::shared_ptr<CBuffer>& hdb,
                                    const std::wstring& path,
                                    const std::shared_ptr<std::atomic<uint64_t>>& restored) {
  const uint8_t* body = hdb->Data() + kHeaderSize;
  // The body length is taken in 32 bits: a body above 4 GiB wraps (kept as it is).
  auto body_length = static_cast<uint32_t>(hdb->Size() - kHeaderSize);
  const uint8_t* body_end = body + body_length;
  uint32_t threads = pool_->ThreadCount();
  if (threads == 0) threads = 1;
  uint32_t piece_length = body_length / threads;

  // Pieces are cut at record starts found from computed offsets, without parsing the records.
  std::vector<std::shared_ptr<CRestoreLeavesHelper>> helpers;
  for (const uint8_t* start = body; start < body_end;) {
    const uint8_t* begin = FindRecordStart(start, body_end);
    if (begin == body_end) {
      throw std::runtime_error(Compose(*this, "[HDBI,rmhdfd]HDB file corrupted-8.1.File=", Narrow(path)));
    }
    const uint8_t* from = static_cast<uint64_t>(body_end - start) > piece_length ? start + piece_length : body_end;
    const uint8_t* end = FindRecordStart(from, body_end);
    helpers.push_back(std::make_shared<CRestoreLeavesHelper>(exit_flag, begin, end, hdb_path_,
                                                             restored, time_service_));
    start = end;
  }

  std::shared_ptr<CHashDBImpl> self = shared_from_this();
  for (const std::shared_ptr<CRestoreLeavesHelper>& helper : helpers) {
    // The task keeps the database and the data alive while it reads, and lets go of both before
    // it reports done, so that a finished load leaves nothing of itself on the pool's threads.
    pool_->Submit([self, helper, data = std::shared_ptr<CBuffer>(hdb)]() mutable {
      self->RestoreLeaves(*helper);
      self.reset();
      data.reset();
      helper->MarkDone();
    });
  }
  LogDebug(*log_, Compose(*this, "Restore leaves worker thread(s)=", helpers.size()));
  LogDebug(*log_, Compose(*this, "Waiting all nodes to be restored,path=", hdb_path_text_));
  pool_->WaitAllFinished(0);  // lets a pool without threads run the tasks here
  for (const std::shared_ptr<CRestoreLeavesHelper>& helper : helpers) {
    if (!helper->Wait(restore_time_limit_ms_)) {
      std::string text = Compose(*this, "[hdbi,rlne] Please contact product manufacturer for technique support. path=",
                                 hdb_path_text_, pool_->StatusText());
      LogCritical(*log_, text, kEventRestoreTimeout);
      throw std::runtime_error(text);
    }
    LogDebug(*log_, Compose(*this, "One restore nodes thread exited,path=", hdb_path_text_));
  }
}

void CHashDBImpl::RestoreLeaves(CRestoreLeavesHelper& helper) {
  boost::interprocess::ibufferstream in(reinterpret_cast<const char*>(helper.begin),
                                        static_cast<size_t>(helper.length));
  uint64_t consumed = 0;
  CRestoreCursor cursor;
  utility_->Log(7, "[Thread:Restore Leave Nodes][Create]");
  try {
    while (consumed < helper.length) {
      try {
        RestoreRecord(in, consumed, cursor);
      } catch (const CBadObjNameError& e) {
        LogError(*log_, Compose(*this, "[HDBI,trln,son,bad obj name exception] info=", e.what()));
        continue;
      }
      uint64_t count = ++*helper.restored;
      if (count % kProgressEvery == 0) {
        LogDebug(*log_, Compose(*this, "[Thread:Restore Leave Nodes][Current-Leaves-Counter]=", count));
      }
      if (helper.exit_flag && helper.exit_flag->load()) {
        throw std::runtime_error("Restore leave nodes aborted because of: Policy need exit.");
      }
    }
  } catch (const Poco::Exception& e) {
    LogError(*log_, Compose(*this, "[HDBI,trln,PCE] code=", e.code(), ",info=", e.displayText()));
  } catch (const boost::system::system_error& e) {
    LogError(*log_, Compose(*this, "[HDBI,trln,BSTE] code=", e.code().category().name(), ":",
                            e.code().value(), ",info=", e.code().message()));
  } catch (const std::exception& e) {
    LogError(*log_, Compose(*this, "[HDBI,trln,STDE] info=", e.what()));
  } catch (...) {
    LogError(*log_, Compose(*this, "[HDBI,trln,OTHE]"));
  }
  // The hashes of every record read, also when the piece ended early.
  try {
    index_->AssignAndAddAll(cursor.assignments);
  } catch (const std::exception& e) {
    LogError(*log_, Compose(*this, "[HDBI,trln,STDE] info=", e.what()));
  }
  utility_->Log(7, "[Thread:Restore Leave Nodes][Exit]");
}

void CHashDBImpl::RestoreRecord(std::istream& in, uint64_t& consumed, CRestoreCursor& cursor) {
  uint8_t fixed[kRecordHeaderSize];
  bool complete = ReadExactly(in, fixed, kRecordHeaderSize, consumed);
  if (!complete || fixed[kRecordMarkOffset] != kRecordMark) {
    throw std::runtime_error(Compose(*this, "[HDBI,rlnk]HDB file corrupted-7.File=", hdb_path_text_));
  }
  CHdbRecordHeader record = CHdbRecordHeader::DecodeFrom(fixed);
  if (record.end_mark != kRecordEndMark) {
    throw std::runtime_error(Compose(*this, "[HDBI,rlnk]HDB file corrupted-8.File=", hdb_path_text_));
  }
  // A file starts with an empty hash text, a directory with none.
  std::shared_ptr<std::string> hash;
  if (record.directory == 0) hash = std::make_shared<std::string>();
  std::string variable(record.VariableLength(), '\0');
  if (!ReadExactly(in, variable.data(), variable.size(), consumed)) {
    // The record runs past the end of its piece.
    throw std::runtime_error(Compose(*this, "[HDBI,rlnk]HDB file corrupted-8.File=", hdb_path_text_));
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(variable.data());
  if (record.hash_length > 0) {
    hash = std::make_shared<std::string>(crypto_->BinaryToHashText(bytes, record.hash_length, 0));
  }
  size_t offset = record.hash_length;
  std::wstring relative;
  if (record.path_length > 0) {
    std::string stored = variable.substr(offset, record.path_length);
    relative = utility_->ToWide(utility_->AdaptPath(stored, platform_flag_));
  }
  offset += record.path_length;
  std::string security = variable.substr(offset, record.security_length);
  offset += record.security_length;
  std::string target = variable.substr(offset, record.target_length);

  if (record.directory == 0 && record.size == 0) {
    if (!hash) throw std::runtime_error(Compose(*this, "[HDBI,rlnk]Bad logic-1.File=", Narrow(relative)));
    if (hash->empty() && record.target_length == 0) {
      std::wstring full = JoinPath(root_path_, relative);
      if (!PathExistsInAnyForm(full, *utility_)) {
        LogNotice(*log_, Compose(*this, "File is NOT ready,we ignore it currently.File=", Narrow(full)));
        return;
      }
    }
  }

  // The same node as CreateOrGetNode(relative): the parent made or got as a path, then the child.
  std::shared_ptr<CHashNode> node = root_;
  if (!relative.empty()) {
    std::wstring_view parent_path = ParentPath(relative);
    if (!cursor.parent || parent_path != cursor.parent_path) {
      cursor.parent = CreateOrGetNode(parent_path);
      cursor.parent_path.assign(parent_path);
    }
    node = CreateOrGetChild(cursor.parent, FileName(relative), relative);
  }
  // Restore tasks run side by side, and a damaged file may hold two records of one path, so each
  // field is written under the lock that its readers take meanwhile: the kind under the parent's
  // lock (path making), the hash under the index lock, the rest under the node's own lock.
  {
    std::shared_ptr<CHashNode> parent = node->parent.lock();
    std::unique_lock<std::mutex> guard;
    if (parent) guard = std::unique_lock<std::mutex>(parent->lock);
    node->is_dir = record.directory != 0;
  }
  {
    std::lock_guard<std::mutex> guard(node->lock);
    node->time_2 = record.time_2;
    if (platform_matches_) {
      node->time_1 = record.time_1;
      node->attributes = record.attributes;
      node->security_attributes = std::move(security);
      node->target_path = std::move(target);
    }
    node->size = record.size;
  }
  cursor.assignments.emplace_back(std::move(node), std::move(hash));
}
