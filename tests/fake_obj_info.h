#pragma once

#include <memory>
#include <string>

#include "hashdb/obj_info.h"

// Object information whose every answer a test sets.
struct CFakeObjInfo : public CObjInfo {
  std::wstring relative;
  std::wstring path;
  bool is_dir = false;
  bool gone = false;
  uint64_t size = 0;
  uint64_t time_1 = 0xFFFFFFFFFFFFFFFFull;
  uint64_t time_2 = 0xFFFFFFFFFFFFFFFFull;
  uint32_t attributes = 0xFFFFFFFFu;
  std::string hash;
  std::string security;
  std::string description;
  std::string target;
  std::wstring target_wide;
  std::shared_ptr<std::string> recorded;
  int recorded_calls = 0;

  bool IsDirectory() override { return is_dir; }
  std::wstring RelativePath() override { return relative; }
  std::wstring Path() override { return path; }
  bool IsGone() override { return gone; }
  std::wstring TargetWidePath() override { return target_wide; }
  uint64_t Size() override { return size; }
  uint64_t Time1() override { return time_1; }
  uint64_t Time2() override { return time_2; }
  uint32_t Attributes() override { return attributes; }
  std::string HashText() override { return hash; }
  std::string SecurityAttributes() override { return security; }
  std::string Description() override { return description; }
  std::string TargetPath() override { return target; }
  void TakeRecordedHash(const std::shared_ptr<std::string>& value) override {
    recorded = value;
    ++recorded_calls;
  }

  static std::shared_ptr<CFakeObjInfo> File(const std::wstring& relative, const std::string& hash,
                                            uint64_t size = 1) {
    auto info = std::make_shared<CFakeObjInfo>();
    info->relative = relative;
    info->path = L"/root/" + relative;
    info->hash = hash;
    info->size = size;
    info->attributes = 0100644;
    info->time_1 = 100;
    info->time_2 = 200;
    info->security = "owner=0 group=0 mode=0644";
    return info;
  }
  static std::shared_ptr<CFakeObjInfo> Directory(const std::wstring& relative) {
    auto info = std::make_shared<CFakeObjInfo>();
    info->relative = relative;
    info->path = L"/root/" + relative;
    info->is_dir = true;
    info->attributes = 040755;
    info->time_1 = 100;
    info->time_2 = 200;
    info->security = "owner=0 group=0 mode=0755";
    return info;
  }
};
