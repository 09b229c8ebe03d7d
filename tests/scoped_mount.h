#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

// A file system mounted for one test and unmounted (lazily) when it ends. Mounting needs root and a
// machine that allows it; when it cannot, reason() says why, for GTEST_SKIP.
class CScopedMount {
 public:
  explicit CScopedMount(const std::string& command_line, std::string where) : where_(std::move(where)) {
    if (::geteuid() != 0) {
      reason_ = "mounting needs root";
      return;
    }
    std::string quiet = command_line + " 2>/dev/null";
    if (std::system(quiet.c_str()) != 0) reason_ = "this machine does not allow: " + command_line;
  }
  ~CScopedMount() {
    if (reason_.empty()) std::system(("umount -l '" + where_ + "'").c_str());
  }
  const std::string& reason() const { return reason_; }

 private:
  std::string where_;
  std::string reason_;
};
