#include "cli/tree_scanner.h"

#include <dirent.h>

#include <algorithm>
#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "refhost/file_obj_info.h"
#include "refhost/ref_host.h"
#include "refhost/text_conversion.h"

namespace {

// One object still to read: its full path, and whether its directory listed it as a regular file.
struct CPendingObject {
  std::string path;
  bool likely_regular = false;
};

// The paths still to read, shared by the workers. A path counts as outstanding from the moment it
// is pushed until its worker has pushed its children, so "no path outstanding" means done.
class CWorkStack {
 public:
  void Push(std::vector<CPendingObject>&& objects) {
    if (objects.empty()) return;
    std::lock_guard<std::mutex> guard(lock_);
    outstanding_ += objects.size();
    for (CPendingObject& object : objects) stack_.push_back(std::move(object));
    ready_.notify_all();
  }
  // Waits for a path; false when everything is done or the walk was stopped.
  bool Pop(CPendingObject& object) {
    std::unique_lock<std::mutex> guard(lock_);
    ready_.wait(guard, [this] { return !stack_.empty() || outstanding_ == 0 || stopped_; });
    if (stopped_ || stack_.empty()) return false;
    object = std::move(stack_.back());
    stack_.pop_back();
    return true;
  }
  void Done() {
    std::lock_guard<std::mutex> guard(lock_);
    if (--outstanding_ == 0) ready_.notify_all();
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
  std::mutex lock_;
  std::condition_variable ready_;
  std::vector<CPendingObject> stack_;  // depth first: bounded by the entries along one path
  size_t outstanding_ = 0;
  bool stopped_ = false;
  std::exception_ptr error_;
};

// The names in a directory, "." and ".." left out.
bool ListDirectory(const std::string& path, const std::vector<std::string>& excluded,
                   std::vector<CPendingObject>& children, std::string& reason) {
  DIR* directory = ::opendir(path.c_str());
  if (directory == nullptr) {
    reason = std::string("cannot list: ") + std::strerror(errno);
    return false;
  }
  std::string prefix = path.back() == '/' ? path : path + "/";
  errno = 0;
  while (const struct dirent* entry = ::readdir(directory)) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    children.push_back(CPendingObject{prefix + name, entry->d_type == DT_REG});
    if (std::find(excluded.begin(), excluded.end(), children.back().path) != excluded.end()) children.pop_back();
  }
  bool ok = errno == 0;
  if (!ok) reason = std::string("cannot list: ") + std::strerror(errno);
  ::closedir(directory);
  return ok;
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

void CTreeScanner::Run(const CVisit& visit, const CProblem& problem) {
  CWorkStack work;
  work.Push({CPendingObject{root_, false}});
  std::mutex problem_lock;
  auto report = [&](const std::string& path, const std::string& reason) {
    counters_.unreadable.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard<std::mutex> guard(problem_lock);
    problem(Relative(path), reason);
  };
  CUtilityService& utility = *host_.Utility();
  CCfgService& cfg = *host_.Cfg();
  uint32_t policy_number = host_.settings().policy_number;
  auto worker = [&] {
    CPendingObject object;
    std::vector<CPendingObject> children;
    while (work.Pop(object)) {
      const std::string& path = object.path;
      try {
        std::shared_ptr<CRefFileObjInfo> info;
        std::string reason;
        try {
          info = CRefFileObjInfo::FromDisk(utility, cfg, wide_root_, Utf8ToWide(path), policy_number,
                                          object.likely_regular);
        } catch (const std::exception& e) {
          reason = e.what();
        }
        if (!info) {
          report(path, reason);
        } else if (!info->IsGone()) {  // vanished since it was listed: nothing to say
          counters_.objects.fetch_add(1, std::memory_order_relaxed);
          if (!info->IsDirectory() && info->TargetPath().empty()) {
            counters_.bytes.fetch_add(info->Size(), std::memory_order_relaxed);
          }
          visit(info);
          if (info->IsDirectory()) {
            children.clear();
            if (!ListDirectory(path, excluded_, children, reason)) report(path, reason);
            work.Push(std::move(children));
          }
        }
      } catch (...) {
        work.Stop(std::current_exception());
      }
      work.Done();
    }
  };
  std::vector<std::thread> workers;
  for (unsigned i = 1; i < threads_; ++i) workers.emplace_back(worker);
  worker();
  for (std::thread& thread : workers) thread.join();
  if (std::exception_ptr error = work.error()) std::rethrow_exception(error);
}
