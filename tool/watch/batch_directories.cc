#include "tool/watch/batch_directories.h"

#include <fcntl.h>

#include "refhost/file_obj_info.h"

int CBatchDirectories::Open(const std::string& relative) {
  if (!root_fd_.valid()) {
    root_fd_.Reset(::open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root_fd_.valid()) return -1;
  }
  if (relative.empty()) return root_fd_.get();
  if (last_fd_.valid() && relative == last_path_) return last_fd_.get();
  last_fd_.Reset(CRefFileObjInfo::OpenDirectoryBelow(root_fd_.get(), relative));
  last_path_ = last_fd_.valid() ? relative : std::string();
  return last_fd_.get();
}

void CBatchDirectories::Clear() {
  last_fd_.Reset();
  last_path_.clear();
  root_fd_.Reset();
}
