#pragma once

#include <string>
#include <utility>

#include "refhost/file_descriptor.h"

// The directories that a batch of reads goes through, kept open from one object to the next: a
// burst of new files lands in few directories, and walking to each from the root again costs
// more system calls than reading a small file does.
//
// Only for one batch: the watch service clears it before it takes in events again, so a
// directory renamed or replaced meanwhile is reached through its old descriptor for no longer
// than the batch, and the event that tells of the rename is applied right after.
class CBatchDirectories {
 public:
  explicit CBatchDirectories(std::string root) : root_(std::move(root)) {}

  // The directory "relative" ("" for the root), opened without following links below the root,
  // or -1 with errno set (see CRefFileObjInfo::OpenDirectoryBelow). Owned here until Clear.
  int Open(const std::string& relative);
  void Clear();

 private:
  std::string root_;
  CFileDescriptor root_fd_;
  std::string last_path_;
  CFileDescriptor last_fd_;
};
