#include "tool/store/content_store.h"

#include <Poco/DeflatingStream.h>
#include <Poco/InflatingStream.h>
#include <Poco/StreamCopier.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "refhost/crypto_service.h"
#include "refhost/file_descriptor.h"

CContentStore::CContentStore(std::string folder, uint32_t policy_number)
    : folder_(std::move(folder)), policy_number_(policy_number) {}

std::string CContentStore::PathOf(const std::string& hash) const {
  return folder_ + "/" + hash + ".gz";
}

std::optional<std::string> CContentStore::ReadText(const std::string& path) {
  CFileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) return std::nullopt;
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      static_cast<uint64_t>(status.st_size) > kLargest) {
    return std::nullopt;
  }
  std::string content;
  char buffer[65536];
  for (;;) {
    ssize_t length = ::read(fd.get(), buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return std::nullopt;
    if (length == 0) break;
    content.append(buffer, static_cast<size_t>(length));
    if (content.size() > kLargest) return std::nullopt;
  }
  if (content.find('\0') != std::string::npos) return std::nullopt;
  return content;
}

bool CContentStore::Keep(const std::string& hash, const std::string& content) {
  if (hash.empty() || hash.find('/') != std::string::npos ||
      HashBytes(content.data(), content.size(), policy_number_) != hash) {
    return false;
  }
  std::string path = PathOf(hash);
  if (::access(path.c_str(), F_OK) == 0) return true;
  if (::mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot make the content store " + folder_ + ": " +
                             std::strerror(errno));
  }
  // Written aside and moved in: a copy in place is always whole.
  std::string partial = path + ".tmp";
  {
    CFileDescriptor fd(
        ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid()) {
      throw std::runtime_error("cannot write " + partial + ": " + std::strerror(errno));
    }
    std::ostringstream compressed;
    {
      Poco::DeflatingOutputStream deflate(compressed, Poco::DeflatingStreamBuf::STREAM_GZIP);
      deflate << content;
      deflate.close();
    }
    const std::string bytes = compressed.str();
    if (::write(fd.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        ::fsync(fd.get()) != 0) {
      int error = errno;
      ::unlink(partial.c_str());
      throw std::runtime_error("cannot write " + partial + ": " + std::strerror(error));
    }
  }
  if (::rename(partial.c_str(), path.c_str()) != 0) {
    int error = errno;
    ::unlink(partial.c_str());
    throw std::runtime_error("cannot keep " + path + ": " + std::strerror(error));
  }
  return true;
}

CContentStore::CFound CContentStore::Find(const std::string& hash, std::string& content) const {
  if (hash.empty() || hash.find('/') != std::string::npos) return CFound::kMissing;
  std::ifstream in(PathOf(hash), std::ios::binary);
  if (!in) return CFound::kMissing;
  try {
    Poco::InflatingInputStream inflate(in, Poco::InflatingStreamBuf::STREAM_GZIP);
    std::ostringstream out;
    Poco::StreamCopier::copyStream(inflate, out);
    content = out.str();
  } catch (const std::exception&) {
    return CFound::kTampered;
  }
  if (HashBytes(content.data(), content.size(), policy_number_) != hash) return CFound::kTampered;
  return CFound::kFound;
}
