#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "host/utility_service.h"

class CRefLogService;

// A buffer of bytes in memory.
class CRefBuffer : public CBuffer {
 public:
  explicit CRefBuffer(uint64_t size) : bytes_(size) {}
  explicit CRefBuffer(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  uint8_t* Data() override { return bytes_.data(); }
  uint64_t Size() override { return bytes_.size(); }
  bool Empty() override { return bytes_.empty(); }
  std::vector<uint8_t>& Bytes() { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

// The reference host's general helpers on POSIX file systems.
class CRefUtilityService : public CUtilityService {
 public:
  // "log" receives the utility's own log lines and message output; it must outlive this service.
  CRefUtilityService(std::shared_ptr<CRefLogService> log, std::string sed_text);

  bool IsValidName(const std::string& name) override;
  std::string AdaptPath(const std::string& path, bool platform_flag) override;
  bool PlatformMatches(bool platform_flag) override;
  std::string FormatNumber(uint64_t value) override;
  void Log(uint32_t level, const std::string& text) override;
  uint32_t SecondPlatformValue() override;
  uint32_t PlatformValue() override;
  bool Is32BitBuild() override;
  bool HashEquals(const std::string& a, const std::string& b) override;
  uint32_t PathAttributes(const std::wstring& path) override;
  uint64_t PathTime1(const std::wstring& path) override;
  uint64_t PathTime2(const std::wstring& path) override;
  std::string PathSecurityAttributes(const std::wstring& path, uint64_t setting) override;
  std::string ToNarrow(const std::wstring& wide) override;
  std::wstring ToWide(const std::string& narrow) override;
  void PrepareWrite(const std::wstring& path) override;
  std::shared_ptr<CStopwatch> StartStopwatch() override;
  uint64_t RandomStamp() override;
  // The next RandomStamp() returns "stamp" (once): the tool learns a save's revision before the
  // save, so that it can tell an interrupted save from a database put back.
  void PresetNextStamp(uint64_t stamp);
  std::string SedText(uint32_t kind) override;
  bool DeleteFile(const std::wstring& path) override;
  bool MoveFile(const std::wstring& from, const std::wstring& to, uint32_t a, uint32_t b,
                uint32_t c) override;
  std::shared_ptr<CBuffer> MakeBuffer(uint32_t a, uint64_t size, uint32_t b) override;
  std::shared_ptr<CBuffer> ReadFile(const std::wstring& path, uint64_t max_bytes) override;
  bool WriteFile(const std::wstring& path, const std::shared_ptr<CBuffer>& buffer, uint32_t a,
                 uint32_t b) override;
  bool WriteBytes(const std::wstring& path, const void* data, uint64_t length, uint32_t a,
                  uint32_t b) override;
  std::shared_ptr<CBufferedWriter> MakeBufferedWriter(std::ostream& out,
                                                      uint64_t capacity) override;
  void Message(uint32_t code, const std::string& text, uint32_t trailer) override;
  bool SecurityAttributesEqual(const std::string& a, const std::string& b) override;

 private:
  static constexpr uint64_t kNoStamp = ~0ull;
  std::shared_ptr<CRefLogService> log_;
  std::string sed_text_;
  std::atomic<uint64_t> preset_stamp_{kNoStamp};
};
