// Saving: the tree is written by the walk's workers into a temporary file whose header comes
// last; the file is signed and then moved, with its signature, over the HDB file.

#ifndef _WIN32
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#endif

#include <fstream>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "hashdb/hash_db_impl.h"
#include "hdbfile/hdb_file_context.h"
#include "hdbfile/hdb_header.h"
#include "hdbfile/hdb_record.h"
#include "hdbfile/write_leaves_helper.h"
#include "host/cfg_service.h"
#include "host/crypto_service.h"
#include "host/message.h"
#include "host/utility_service.h"

namespace {

constexpr uint64_t kWriterCapacity = 52428800;  // 50 MiB
constexpr size_t kMaxHashBytes = 256;  // one more than the length byte holds: kept on purpose
constexpr size_t kMaxTextBytes = 65535;

#ifdef _WIN32
// The temporary file, truncated.
class CTemporaryOutput {
 public:
  CTemporaryOutput(const std::wstring& path, CUtilityService&)
      : stream_(path, std::ios::binary | std::ios::out | std::ios::trunc) {}
  std::ostream& stream() { return stream_; }
  void Close() { stream_.close(); }

 private:
  std::ofstream stream_;
};
#else
// The temporary file, made anew: never opened through a symbolic link or over a file that
// appeared after the delete before it (O_EXCL | O_NOFOLLOW), readable by its owner only.
class CTemporaryOutput {
 public:
  CTemporaryOutput(const std::wstring& path, CUtilityService& utility)
      : fd_(::open(utility.ToNarrow(path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)),
        buffer_(fd_, std::ios::binary | std::ios::out),
        stream_(&buffer_) {
    if (fd_ < 0) stream_.setstate(std::ios::failbit);
  }
  std::ostream& stream() { return stream_; }
  // Flushes and closes; a failed flush or close (a full disk, say) leaves the stream failed.
  void Close() {
    if (fd_ < 0) return;
    if (buffer_.pubsync() != 0) stream_.setstate(std::ios::badbit);
    if (buffer_.close() == nullptr) stream_.setstate(std::ios::badbit);
    fd_ = -1;
  }

 private:
  int fd_;
  __gnu_cxx::stdio_filebuf<char> buffer_;  // owns fd_ once made
  std::ostream stream_;
};
#endif

}  // namespace

void CHashDBImpl::WriteNode(CBufferedWriter& writer, const std::shared_ptr<CHashNode>& node) {
  std::string path = RelativeTextOfNode(node);
  std::vector<uint8_t> hash;
  if (node->hash && !node->hash->empty()) hash = crypto_->HashTextToBinary(*node->hash);

  std::shared_ptr<CBuffer> buffer = utility_->MakeBuffer(1, kRecordHeaderSize, 0);
  CHdbRecordHeader record;
  record.directory = node->is_dir ? 1 : 0;
  record.attributes = node->attributes;
  record.time_1 = node->time_1;
  record.time_2 = node->time_2;
  // Not checked: a longer text is written whole while its length wraps (the format keeps this).
  record.security_length = static_cast<uint16_t>(node->security_attributes.size());
  if (node->target_path.size() > kMaxTextBytes) throw std::runtime_error("[HDBI,wn] bad size-4!");
  record.target_length = static_cast<uint16_t>(node->target_path.size());
  // A hash of exactly 256 bytes passes and is stored with length 0; files already written
  // depend on it.
  if (hash.size() > kMaxHashBytes) throw std::runtime_error("[HDBI,wn] bad size-2!");
  record.hash_length = static_cast<uint8_t>(hash.size());
  if (path.size() > kMaxTextBytes) throw std::runtime_error("[HDBI,wn] bad size-3!");
  record.path_length = static_cast<uint16_t>(path.size());
  record.size = node->size;
  record.EncodeTo(buffer->Data());

  std::lock_guard<std::mutex> guard(record_write_mutex_);
  writer.Write(buffer->Data(), kRecordHeaderSize);
  if (!hash.empty()) writer.Write(hash.data(), hash.size());
  writer.Write(path.data(), path.size());
  if (!node->security_attributes.empty()) {
    writer.Write(node->security_attributes.data(), node->security_attributes.size());
  }
  if (!node->target_path.empty()) writer.Write(node->target_path.data(), node->target_path.size());
}

void CHashDBImpl::ReplaceHdbFile() {
  std::wstring hdb_signature = crypto_->SignatureFilePath(hdb_path_);
  std::wstring temporary_signature = crypto_->SignatureFilePath(temporary_path_);
  // The results of the delete and of the two moves are not examined: the new files are complete
  // and signed by now, and the next load judges what it finds.
  utility_->DeleteFile(hdb_signature);
  utility_->MoveFile(temporary_path_, hdb_path_, 0, 1, 0);
  utility_->MoveFile(temporary_signature, hdb_signature, 0, 1, 0);
}

void CHashDBImpl::Save() {
  std::lock_guard<std::mutex> load_save(load_save_mutex_);
  LogInformation(*log_, Compose(*this, "Saving HDB,path=", hdb_path_text_));
  std::shared_ptr<CStopwatch> stopwatch = utility_->StartStopwatch();
  std::shared_lock<boost::shared_mutex> tree(tree_lock_);

  uint64_t stamp = 0;
  do {
    stamp = utility_->RandomStamp();
  } while (stamp == kNoRevision || stamp == revision_.load());

  utility_->DeleteFile(temporary_path_);
  CTemporaryOutput temporary(temporary_path_, *utility_);
  std::ostream& output = temporary.stream();
  if (!output) {
    throw std::runtime_error("[HDBI,smhdtd]HDB file open failed.File=" + Narrow(temporary_path_));
  }
  output.seekp(kHeaderSize);

  std::atomic<uint64_t> total_nodes{0};
  {
    auto helper = std::make_shared<CWriteLeavesHelper>(
        CWriteLeavesHelper{output, &total_nodes, utility_->MakeBufferedWriter(output, kWriterCapacity)});
    // The pool may release its tasks, and with them the visitor's share of the helper, after the
    // walk has ended and even after this save has returned. The writer refers to "output": it is
    // destroyed here, on every way out, never by a late release.
    struct CWriterDrop {
      CWriteLeavesHelper& helper;
      ~CWriterDrop() { helper.writer.reset(); }
    } drop{*helper};
    auto visitor = std::make_shared<CNodeVisitor>([this, helper](const std::shared_ptr<CHashNode>& node) {
      WriteNode(*helper->writer, node);
      helper->total_nodes->fetch_add(1);
      return true;
    });
    std::string prefix;
    TreeWalk(Text(prefix, "Saving HDB"), false, root_, visitor);
    helper->writer->Flush();
  }

  std::shared_ptr<CBuffer> header_buffer = utility_->MakeBuffer(1, kHeaderSize, 0);
  CHdbHeader header;
  header.platform_flag = utility_->PlatformValue() & 0xFF;
  header.second_flag = utility_->SecondPlatformValue() & 0xFF;
  header.policy_number = policy_number_;
  header.policy_value = digest_descriptor_;
  header.node_count = total_nodes.load();
  header.revision = stamp;
  header.EncodeTo(header_buffer->Data());
  output.seekp(0);
  output.write(reinterpret_cast<const char*>(header_buffer->Data()), kHeaderSize);
  WarnIfLargeCount(FileContext(), total_nodes.load());
  temporary.Close();
  if (!output) {
    throw std::runtime_error("[HDBI,smhdtd]HDB file write failed.File=" + Narrow(temporary_path_));
  }

  std::wstring chain = cfg_->SignerChain();
  std::wstring key = cfg_->SignerKey();
  std::wstring certificate = cfg_->SignerCertificate();
  std::shared_ptr<CSigner> signer = crypto_->MakeSigner(certificate, key, chain);
  std::string sign_result;
  // An unsigned file never replaces the HDB file: it could not be loaded again.
  if (!signer || !signer->Sign(temporary_path_, sign_result, 4, 0)) {
    throw std::runtime_error("[HDBI,smhdtd]HDB file sign failed.File=" + Narrow(temporary_path_) +
                             " " + sign_result);
  }

  ReplaceHdbFile();
  revision_.exchange(stamp);
  LogInformation(*log_, Compose(*this, "HDB saved.Total nodes=", total_nodes.load(),
                                stopwatch ? stopwatch->Report(total_nodes.load()) : std::string(),
                                ", path=", hdb_path_text_));
}
