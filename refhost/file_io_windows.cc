// The whole-file helpers on Windows: paths are UTF-8 here and UTF-16 for the system, and every
// call goes to the wide (W) functions, so that no name depends on the process's code page.

#include "host/windows_api.h"

#include <cstring>
#include <stdexcept>

#include "refhost/crash_point.h"
#include "refhost/file_io.h"
#include "util/text_conversion.h"

namespace {

// Owns one handle and closes it when it goes.
class CHandle {
 public:
  explicit CHandle(HANDLE handle) : handle_(handle) {}
  ~CHandle() {
    if (valid()) ::CloseHandle(handle_);
  }
  CHandle(const CHandle&) = delete;
  CHandle& operator=(const CHandle&) = delete;
  HANDLE get() const { return handle_; }
  bool valid() const { return handle_ != INVALID_HANDLE_VALUE && handle_ != nullptr; }

 private:
  HANDLE handle_;
};

// The system's text for an error code, in the language of the system, without its line end.
std::string SystemErrorText(DWORD error) {
  wchar_t* text = nullptr;
  DWORD length = ::FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::wstring wide = length != 0 && text != nullptr ? std::wstring(text, length) : std::wstring();
  if (text != nullptr) ::LocalFree(text);
  while (!wide.empty() && (wide.back() == L'\n' || wide.back() == L'\r' || wide.back() == L'.')) {
    wide.pop_back();
  }
  std::string narrow = WideToUtf8(wide);
  return (narrow.empty() ? "error" : narrow) + " (" + std::to_string(error) + ")";
}

[[noreturn]] void Fail(const std::string& what, const std::string& path, DWORD error) {
  throw std::runtime_error(what + " " + path + ": " + SystemErrorText(error));
}

// Writes all of "data" to a handle; false with the system's error code when it cannot.
bool WriteAll(HANDLE handle, const void* data, uint64_t length, DWORD& error) {
  const char* bytes = static_cast<const char*>(data);
  uint64_t done = 0;
  while (done < length) {
    DWORD chunk = static_cast<DWORD>(std::min<uint64_t>(length - done, 1u << 30));
    DWORD written = 0;
    if (!::WriteFile(handle, bytes + done, chunk, &written, nullptr)) {
      error = ::GetLastError();
      return false;
    }
    done += written;
  }
  return true;
}

// Creates "path", which must not exist yet (a name that is there, a link included, refuses it),
// writes the bytes and flushes them to the disk.
void CreateDurableFile(const std::string& path, const void* data, uint64_t length) {
  std::wstring wide = Utf8ToWide(path);
  DWORD error = 0;
  bool written = false;
  {
    CHandle file(::CreateFileW(wide.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL,
                               nullptr));
    if (!file.valid()) Fail("cannot create", path, ::GetLastError());
    written = WriteAll(file.get(), data, length, error);
    if (written && !::FlushFileBuffers(file.get())) error = ::GetLastError();
  }  // closed here, before a failed file is deleted
  if (!written || error != 0) {
    ::DeleteFileW(wide.c_str());
    Fail(written ? "cannot sync" : "cannot write", path, error);
  }
}

}  // namespace

std::vector<uint8_t> ReadWholeFile(const std::string& path, uint64_t max_bytes) {
  // A folder cannot be opened this way (that takes FILE_FLAG_BACKUP_SEMANTICS): it is refused.
  CHandle file(::CreateFileW(Utf8ToWide(path).c_str(), GENERIC_READ,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                             FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file.valid()) Fail("cannot open", path, ::GetLastError());
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file.get(), &size)) Fail("cannot examine", path, ::GetLastError());
  uint64_t want = static_cast<uint64_t>(size.QuadPart);
  if (max_bytes != 0 && max_bytes < want) want = max_bytes;
  std::vector<uint8_t> bytes(want);
  uint64_t done = 0;
  while (done < want) {
    DWORD chunk = static_cast<DWORD>(std::min<uint64_t>(want - done, 1u << 30));
    DWORD read = 0;
    if (!::ReadFile(file.get(), bytes.data() + done, chunk, &read, nullptr)) {
      Fail("cannot read", path, ::GetLastError());
    }
    if (read == 0) break;  // the file shrank meanwhile
    done += read;
  }
  bytes.resize(done);
  return bytes;
}

std::string ErrnoText(int error) { return std::strerror(error); }

// A folder's entries are made durable with the move itself (MOVEFILE_WRITE_THROUGH): there is no
// folder to flush on Windows.
void SyncDirectoryOf(const std::string&) {}

void WriteWholeFile(const std::string& path, const void* data, uint64_t length) {
  std::string temporary = path + ".writing";
  std::wstring wide_temporary = Utf8ToWide(temporary);
  CrashPoint();
  // A leftover of a run that died; deleting a link deletes the link, never its target.
  ::DeleteFileW(wide_temporary.c_str());
  CreateDurableFile(temporary, data, length);
  CrashPoint();
  if (!::MoveFileExW(wide_temporary.c_str(), Utf8ToWide(path).c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    DWORD error = ::GetLastError();
    ::DeleteFileW(wide_temporary.c_str());
    Fail("cannot replace", path, error);
  }
  CrashPoint();
}

void WriteNewFile(const std::string& path, const void* data, uint64_t length, unsigned) {
  CreateDurableFile(path, data, length);
}

bool RemoveFile(const std::string& path) {
  if (::DeleteFileW(Utf8ToWide(path).c_str())) return true;
  DWORD error = ::GetLastError();
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return false;
  Fail("cannot delete", path, error);
}

void DurableRename(const std::string& from, const std::string& to) {
  {
    // Flushing takes write access; a file that cannot be opened so is moved as it is.
    CHandle file(::CreateFileW(Utf8ToWide(from).c_str(), GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (file.valid()) ::FlushFileBuffers(file.get());
  }
  CrashPoint();
  if (!::MoveFileExW(Utf8ToWide(from).c_str(), Utf8ToWide(to).c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    Fail("cannot move " + from + " to", to, ::GetLastError());
  }
  CrashPoint();
}
