// Saving: the tree is written by the walk's workers into a temporary file whose header comes
// last; the file is signed and then moved, with its signature, over the HDB file.

#include "hdbfile/hdb_saver.h"

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#ifdef _WIN32
#include <io.h>
#include "host/windows_api.h"
#endif

#include <atomic>
#include <fstream>
#include <stdexcept>

#include "hashdb/hash_node.h"
#include "hashdb/wide_path.h"
#include "hdbfile/hdb_header.h"
#include "hdbfile/hdb_record.h"
#include "host/cfg_service.h"
#include "host/crypto_service.h"
#include "host/language.h"
#include "host/message.h"
#include "host/utility_service.h"

namespace {

constexpr uint64_t kWriterCapacity = 52428800;  // 50 MiB
constexpr size_t kMaxHashBytes = 256;  // one more than the length byte holds: kept on purpose
constexpr size_t kMaxTextBytes = 65535;
constexpr size_t kBatchBytes = 256 * 1024;

std::atomic<uint64_t> saves_made{0};

// Opens the temporary file for writing, made anew: never opened through a symbolic link (or a
// reparse point) or over a file that appeared after the delete before it; on POSIX readable by
// its owner only, on Windows with the permissions its folder hands down. -1 when it cannot be.
int OpenNewFile(const std::wstring& path, [[maybe_unused]] CUtilityService& utility) {
#ifdef _WIN32
  HANDLE handle = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return -1;
  int fd = ::_open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_WRONLY | _O_BINARY);
  if (fd < 0) ::CloseHandle(handle);
  return fd;
#else
  return ::open(utility.ToNarrow(path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
#endif
}

// The temporary file as a stream.
class CTemporaryOutput {
 public:
  CTemporaryOutput(const std::wstring& path, CUtilityService& utility)
      : fd_(OpenNewFile(path, utility)), buffer_(fd_, std::ios::binary | std::ios::out), stream_(&buffer_) {
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

bool SameNode(const std::weak_ptr<CHashNode>& a, const std::weak_ptr<CHashNode>& b) {
  return !a.owner_before(b) && !b.owner_before(a);
}

}  // namespace

CHdbSaver::CHdbSaver(CHdbFileContext context, CTreeSource& tree)
    : context_(std::move(context)), tree_(tree), identity_(++saves_made) {}

CHdbSaver::CThreadBatch& CHdbSaver::BatchOfThisThread() {
  // Each worker thread finds its batch of the running save without a lock.
  thread_local uint64_t batch_identity = 0;
  thread_local CThreadBatch* batch = nullptr;
  if (batch_identity != identity_ || batch == nullptr) {
    std::lock_guard<std::mutex> guard(batches_mutex_);
    batches_.push_back(std::make_unique<CThreadBatch>());
    batch = batches_.back().get();
    batch_identity = identity_;
  }
  return *batch;
}

void CHdbSaver::Drain(CThreadBatch& batch) {
  if (batch.records.empty()) return;
  std::lock_guard<std::mutex> guard(record_write_mutex_);
  writer_->Write(batch.records.data(), batch.records.size());
  batch.records.clear();
}

void CHdbSaver::WriteNode(CThreadBatch& batch, const std::shared_ptr<CHashNode>& node) {
  std::string& path = batch.path;
  path.clear();
  if (!node->parent.expired()) {
    if (!SameNode(batch.directory, node->parent)) {
      batch.directory = node->parent;
      batch.directory_path = RelativeTextOf(node->parent.lock());
    }
    path = batch.directory_path;
    if (!path.empty()) path += static_cast<char>(kPreferredSeparator);
    path += node->name;
  }
  std::vector<uint8_t> hash;
  if (node->hash && !node->hash->empty()) hash = context_.crypto->HashTextToBinary(std::string(node->hash.view()));

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
  uint8_t fixed[kRecordHeaderSize];
  record.EncodeTo(fixed);

  // The whole record, or nothing of it, goes into the batch.
  std::string& out = batch.records;
  out.append(reinterpret_cast<const char*>(fixed), kRecordHeaderSize);
  out.append(reinterpret_cast<const char*>(hash.data()), hash.size());
  out.append(path);
  out.append(node->security_attributes.view());
  out.append(node->target_path.view());
  if (out.size() >= kBatchBytes) Drain(batch);
}

uint64_t CHdbSaver::WriteSigned(uint64_t stamp) {
  CUtilityService& utility = *context_.utility;
  utility.DeleteFile(context_.temporary_path);
  CTemporaryOutput temporary(context_.temporary_path, utility);
  std::ostream& output = temporary.stream();
  if (!output) {
    throw std::runtime_error("[HDBI,smhdtd]HDB file open failed.File=" + utility.ToNarrow(context_.temporary_path));
  }
  output.seekp(kHeaderSize);

  std::atomic<uint64_t> total_nodes{0};
  {
    writer_ = utility.MakeBufferedWriter(output, kWriterCapacity);
    // The writer refers to "output": it is dropped here, on every way out.
    struct CWriterDrop {
      std::shared_ptr<CBufferedWriter>& writer;
      ~CWriterDrop() { writer.reset(); }
    } drop{writer_};
    auto visitor = std::make_shared<CNodeVisitor>([this, &total_nodes](const std::shared_ptr<CHashNode>& node) {
      WriteNode(BatchOfThisThread(), node);
      total_nodes.fetch_add(1);
      return true;
    });
    std::string prefix;
    tree_.VisitAll(context_.language->Text(prefix, "Saving HDB"), visitor);
    // Every task has finished: the saving thread drains what each worker left.
    std::lock_guard<std::mutex> guard(batches_mutex_);
    for (const std::unique_ptr<CThreadBatch>& batch : batches_) Drain(*batch);
    writer_->Flush();
  }

  CHdbHeader header;
  header.platform_flag = utility.PlatformValue() & 0xFF;
  header.second_flag = utility.SecondPlatformValue() & 0xFF;
  header.policy_number = context_.policy_number;
  header.policy_value = context_.digest_descriptor;
  header.node_count = total_nodes.load();
  header.revision = stamp;
  uint8_t header_bytes[kHeaderSize];
  header.EncodeTo(header_bytes);
  output.seekp(0);
  output.write(reinterpret_cast<const char*>(header_bytes), kHeaderSize);
  WarnIfLargeCount(context_, total_nodes.load());
  temporary.Close();
  if (!output) {
    throw std::runtime_error("[HDBI,smhdtd]HDB file write failed.File=" + utility.ToNarrow(context_.temporary_path));
  }

  CCfgService& cfg = *context_.cfg;
  std::wstring chain = cfg.SignerChain();
  std::wstring key = cfg.SignerKey();
  std::wstring certificate = cfg.SignerCertificate();
  std::shared_ptr<CSigner> signer = context_.crypto->MakeSigner(certificate, key, chain);
  std::string sign_result;
  // An unsigned file never replaces the HDB file: it could not be loaded again.
  if (!signer || !signer->Sign(context_.temporary_path, sign_result, 4, 0)) {
    throw std::runtime_error("[HDBI,smhdtd]HDB file sign failed.File=" + utility.ToNarrow(context_.temporary_path) +
                             " " + sign_result);
  }
  return total_nodes.load();
}

void CHdbSaver::Replace() {
  std::wstring hdb_signature = context_.crypto->SignatureFilePath(context_.hdb_path);
  std::wstring temporary_signature = context_.crypto->SignatureFilePath(context_.temporary_path);
  // The results of the delete and of the two moves are not examined: the new files are complete
  // and signed by now, and the next load judges what it finds.
  context_.utility->DeleteFile(hdb_signature);
  context_.utility->MoveFile(context_.temporary_path, context_.hdb_path, 0, 1, 0);
  context_.utility->MoveFile(temporary_signature, hdb_signature, 0, 1, 0);
}
