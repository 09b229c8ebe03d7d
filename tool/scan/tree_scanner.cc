#include "tool/scan/tree_scanner.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "refhost/file_descriptor.h"
#include "refhost/file_obj_info.h"
#include "refhost/ref_host.h"
#include "tool/change/object_state.h"
#include "tool/rules/policy_rules.h"
#include "util/text_conversion.h"

namespace {

// One object still to read: the open directory that listed it and its name there, its full path
// (for messages and the report; no call goes by it), the file system of that directory, and
// whether the directory listed it as a regular file. The directory stays open while any of its
// entries waits, so that what is read below it is below what was examined, whatever is renamed
// or replaced meanwhile.
struct CPendingObject {
  std::shared_ptr<const CFileDescriptor> directory;
  std::string name;
  std::string path;
  uint64_t directory_device = 0;
  bool is_root = false;
  bool likely_regular = false;
};

// The objects still to read, shared by the workers. An object counts as outstanding from the
// moment it is pushed until its worker has pushed its children, so "none outstanding" means done.
class CWorkStack {
 public:
  void Push(std::vector<CPendingObject>&& objects) {
    if (objects.empty()) return;
    std::lock_guard<std::mutex> guard(lock_);
    outstanding_ += objects.size();
    for (CPendingObject& object : objects) stack_.push_back(std::move(object));
    ready_.notify_all();
  }
  // Waits for objects and takes up to kBatch of them, never more than half of those waiting (the
  // other workers get the rest); false when everything is done or the walk was stopped. Taking
  // them by batches spares a lock round trip per object, which the workers would contend for.
  bool Pop(std::vector<CPendingObject>& batch) {
    batch.clear();
    std::unique_lock<std::mutex> guard(lock_);
    ready_.wait(guard, [this] { return !stack_.empty() || outstanding_ == 0 || stopped_; });
    if (stopped_ || stack_.empty()) return false;
    size_t take = std::min(kBatch, (stack_.size() + 1) / 2);
    for (size_t i = 0; i < take; ++i) {
      batch.push_back(std::move(stack_.back()));
      stack_.pop_back();
    }
    return true;
  }
  // "count" objects are read and their children pushed.
  void Done(size_t count) {
    std::lock_guard<std::mutex> guard(lock_);
    outstanding_ -= count;
    if (outstanding_ == 0) ready_.notify_all();
  }
  void Stop(std::exception_ptr error) {
    std::lock_guard<std::mutex> guard(lock_);
    if (!error_) error_ = error;
    stopped_ = true;
    ready_.notify_all();
  }
  std::exception_ptr error() {
    std::lock_guard<std::mutex> guard(lock_);
    return error_;
  }

 private:
  static constexpr size_t kBatch = 16;

  std::mutex lock_;
  std::condition_variable ready_;
  std::vector<CPendingObject> stack_;  // depth first: bounded by the entries along one path
  size_t outstanding_ = 0;
  bool stopped_ = false;
  std::exception_ptr error_;
};

// The names in an open directory, "." and ".." left out, as entries that share it.
bool ListDirectory(const std::shared_ptr<const CFileDescriptor>& directory, const std::string& path,
                   uint64_t device, const std::vector<std::string>& excluded,
                   std::vector<CPendingObject>& children, std::string& reason) {
  // fdopendir takes the descriptor over: give it a copy, so the entries keep the original.
  int copy = ::fcntl(directory->get(), F_DUPFD_CLOEXEC, 0);
  DIR* listing = copy < 0 ? nullptr : ::fdopendir(copy);
  if (listing == nullptr) {
    reason = std::string("cannot list: ") + std::strerror(errno);
    if (copy >= 0) ::close(copy);
    return false;
  }
  std::string prefix = path.back() == '/' ? path : path + "/";
  errno = 0;
  while (const struct dirent* entry = ::readdir(listing)) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    std::string child_path = prefix + name;
    if (std::find(excluded.begin(), excluded.end(), child_path) != excluded.end()) continue;
    children.push_back(CPendingObject{directory, name, std::move(child_path), device, false,
                                      entry->d_type == DT_REG});
  }
  bool ok = errno == 0;
  if (!ok) reason = std::string("cannot list: ") + std::strerror(errno);
  ::closedir(listing);
  return ok;
}

// File systems that hold no files of their own but the kernel's state: never walked into from a
// directory of another file system (a /proc mounted below a root would never end).
bool IsPseudoFileSystem(int fd) {
  struct statfs info {};
  if (::fstatfs(fd, &info) != 0) return false;
  switch (static_cast<unsigned long>(info.f_type)) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEVPTS_SUPER_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case PSTOREFS_MAGIC:
    case BPF_FS_MAGIC:
    case 0x62656570UL:  // configfs
    case 0x65735543UL:  // fusectl
    case 0x19800202UL:  // mqueue
    case HUGETLBFS_MAGIC:
    case AUTOFS_SUPER_MAGIC:
    case BINFMTFS_MAGIC:
    case EFIVARFS_MAGIC:
    case SELINUX_MAGIC:
    case NSFS_MAGIC:
      return true;
    default:
      return false;
  }
}

// Every directory along the walk may stay open while its entries wait: let the process keep as
// many descriptors as its hard limit allows, so deep trees are walked, not refused.
void RaiseDescriptorLimit() {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// The root, as an entry of its open parent.
CPendingObject RootObject(const std::string& root) {
  std::string name;
  auto directory = std::make_shared<CFileDescriptor>(OpenParentOfRoot(root, name));
  return CPendingObject{directory, name, root, 0, true, false};
}

}  // namespace

CTreeScanner::CTreeScanner(CRefHost& host, std::string root, unsigned threads)
    : host_(host), root_(std::move(root)), threads_(threads) {
  while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
  wide_root_ = Utf8ToWide(root_);
  if (threads_ == 0) threads_ = std::max(1u, std::thread::hardware_concurrency());
}

void CTreeScanner::Exclude(const std::string& path) {
  std::string normal = boost::filesystem::path(path).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  if (normal != root_) excluded_.push_back(normal);
}

std::string CTreeScanner::Relative(const std::string& path) const {
  if (path.size() <= root_.size()) return std::string();
  size_t skip = root_.size() + (root_.back() == '/' ? 0 : 1);
  return path.substr(skip);
}

void CTreeScanner::SetRules(const CPolicyRules* rules) { rules_ = rules; }

void CTreeScanner::SetBeforeListingHook(std::function<void(const std::string&)> hook) {
  before_listing_hook_ = std::move(hook);
}

void CTreeScanner::Run(const CVisit& visit, const CProblem& problem) {
  static const bool raised = (RaiseDescriptorLimit(), true);
  (void)raised;
  CWorkStack work;
  work.Push({RootObject(root_)});
  std::mutex problem_lock;
  auto report = [&](const std::string& path, const std::string& reason) {
    counters_.unreadable.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard<std::mutex> guard(problem_lock);
    problem(Relative(path), reason);
  };
  CUtilityService& utility = *host_.Utility();
  CCfgService& cfg = *host_.Cfg();
  uint32_t policy_number = host_.settings().policy_number;
  // Reads one object and lists it when it is a directory; false when the walk must stop.
  auto read = [&](CPendingObject& object, std::vector<CPendingObject>& children) -> bool {
    const std::string& path = object.path;
    // Most objects are decided by their path alone; an excluded one is not even examined.
    CPolicyRules::CVerdict verdict = rules_ == nullptr || object.is_root
                                         ? CPolicyRules::CVerdict::kKept
                                         : rules_->VerdictBeforeKind(Relative(path));
    if (verdict == CPolicyRules::CVerdict::kExcluded) return true;
    try {
      std::shared_ptr<CRefFileObjInfo> info;
      std::string reason;
      CFileDescriptor opened;
      try {
        info = CRefFileObjInfo::AtDirectory(utility, cfg, wide_root_, Utf8ToWide(path),
                                            policy_number, object.directory->get(), object.name,
                                            object.likely_regular, &opened);
      } catch (const std::exception& e) {
        reason = e.what();
      }
      bool mounted_here = info && info->IsDirectory() && !object.is_root &&
                          info->Device() != object.directory_device;
      if (!info) {
        report(path, reason);
      } else if (info->IsGone()) {
        // vanished since it was listed: nothing to say
      } else if (mounted_here && opened.valid() && IsPseudoFileSystem(opened.get())) {
        // the kernel's state, not files: neither recorded nor entered
      } else if (mounted_here && (rules_ == nullptr || !rules_->cross_mounts())) {
        // another file system: the policy stays on its root's unless its rules say otherwise
      } else if (verdict == CPolicyRules::CVerdict::kByKind &&
                 rules_->Excluded(Relative(path), KindOfObject(*info))) {
        // excluded by a rule: not recorded, not walked
      } else {
        counters_.objects.fetch_add(1, std::memory_order_relaxed);
        if (!info->IsDirectory() && info->TargetPath().empty()) {
          counters_.bytes.fetch_add(info->Size(), std::memory_order_relaxed);
        }
        visit(info);
        if (info->IsDirectory()) {
          children.clear();
          if (!opened.valid()) {
            // Examined without being opened (no permission to read it, say): say why it is not
            // listed.
            CFileDescriptor again(
                ::openat(object.directory->get(), object.name.c_str(),
                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
            report(path, again.valid() ? "cannot list: it changed while being read"
                                       : std::string("cannot list: ") + std::strerror(errno));
          } else {
            if (before_listing_hook_) before_listing_hook_(path);
            auto directory = std::make_shared<const CFileDescriptor>(opened.release());
            if (!ListDirectory(directory, path, info->Device(), excluded_, children, reason))
              report(path, reason);
            work.Push(std::move(children));
          }
        }
      }
      object.directory.reset();  // the parent closes once its last entry is read
    } catch (...) {
      work.Stop(std::current_exception());
      return false;
    }
    return true;
  };
  auto worker = [&] {
    std::vector<CPendingObject> batch;
    std::vector<CPendingObject> children;
    while (work.Pop(batch)) {
      for (CPendingObject& object : batch) {
        if (!read(object, children)) break;
      }
      work.Done(batch.size());
    }
  };
  std::vector<std::thread> workers;
  for (unsigned i = 1; i < threads_; ++i) workers.emplace_back(worker);
  worker();
  for (std::thread& thread : workers) thread.join();
  if (std::exception_ptr error = work.error()) std::rethrow_exception(error);
}
