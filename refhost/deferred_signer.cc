#include "refhost/deferred_signer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "refhost/file_descriptor.h"
#include "refhost/file_io.h"
#include "util/text_conversion.h"

bool CDeferredSigner::Sign(const std::wstring& path, std::string& result, uint32_t, uint32_t) {
  try {
    std::vector<uint8_t> bytes = ReadWholeFile(WideToUtf8(path));
    ::unlink(candidate_path_.c_str());
    CFileDescriptor out(::open(candidate_path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out.valid()) {
      result = "cannot create " + candidate_path_ + ": " + std::strerror(errno);
      return false;
    }
    size_t written = 0;
    while (written < bytes.size()) {
      ssize_t n = ::write(out.get(), bytes.data() + written, bytes.size() - written);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        result = "cannot write " + candidate_path_ + ": " + std::strerror(errno);
        return false;
      }
      written += static_cast<size_t>(n);
    }
    if (::fsync(out.get()) != 0) {
      result = "cannot write " + candidate_path_ + ": " + std::strerror(errno);
      return false;
    }
    result = "signing deferred: the candidate is " + candidate_path_;
  } catch (const std::exception& e) {
    result = e.what();
  }
  return false;  // the module must not put an unsigned file in place
}
