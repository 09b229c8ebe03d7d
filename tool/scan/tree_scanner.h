#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class CPolicyRules;
class CRefFileObjInfo;
class CRefHost;

// Progress of a scan, read by the progress line while the workers count.
struct CScanCounters {
  std::atomic<uint64_t> objects{0};
  std::atomic<uint64_t> bytes{0};  // content bytes of the regular files hashed
  std::atomic<uint64_t> unreadable{0};
};

// Walks a root directory and everything below it on several threads: each object is read from
// disk (status, security attributes, link target, content hash) and handed to "visit", from
// whichever worker read it. Symbolic links are objects of their own, never followed. An object
// that cannot be read goes to "problem" instead and the walk goes on; a directory that cannot be
// listed is visited itself, then reported.
//
// Each object is reached through the open directory that listed it (openat, fstatat, no link
// followed), so a directory swapped for a link after its listing never leads the walk out of the
// root, and paths longer than PATH_MAX are walked like any other. A directory of another file
// system that holds the kernel's state (proc, sysfs, cgroup...) is neither recorded nor entered.
class CTreeScanner {
 public:
  using CVisit = std::function<void(const std::shared_ptr<CRefFileObjInfo>&)>;
  // The object's path, relative to the root, and the reason.
  using CProblem = std::function<void(const std::string& relative_path, const std::string& reason)>;

  CTreeScanner(CRefHost& host, std::string root, unsigned threads);

  // Leaves out the object at this full path and everything below it (the tool's own data folder,
  // when it lies inside the tree: it changes with every save).
  void Exclude(const std::string& path);

  // Returns when every object has been visited or reported. Exceptions thrown by "visit" stop the
  // walk and leave Run.
  void Run(const CVisit& visit, const CProblem& problem);

  // Leaves out what the policy's rules exclude (an excluded directory is not walked), and, unless
  // they let it cross mount points, every directory where another file system is mounted.
  // "rules" must outlive Run.
  void SetRules(const CPolicyRules* rules);

  // Runs "hook" with a directory's full path after it was examined and before it is listed: tests
  // change the tree in that window.
  void SetBeforeListingHook(std::function<void(const std::string& directory_path)> hook);

  const CScanCounters& counters() const { return counters_; }
  // The root-relative path of a full path below the root.
  std::string Relative(const std::string& path) const;

 private:
  CRefHost& host_;
  std::string root_;
  std::wstring wide_root_;
  unsigned threads_;
  std::vector<std::string> excluded_;
  std::function<void(const std::string&)> before_listing_hook_;
  const CPolicyRules* rules_ = nullptr;
  CScanCounters counters_;
};
