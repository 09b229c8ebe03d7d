#include "tool/fleet/fleet_spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "refhost/file_io.h"

namespace {

constexpr const char* kBatchSuffix = ".batch";

std::runtime_error SpoolError(const std::string& folder, const std::string& what) {
  return std::runtime_error("cannot " + what + " the fleet spool " + folder + ": " +
                            std::strerror(errno));
}

bool Exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

}  // namespace

const std::vector<std::string>& CFleetSpool::Tables() {
  static const std::vector<std::string> tables = {"records", "holders", "changes", "hosts"};
  return tables;
}

CFleetSpool::CFleetSpool(std::string data_folder)
    : folder_(std::move(data_folder) + "/fleet-spool") {}

void CFleetSpool::Make() const {
  if (::mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST) throw SpoolError(folder_, "make");
}

std::string CFleetSpool::Write(const std::map<std::string, std::string>& bodies) {
  Make();
  // Named by the clock and told apart by a counter: later batches sort after earlier ones.
  std::vector<std::string> waiting = Batches();
  auto now = std::chrono::system_clock::now().time_since_epoch();
  uint64_t stamp =
      static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
  if (!waiting.empty()) {
    uint64_t last = std::stoull(waiting.back().substr(0, waiting.back().find('-')));
    stamp = std::max(stamp, last + 1);
  }
  char digits[24];
  std::snprintf(digits, sizeof digits, "%020llu", static_cast<unsigned long long>(stamp));
  std::string name = std::string(digits) + "-" + std::to_string(::getpid());
  std::string partial = folder_ + "/" + name + ".partial";
  if (::mkdir(partial.c_str(), 0700) != 0) throw SpoolError(folder_, "write to");
  auto discard = [&] {
    for (const std::string& table : Tables()) ::unlink((partial + "/" + table + ".tsv").c_str());
    ::rmdir(partial.c_str());
  };
  for (const auto& [table, body] : bodies) {
    if (body.empty()) continue;
    if (std::find(Tables().begin(), Tables().end(), table) == Tables().end())
      throw std::logic_error("no fleet table " + table);
    std::ofstream out(partial + "/" + table + ".tsv", std::ios::binary | std::ios::trunc);
    out << body;
    out.flush();
    if (!out) {
      discard();
      throw SpoolError(folder_, "write to");
    }
  }
  std::string batch = name + kBatchSuffix;
  if (::rename(partial.c_str(), (folder_ + "/" + batch).c_str()) != 0) {
    discard();
    throw SpoolError(folder_, "write to");
  }
  return batch;
}

std::vector<std::string> CFleetSpool::Batches() const {
  std::vector<std::string> batches;
  DIR* directory = ::opendir(folder_.c_str());
  if (directory == nullptr) return batches;
  const size_t suffix = std::strlen(kBatchSuffix);
  while (dirent* entry = ::readdir(directory)) {
    std::string name = entry->d_name;
    if (name.size() > suffix && name.compare(name.size() - suffix, suffix, kBatchSuffix) == 0)
      batches.push_back(name);
  }
  ::closedir(directory);
  std::sort(batches.begin(), batches.end());
  return batches;
}

bool CFleetSpool::HoldsRecords(const std::string& batch) const {
  return Exists(folder_ + "/" + batch + "/records.tsv") ||
         Exists(folder_ + "/" + batch + "/holders.tsv");
}

std::string CFleetSpool::Body(const std::string& batch, const std::string& table) const {
  std::string path = folder_ + "/" + batch + "/" + table + ".tsv";
  if (!Exists(path)) return std::string();
  try {
    std::vector<uint8_t> bytes = ReadWholeFile(path);
    return std::string(bytes.begin(), bytes.end());
  } catch (const std::exception&) {
    if (!Exists(path)) return std::string();  // dropped while it was read
    throw;
  }
}

void CFleetSpool::Remove(const std::string& batch) {
  std::string path = folder_ + "/" + batch;
  for (const std::string& table : Tables()) ::unlink((path + "/" + table + ".tsv").c_str());
  ::rmdir(path.c_str());
}

CFleetSpoolLock::CFleetSpoolLock(const CFleetSpool& spool, CKind kind, bool wait) {
  if (::mkdir(spool.folder().c_str(), 0700) != 0 && errno != EEXIST)
    throw SpoolError(spool.folder(), "make");
  std::string path = spool.PathOf(kind == CKind::kWrite ? "lock" : "delivery");
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0) throw SpoolError(spool.folder(), "lock");
  int result;
  do {
    result = ::flock(fd_, LOCK_EX | (wait ? 0 : LOCK_NB));
  } while (result != 0 && errno == EINTR);
  held_ = result == 0;
  if (!held_ && (wait || errno != EWOULDBLOCK)) {
    ::close(fd_);
    fd_ = -1;
    throw SpoolError(spool.folder(), "lock");
  }
}

CFleetSpoolLock::~CFleetSpoolLock() {
  if (fd_ >= 0) ::close(fd_);  // closing lets the lock go
}
