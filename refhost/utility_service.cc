#include "refhost/utility_service.h"

#include <Poco/Environment.h>
#include <Poco/NumberFormatter.h>
#include <openssl/rand.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include "refhost/crash_point.h"
#include "refhost/file_io.h"
#include "refhost/file_status.h"
#include "refhost/log_service.h"
#include "util/text_conversion.h"

namespace {

constexpr uint32_t kPlatformWindows = 0;
constexpr uint32_t kPlatformPosix = 1;
constexpr size_t kMaxNameBytes = 255;

// Measures from its creation; reports the elapsed time and the rate per second.
class CRefStopwatch : public CStopwatch {
 public:
  std::string Report(uint64_t count) override {
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    char text[96];
    double rate = seconds > 0 ? static_cast<double>(count) / seconds : 0.0;
    std::snprintf(text, sizeof text, " (%.3f s, %.0f/s)", seconds, rate);
    return text;
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Gathers writes in memory and hands them to the stream in blocks of up to "capacity" bytes.
class CRefBufferedWriter : public CBufferedWriter {
 public:
  CRefBufferedWriter(std::ostream& out, uint64_t capacity) : out_(out), capacity_(capacity) {}
  ~CRefBufferedWriter() override {
    try {
      Flush();
    } catch (...) {  // a destructor must not throw; the owner flushes explicitly to see errors
    }
  }

  void Write(const void* data, uint64_t length) override {
    const char* bytes = static_cast<const char*>(data);
    if (buffer_.size() + length > capacity_) Flush();
    if (length >= capacity_) {
      Put(bytes, length);
      return;
    }
    buffer_.insert(buffer_.end(), bytes, bytes + length);
  }

  void Flush() override {
    if (!buffer_.empty()) Put(buffer_.data(), buffer_.size());
    buffer_.clear();
    out_.flush();
    if (!out_) throw std::runtime_error("buffered writer: the output stream failed");
  }

 private:
  void Put(const char* bytes, uint64_t length) {
    out_.write(bytes, static_cast<std::streamsize>(length));
    if (!out_) throw std::runtime_error("buffered writer: the output stream failed");
  }

  std::ostream& out_;
  uint64_t capacity_;
  std::vector<char> buffer_;
};

char LowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

CRefUtilityService::CRefUtilityService(std::shared_ptr<CRefLogService> log, std::string sed_text)
    : log_(std::move(log)), sed_text_(std::move(sed_text)) {
  if (sed_text_.empty()) {
    sed_text_ = "signdb host=" + Poco::Environment::nodeName() + " os=" + Poco::Environment::osName();
  }
}

bool CRefUtilityService::IsValidName(const std::string& name) {
#ifdef _WIN32
  static const std::string kForbidden = "<>:\"/\\|?*";
  if (name.empty() || name.size() > kMaxNameBytes) return false;
  for (char c : name) {
    if (static_cast<unsigned char>(c) < 32 || kForbidden.find(c) != std::string::npos) return false;
  }
  return name.back() != ' ' && name.back() != '.';
#else
  return !name.empty() && name.size() <= kMaxNameBytes &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
#endif
}

std::string CRefUtilityService::AdaptPath(const std::string& path, bool platform_flag) {
  std::string adapted = path;
  bool written_on_windows = !platform_flag;
  if (written_on_windows && PlatformValue() == kPlatformPosix) {
    for (char& c : adapted) if (c == '\\') c = '/';
  } else if (!written_on_windows && PlatformValue() == kPlatformWindows) {
    for (char& c : adapted) if (c == '/') c = '\\';
  }
  return adapted;
}

bool CRefUtilityService::PlatformMatches(bool platform_flag) {
  return (platform_flag ? kPlatformPosix : kPlatformWindows) == PlatformValue();
}

std::string CRefUtilityService::FormatNumber(uint64_t value) { return std::to_string(value); }

void CRefUtilityService::Log(uint32_t level, const std::string& text) {
  uint32_t clamped = std::clamp<uint32_t>(level, Poco::Message::PRIO_FATAL, Poco::Message::PRIO_TRACE);
  log_->Write(static_cast<Poco::Message::Priority>(clamped), 0, text);
}

uint32_t CRefUtilityService::SecondPlatformValue() { return sizeof(void*) == 8 ? 1 : 0; }

uint32_t CRefUtilityService::PlatformValue() {
#ifdef _WIN32
  return kPlatformWindows;
#else
  return kPlatformPosix;
#endif
}

bool CRefUtilityService::Is32BitBuild() { return sizeof(void*) == 4; }

bool CRefUtilityService::HashEquals(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
  }
  return true;
}

uint32_t CRefUtilityService::PathAttributes(const std::wstring& path) {
  CPathStatus status;
  return ReadPathStatus(WideToUtf8(path), status) ? status.attributes : 0xFFFFFFFFu;
}

uint64_t CRefUtilityService::PathTime1(const std::wstring& path) {
  CPathStatus status;
  return ReadPathStatus(WideToUtf8(path), status) ? status.time_1 : ~0ull;
}

uint64_t CRefUtilityService::PathTime2(const std::wstring& path) {
  CPathStatus status;
  return ReadPathStatus(WideToUtf8(path), status) ? status.time_2 : ~0ull;
}

std::string CRefUtilityService::PathSecurityAttributes(const std::wstring& path, uint64_t) {
  return PathSecurityAttributesText(WideToUtf8(path));
}

std::string CRefUtilityService::ToNarrow(const std::wstring& wide) { return WideToUtf8(wide); }

std::wstring CRefUtilityService::ToWide(const std::string& narrow) { return Utf8ToWide(narrow); }

void CRefUtilityService::PrepareWrite(const std::wstring& path) {
  // The path library takes wide text as UTF-16 on Windows, and narrow text as bytes on POSIX; its
  // other conversions go through the process locale.
#ifdef _WIN32
  boost::filesystem::path parent = boost::filesystem::path(path).parent_path();
#else
  boost::filesystem::path parent = boost::filesystem::path(WideToUtf8(path)).parent_path();
#endif
  if (!parent.empty()) boost::filesystem::create_directories(parent);
}

std::shared_ptr<CStopwatch> CRefUtilityService::StartStopwatch() {
  return std::make_shared<CRefStopwatch>();
}

void CRefUtilityService::PresetNextStamp(uint64_t stamp) { preset_stamp_ = stamp; }

uint64_t CRefUtilityService::RandomStamp() {
  uint64_t preset = preset_stamp_.exchange(kNoStamp);
  if (preset != kNoStamp) return preset;
  uint64_t stamp = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&stamp), sizeof stamp) != 1) {
    throw std::runtime_error("the random generator failed");
  }
  return stamp;
}

std::string CRefUtilityService::SedText(uint32_t) { return sed_text_; }

bool CRefUtilityService::DeleteFile(const std::wstring& path) {
  std::string narrow = WideToUtf8(path);
  CrashPoint();
  try {
    if (!RemoveFile(narrow)) return true;  // nothing there: the outcome asked for
  } catch (const std::exception&) {
    return false;
  }
  SyncDirectoryOf(narrow);
  CrashPoint();
  return true;
}

bool CRefUtilityService::MoveFile(const std::wstring& from, const std::wstring& to, uint32_t,
                                  uint32_t, uint32_t) {
  try {
    DurableRename(WideToUtf8(from), WideToUtf8(to));
    return true;
  } catch (const std::exception& e) {
    log_->Write(Poco::Message::PRIO_WARNING, 0, e.what());
    return false;
  }
}

std::shared_ptr<CBuffer> CRefUtilityService::MakeBuffer(uint32_t, uint64_t size, uint32_t) {
  return std::make_shared<CRefBuffer>(size);
}

std::shared_ptr<CBuffer> CRefUtilityService::ReadFile(const std::wstring& path,
                                                      uint64_t max_bytes) {
  return std::make_shared<CRefBuffer>(ReadWholeFile(WideToUtf8(path), max_bytes));
}

bool CRefUtilityService::WriteFile(const std::wstring& path, const std::shared_ptr<CBuffer>& buffer,
                                   uint32_t a, uint32_t b) {
  if (!buffer) throw std::runtime_error("no buffer to write to " + WideToUtf8(path));
  return WriteBytes(path, buffer->Data(), buffer->Size(), a, b);
}

bool CRefUtilityService::WriteBytes(const std::wstring& path, const void* data, uint64_t length,
                                    uint32_t, uint32_t) {
  WriteWholeFile(WideToUtf8(path), data, length);
  return true;
}

std::shared_ptr<CBufferedWriter> CRefUtilityService::MakeBufferedWriter(std::ostream& out,
                                                                        uint64_t capacity) {
  return std::make_shared<CRefBufferedWriter>(out, capacity);
}

void CRefUtilityService::Message(uint32_t code, const std::string& text, uint32_t) {
  log_->Write(Poco::Message::PRIO_DEBUG, code, text);
}

bool CRefUtilityService::SecurityAttributesEqual(const std::string& a, const std::string& b) {
  return a == b;
}
