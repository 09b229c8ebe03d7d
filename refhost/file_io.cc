#include "refhost/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "refhost/crash_point.h"
#include "refhost/file_descriptor.h"

namespace {

[[noreturn]] void Fail(const std::string& what, const std::string& path, int error) {
  throw std::runtime_error(what + " " + path + ": " + std::strerror(error));
}


}  // namespace

std::vector<uint8_t> ReadWholeFile(const std::string& path, uint64_t max_bytes) {
  CFileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) Fail("cannot open", path, errno);
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) Fail("cannot examine", path, errno);
  if (S_ISDIR(info.st_mode)) Fail("cannot read", path, EISDIR);
  uint64_t want = static_cast<uint64_t>(info.st_size);
  if (max_bytes != 0 && max_bytes < want) want = max_bytes;
  std::vector<uint8_t> bytes(want);
  uint64_t done = 0;
  while (done < want) {
    ssize_t n = ::read(fd.get(), bytes.data() + done, want - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      Fail("cannot read", path, errno);
    }
    if (n == 0) break;  // the file shrank meanwhile
    done += static_cast<uint64_t>(n);
  }
  bytes.resize(done);
  return bytes;
}

std::string ErrnoText(int error) {
  const char* name = ::strerrorname_np(error);
  return std::string(std::strerror(error)) + (name != nullptr ? std::string(" (") + name + ")" : std::string());
}

void SyncDirectoryOf(const std::string& path) {
  std::string directory = boost::filesystem::path(path).parent_path().string();
  if (directory.empty()) directory = ".";
  CFileDescriptor fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() >= 0) ::fsync(fd.get());
}

void WriteNewFile(const std::string& path, const void* data, uint64_t length, unsigned mode) {
  CFileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (fd.get() < 0) Fail("cannot create", path, errno);
  const char* bytes = static_cast<const char*>(data);
  uint64_t done = 0;
  while (done < length) {
    ssize_t n = ::write(fd.get(), bytes + done, length - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      ::unlink(path.c_str());
      Fail("cannot write", path, error);
    }
    done += static_cast<uint64_t>(n);
  }
  if (::fsync(fd.get()) != 0) {
    int error = errno;
    ::unlink(path.c_str());
    Fail("cannot sync", path, error);
  }
}

bool RemoveFile(const std::string& path) {
  if (::unlink(path.c_str()) == 0) return true;
  if (errno == ENOENT) return false;
  Fail("cannot delete", path, errno);
}

void WriteWholeFile(const std::string& path, const void* data, uint64_t length) {
  std::string temporary = path + ".writing";
  CrashPoint();
  ::unlink(temporary.c_str());  // a leftover of a run that died; never followed if it is a link
  WriteNewFile(temporary, data, length);
  CrashPoint();
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    int error = errno;
    ::unlink(temporary.c_str());
    Fail("cannot replace", path, error);
  }
  SyncDirectoryOf(path);
  CrashPoint();
}

void DurableRename(const std::string& from, const std::string& to) {
  {
    CFileDescriptor fd(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() >= 0) ::fsync(fd.get());
  }
  CrashPoint();
  if (::rename(from.c_str(), to.c_str()) != 0) Fail("cannot move " + from + " to", to, errno);
  SyncDirectoryOf(to);
  CrashPoint();
  if (boost::filesystem::path(from).parent_path() != boost::filesystem::path(to).parent_path()) {
    SyncDirectoryOf(from);
  }
}
