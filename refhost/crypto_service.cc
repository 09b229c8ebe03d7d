#include "refhost/crypto_service.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <sys/stat.h>
#include <unistd.h>
#ifdef _WIN32
#include <io.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "refhost/deferred_signer.h"
#include "refhost/file_descriptor.h"
#include "refhost/pkcs7.h"
#include "refhost/settings.h"
#include "util/text_conversion.h"

namespace {

constexpr size_t kReadBlock = 1 << 20;

#ifdef _WIN32
// Windows' C run-time has no positional read: a seek, then a read (a descriptor here is read by
// one thread at a time). Nor can it say where a sparse file's holes are: every byte is read.
constexpr bool kFindsHoles = false;
constexpr int kSeekData = 0, kSeekHole = 1;
int64_t ReadAt(int fd, void* into, size_t count, uint64_t offset) {
  if (::_lseeki64(fd, static_cast<int64_t>(offset), SEEK_SET) < 0) return -1;
  return ::_read(fd, into, static_cast<unsigned>(count));
}
bool FileSizeOf(int fd, uint64_t& size) {
  struct _stat64 status {};
  if (::_fstat64(fd, &status) != 0) return false;
  size = static_cast<uint64_t>(status.st_size);
  return true;
}
int64_t SeekTo(int, uint64_t, int) { return -1; }
void AdviseSequential(int, uint64_t) {}
int OpenForReading(const std::string& path) {
  return ::_wopen(Utf8ToWide(path).c_str(), _O_RDONLY | _O_BINARY);
}
#else
constexpr bool kFindsHoles = true;
constexpr int kSeekData = SEEK_DATA, kSeekHole = SEEK_HOLE;
int64_t ReadAt(int fd, void* into, size_t count, uint64_t offset) {
  return ::pread(fd, into, count, static_cast<off_t>(offset));
}
bool FileSizeOf(int fd, uint64_t& size) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return false;
  size = static_cast<uint64_t>(status.st_size);
  return true;
}
int64_t SeekTo(int fd, uint64_t from, int whence) { return ::lseek(fd, static_cast<off_t>(from), whence); }
void AdviseSequential(int fd, uint64_t length) {
  ::posix_fadvise(fd, 0, static_cast<off_t>(length), POSIX_FADV_SEQUENTIAL);
}
int OpenForReading(const std::string& path) { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW); }
#endif

// Each digest is fetched from the providers once and kept for the life of the process: a handle
// from EVP_sha256() and the like makes every EVP_DigestInit_ex fetch it again, which costs as much
// as hashing a small file.
const EVP_MD* Fetched(const char* name) {
  const EVP_MD* digest = EVP_MD_fetch(nullptr, name, nullptr);
  if (digest == nullptr) throw std::runtime_error(std::string("the digest ") + name + " is not available");
  return digest;
}

const EVP_MD* DigestOf(uint32_t policy_number) {
  switch (policy_number) {
    case 160: { static const EVP_MD* const digest = Fetched("SHA1"); return digest; }
    case 224: { static const EVP_MD* const digest = Fetched("SHA2-224"); return digest; }
    case 256: { static const EVP_MD* const digest = Fetched("SHA2-256"); return digest; }
    case 384: { static const EVP_MD* const digest = Fetched("SHA2-384"); return digest; }
    case 512: { static const EVP_MD* const digest = Fetched("SHA2-512"); return digest; }
    default:
      throw std::runtime_error("unsupported policy number " + std::to_string(policy_number) +
                               " (use 160, 224, 256, 384 or 512)");
  }
}

struct CDigestContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using CDigestContext = std::unique_ptr<EVP_MD_CTX, CDigestContextFree>;

CDigestContext StartDigest(uint32_t policy_number) {
  CDigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), DigestOf(policy_number), nullptr) != 1) {
    throw std::runtime_error("digest start failed");
  }
  return context;
}

std::string FinishDigest(EVP_MD_CTX* context) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context, digest, &length) != 1) throw std::runtime_error("digest failed");
  return HexText(digest, length);
}

}  // namespace

std::string HashOpenFile(int fd, uint32_t policy_number, const std::string& name) {
  uint64_t size = 0;
  if (!FileSizeOf(fd, size)) throw std::runtime_error("cannot examine " + name + ": " + std::strerror(errno));
  return HashOpenFilePrefix(fd, size, policy_number, name);
}

std::string HashOpenFilePrefix(int fd, uint64_t length, uint32_t policy_number, const std::string& name) {
  // A file of one block is read in one call: its holes, if any, read as zeros, the same bytes the
  // digest takes for them, and asking where they are or advising read-ahead would cost more
  // system calls than the read itself (most files of a system are this small).
  bool one_block = length <= kReadBlock;
  if (!one_block) AdviseSequential(fd, length);
  CDigestContext context = StartDigest(policy_number);
  // One block per thread, kept: hashing many small files should not cost an allocation each.
  thread_local std::unique_ptr<unsigned char[]> block(new unsigned char[kReadBlock]);
  static const std::vector<unsigned char> zeros(kReadBlock, 0);
  auto update = [&](const unsigned char* bytes, size_t count) {
    if (EVP_DigestUpdate(context.get(), bytes, count) != 1) throw std::runtime_error("digest failed for " + name);
  };
  auto shrank = [&](uint64_t offset) {
    return std::runtime_error("cannot read " + name + ": it shrank while being read (" + std::to_string(offset) +
                              " of " + std::to_string(length) + " bytes)");
  };
  // Where the file system says the next data or hole starts, within [from, length]. A file system
  // that cannot say treats the whole file as data; ENXIO for data means only a hole follows.
  auto seek = [&](uint64_t from, int whence) -> uint64_t {
    if (one_block || !kFindsHoles) return whence == kSeekData ? from : length;
    int64_t found = SeekTo(fd, from, whence);
    if (found >= 0) return std::clamp<uint64_t>(static_cast<uint64_t>(found), from, length);
    if (whence != kSeekData) return length;
    if (errno != ENXIO) return from;
    uint64_t now = 0;  // no data past "from": a hole up to the end, or the end itself
    if (FileSizeOf(fd, now) && now < length) throw shrank(from);
    return length;
  };
  uint64_t offset = 0;
  while (offset < length) {
    for (uint64_t data = seek(offset, kSeekData); offset < data;) {  // a hole: zeros, never read
      size_t count = static_cast<size_t>(std::min<uint64_t>(data - offset, kReadBlock));
      update(zeros.data(), count);
      offset += count;
    }
    if (offset >= length) break;
    uint64_t hole = seek(offset, kSeekHole);
    if (hole <= offset) hole = length;
    while (offset < hole) {
      size_t want = static_cast<size_t>(std::min<uint64_t>(hole - offset, kReadBlock));
      int64_t n = ReadAt(fd, block.get(), want, offset);
      if (n < 0) {
        if (errno == EINTR) continue;
        throw std::runtime_error("cannot read " + name + ": " + std::strerror(errno));
      }
      if (n == 0) throw shrank(offset);
      update(block.get(), static_cast<size_t>(n));
      offset += static_cast<uint64_t>(n);
    }
  }
  return FinishDigest(context.get());
}

std::string HashBytes(const void* bytes, size_t length, uint32_t policy_number) {
  CDigestContext context = StartDigest(policy_number);
  if (EVP_DigestUpdate(context.get(), bytes, length) != 1) throw std::runtime_error("digest failed");
  return FinishDigest(context.get());
}

CRefCryptoService::CRefCryptoService(const CRefSettings& settings)
    : local_cstm_id_(settings.local_cstm_id),
      local_lcs_id_(settings.local_lcs_id),
      trust_anchor_(settings.signer_chain) {}

uint32_t CRefCryptoService::DigestDescriptor(uint32_t policy_number) {
  return static_cast<uint32_t>(EVP_MD_get_type(DigestOf(policy_number)));
}

std::string CRefCryptoService::HashFile(const std::wstring& path, uint32_t policy_number) {
  std::string narrow = WideToUtf8(path);
  CFileDescriptor fd(OpenForReading(narrow));
  if (!fd.valid()) throw std::runtime_error("cannot open " + narrow + ": " + std::strerror(errno));
  return HashOpenFile(fd.get(), policy_number, narrow);
}

std::vector<uint8_t> CRefCryptoService::HashTextToBinary(const std::string& hash_text) {
  std::vector<uint8_t> bytes(hash_text.size() / 2);
  size_t length = 0;
  if (hash_text.size() % 2 != 0 ||
      OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), &length, hash_text.c_str(), '\0') != 1) {
    throw std::runtime_error("hash text is not hexadecimal: " + hash_text);
  }
  bytes.resize(length);
  return bytes;
}

std::string CRefCryptoService::BinaryToHashText(const uint8_t* bytes, uint64_t length, uint32_t) {
  return HexText(bytes, length);
}

std::shared_ptr<CSigner> CRefCryptoService::MakeSigner(const std::wstring& certificate,
                                                       const std::wstring& key,
                                                       const std::wstring& chain) {
  std::lock_guard<std::mutex> guard(passphrase_lock_);
  if (!deferred_candidate_.empty()) return std::make_shared<CDeferredSigner>(deferred_candidate_);
  return std::make_shared<CRefSigner>(WideToUtf8(certificate), WideToUtf8(key), WideToUtf8(chain), signer_passphrase_);
}

void CRefCryptoService::SetSignerPassphrase(std::string passphrase) {
  std::lock_guard<std::mutex> guard(passphrase_lock_);
  signer_passphrase_ = std::move(passphrase);
}

void CRefCryptoService::DeferSigningTo(std::string candidate_path) {
  std::lock_guard<std::mutex> guard(passphrase_lock_);
  deferred_candidate_ = std::move(candidate_path);
}

std::shared_ptr<CPkcs7Verifier> CRefCryptoService::MakeVerifier() {
  return std::make_shared<CRefPkcs7Verifier>(trust_anchor_, local_cstm_id_);
}

std::string CRefCryptoService::LocalCstmId() { return local_cstm_id_; }

std::string CRefCryptoService::LocalLcsId() { return local_lcs_id_; }

std::wstring CRefCryptoService::SignatureFilePath(const std::wstring& path) {
  return path + L".p7s";
}
