// Loading: the header is checked, and the record area cut at record starts into pieces that
// restore tasks read in parallel on the host's pool; the hashes are indexed once all are read.

#include "hdbfile/hdb_loader.h"

#include <mutex>
#include <stdexcept>
#include <vector>

#include <boost/system/system_error.hpp>
#include <Poco/Exception.h>

#include "hashdb/annotated_locks.h"
#include "hashdb/bad_obj_name_error.h"
#include "hashdb/hash_node.h"
#include "hashdb/text_key.h"
#include "hashdb/wide_path.h"
#include "hdbfile/hdb_record.h"
#include "hdbfile/restore_leaves_helper.h"
#include "host/buffer.h"
#include "host/crypto_service.h"
#include "host/language.h"
#include "host/message.h"
#include "host/path_status.h"
#include "host/thread_pool.h"
#include "host/utility_service.h"

namespace {

constexpr uint64_t kProgressEvery = 10000;

}  // namespace

CHdbLoader::CHdbLoader(CHdbFileContext context, std::shared_ptr<CTreeBuilder> tree)
    : context_(std::move(context)), tree_(std::move(tree)) {}

bool CHdbLoader::ReadHeader(CBuffer& hdb, const std::string& path, CHdbHeader& header,
                            bool& platform_matches) {
  CLanguage& language = *context_.language;
  CLogService& log = *context_.log;
  if (hdb.Size() < kHeaderSize) {
    LogError(log, Compose(language, "[HDBI,rmhdfd]HDB file corrupted-0.[HDB]=", path));
    return false;
  }
  header = CHdbHeader::DecodeFrom(hdb.Data());
  const char* fault = nullptr;
  if (header.magic != kHdbMagic) {
    fault = "[HDBI,rmhdfd]HDB file corrupted-0.[HDB]=";
  } else if (header.version != kHdbVersion) {
    LogError(log, Compose(language, "[HDBI,rmhdfd]HDB file version is ",
                          LKey{header.version < kHdbVersion ? "older" : "newer"},
                          LKey{" than program.File = "}, path));
    return false;
  } else if (header.header_length > kHeaderSize) {
    fault = "[HDBI,rmhdfd]HDB file corrupted-1.[HDB]=";
  } else if (header.policy_number != context_.policy_number) {
    fault = "[HDBI,rmhdfd]HDB file corrupted-2.[HDB]=";
  } else if (header.policy_value != context_.digest_descriptor) {
    fault = "[HDBI,rmhdfd]HDB file corrupted-3.[HDB]=";
  }
  if (fault != nullptr) {
    LogError(log, Compose(language, fault, path));
    return false;
  }
  platform_matches = context_.utility->PlatformMatches(header.platform_flag != 0);
  if (!platform_matches) {
    LogWarning(log, Compose(language,
                            "[Attention] Attributes and security attributes are both ignored "
                            "because of current HDB file is generate from different OS "
                            "Platform.[HDB]=",
                            path));
  }
  if (header.revision == kNoRevision) {
    LogError(log, Compose(language, "[HDBI,rmhdfd]HDB file corrupted-6.[HDB]=", path));
    return false;
  }
  return true;
}

uint64_t CHdbLoader::Restore(const std::atomic<bool>* exit_flag, const std::shared_ptr<CBuffer>& hdb,
                             const std::string& path, const CHdbHeader& header, bool platform_matches) {
  CLanguage& language = *context_.language;
  CLogService& log = *context_.log;
  platform_matches_ = platform_matches;
  platform_flag_ = header.platform_flag != 0;
  auto restored = std::make_shared<std::atomic<uint64_t>>(0);
  const uint8_t* body = hdb->Data() + kHeaderSize;
  // The body length is taken in 32 bits: a body above 4 GiB wraps (kept as it is).
  auto body_length = static_cast<uint32_t>(hdb->Size() - kHeaderSize);
  const uint8_t* body_end = body + body_length;
  uint32_t threads = context_.pool->ThreadCount();
  if (threads == 0) threads = 1;
  uint32_t piece_length = body_length / threads;

  // Pieces are cut at record starts found from computed offsets, without parsing the records.
  std::vector<std::shared_ptr<CRestoreLeavesHelper>> helpers;
  for (const uint8_t* start = body; start < body_end;) {
    const uint8_t* begin = FindRecordStart(start, body_end);
    if (begin == body_end) {
      throw std::runtime_error(Compose(language, "[HDBI,rmhdfd]HDB file corrupted-8.1.File=",
                                       context_.utility->ToNarrow(context_.utility->ToWide(path))));
    }
    const uint8_t* from = static_cast<uint64_t>(body_end - start) > piece_length ? start + piece_length : body_end;
    const uint8_t* end = FindRecordStart(from, body_end);
    helpers.push_back(std::make_shared<CRestoreLeavesHelper>(exit_flag, begin, end, context_.hdb_path,
                                                             restored, context_.time_service));
    start = end;
  }

  std::shared_ptr<CHdbLoader> self = shared_from_this();
  for (const std::shared_ptr<CRestoreLeavesHelper>& helper : helpers) {
    // The task keeps the loader (and through it the tree) and the data alive while it reads, and
    // lets go of both before it reports done, so that a finished load leaves nothing of itself on
    // the pool's threads.
    context_.pool->Submit([self, helper, data = std::shared_ptr<CBuffer>(hdb)]() mutable {
      self->RestoreLeaves(*helper);
      self.reset();
      data.reset();
      helper->MarkDone();
    });
  }
  LogDebug(log, Compose(language, "Restore leaves worker thread(s)=", helpers.size()));
  LogDebug(log, Compose(language, "Waiting all nodes to be restored,path=", context_.hdb_path_text));
  context_.pool->WaitAllFinished(0);  // lets a pool without threads run the tasks here
  std::vector<CTreeBuilder::CPiece> pieces;
  for (const std::shared_ptr<CRestoreLeavesHelper>& helper : helpers) {
    if (!helper->Wait(context_.restore_time_limit_ms)) {
      std::string text = Compose(language, "[hdbi,rlne] Please contact product manufacturer for technique support. path=",
                                 context_.hdb_path_text, context_.pool->StatusText());
      LogCritical(log, text, kEventRestoreTimeout);
      throw std::runtime_error(text);
    }
    pieces.push_back(helper->TakePiece());
    LogDebug(log, Compose(language, "One restore nodes thread exited,path=", context_.hdb_path_text));
  }
  tree_->IndexRestored(pieces);
  return restored->load();
}

void CHdbLoader::RestoreLeaves(CRestoreLeavesHelper& helper) {
  CLanguage& language = *context_.language;
  CLogService& log = *context_.log;
  CPieceState piece;
  context_.utility->Log(7, "[Thread:Restore Leave Nodes][Create]");
  try {
    const uint8_t* position = helper.begin;
    while (position < helper.end) {
      CHdbRecordView record;
      switch (DecodeRecord(position, static_cast<size_t>(helper.end - position), record)) {
        case CHdbRecordFault::kNone:
          break;
        case CHdbRecordFault::kMark:
          throw std::runtime_error(Compose(language, "[HDBI,rlnk]HDB file corrupted-7.File=", context_.hdb_path_text));
        case CHdbRecordFault::kEndMark:
        case CHdbRecordFault::kTruncated:  // the record runs past the end of its piece
          throw std::runtime_error(Compose(language, "[HDBI,rlnk]HDB file corrupted-8.File=", context_.hdb_path_text));
      }
      position += record.length;  // consumed, also when the record is refused below
      try {
        RestoreRecord(record, piece);
      } catch (const CBadObjNameError& e) {
        LogError(log, Compose(language, "[HDBI,trln,son,bad obj name exception] info=", e.what()));
        continue;
      }
      uint64_t count = ++*helper.restored;
      if (count % kProgressEvery == 0) {
        LogDebug(log, Compose(language, "[Thread:Restore Leave Nodes][Current-Leaves-Counter]=", count));
      }
      if (helper.exit_flag && helper.exit_flag->load()) {
        throw std::runtime_error("Restore leave nodes aborted because of: Policy need exit.");
      }
    }
  } catch (const Poco::Exception& e) {
    LogError(log, Compose(language, "[HDBI,trln,PCE] code=", e.code(), ",info=", e.displayText()));
  } catch (const boost::system::system_error& e) {
    LogError(log, Compose(language, "[HDBI,trln,BSTE] code=", e.code().category().name(), ":",
                          e.code().value(), ",info=", e.code().message()));
  } catch (const std::exception& e) {
    LogError(log, Compose(language, "[HDBI,trln,STDE] info=", e.what()));
  } catch (...) {
    LogError(log, Compose(language, "[HDBI,trln,OTHE]"));
  }
  // The hashes of every record read, also when the piece ended early.
  try {
    tree_->PreparePiece(piece.read);
    helper.PutPiece(std::move(piece.read));
  } catch (const std::exception& e) {
    LogError(log, Compose(language, "[HDBI,trln,STDE] info=", e.what()));
  }
  context_.utility->Log(7, "[Thread:Restore Leave Nodes][Exit]");
}

void CHdbLoader::RestoreRecord(const CHdbRecordView& view, CPieceState& piece) {
  const CHdbRecordHeader& record = view.header;
  CUtilityService& utility = *context_.utility;
  // A file starts with an empty hash text, a directory with none.
  CSharedText hash;
  if (record.hash_length > 0) {
    hash = CSharedText::Make(context_.crypto->BinaryToHashText(
        reinterpret_cast<const uint8_t*>(view.hash.data()), record.hash_length, 0));
  } else if (record.directory == 0) {
    hash = CSharedText::Make("");
  }
  std::wstring relative;
  if (record.path_length > 0) relative = utility.ToWide(utility.AdaptPath(std::string(view.path), platform_flag_));

  if (record.directory == 0 && record.size == 0) {
    if (!hash) {
      throw std::runtime_error(Compose(*context_.language, "[HDBI,rlnk]Bad logic-1.File=", utility.ToNarrow(relative)));
    }
    if (hash->empty() && record.target_length == 0) {
      std::wstring full = JoinPath(context_.root_path, relative);
      if (!PathExistsInAnyForm(full, utility)) {
        LogNotice(*context_.log, Compose(*context_.language, "File is NOT ready,we ignore it currently.File=",
                                         utility.ToNarrow(full)));
        return;
      }
    }
  }

  // The same node as making the whole path: the parent made or got as a path, then the child.
  std::shared_ptr<CHashNode> node;
  if (relative.empty()) {
    node = tree_->Root();
  } else {
    std::wstring_view parent_path = ParentPath(relative);
    if (!piece.parent || parent_path != piece.parent_path) {
      piece.parent = tree_->MakePath(parent_path);
      piece.parent_path.assign(parent_path);
    }
    node = tree_->MakeChild(piece.parent, FileName(relative), relative);
  }
  // Restore tasks run side by side, and a damaged file may hold two records of one path, so each
  // field is written under the lock that its readers take meanwhile: the kind under the parent's
  // lock (path making reads it there), the rest under the node's own lock. The index is made only
  // once every task has ended, from the hash objects each node holds then.
  {
    std::shared_ptr<CHashNode> parent = node->parent.lock();
    std::unique_lock<CNodeLock> guard;
    if (parent) guard = std::unique_lock<CNodeLock>(parent->lock);
    node->is_dir = record.directory != 0;
  }
  if (platform_matches_ && piece.security.view() != view.security) piece.security = tree_->SecurityText(view.security);
  {
    CExclusiveGuard<CNodeLock> guard(node->lock);
    if (node->hash) piece.read.reassigned = true;
    node->hash = hash;
    node->time_2 = record.time_2;
    if (platform_matches_) {
      node->time_1 = record.time_1;
      node->attributes = record.attributes;
      node->security_attributes = piece.security;
      node->target_path = view.target;
    }
    node->size = record.size;
  }
  if (hash && !hash->empty()) {
    uint64_t prefix = CTextKey::PrefixOf(hash.view());
    piece.read.assignments.push_back(CTreeBuilder::CAssignment{prefix, node, std::move(hash)});
  }
}

void WarnIfLargeCount(const CHdbFileContext& context, uint64_t count) {
  constexpr uint64_t kLargeCount = 900000;
  if (!context.utility->Is32BitBuild() || count <= kLargeCount) return;
  LogWarning(*context.log, Compose(*context.language,
                                   "[Attention] It is strongly recommend than you should use 64-bit "
                                   "version(current product) because nodes need to restore/write ",
                                   count, LKey{" is larger than "}, kLargeCount, ",[HDB path]=",
                                   context.hdb_path_text));
}
