// What the reference host records of an object's status on Windows, through the wide (W)
// functions: attribute flags and times from the file system, security from the object's security
// descriptor.

#include "refhost/file_status.h"

#include "host/windows_api.h"
#include "util/text_conversion.h"

// After windows.h: they need its types.
#include <aclapi.h>
#include <sddl.h>

namespace {

// 100-nanosecond intervals since 1601 to nanoseconds since 1970.
uint64_t FileTimeNs(const FILETIME& time) {
  constexpr uint64_t kEpochDifference = 116444736000000000ull;  // 1601 to 1970, in 100 ns
  uint64_t ticks = (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  return ticks < kEpochDifference ? 0 : (ticks - kEpochDifference) * 100;
}

}  // namespace

bool ReadPathStatus(const std::string& path, CPathStatus& status) {
  // The attributes of a name: for a symbolic link (a reparse point) its own, not its target's.
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!::GetFileAttributesExW(Utf8ToWide(path).c_str(), GetFileExInfoStandard, &data)) return false;
  status.attributes = data.dwFileAttributes;
  status.time_1 = FileTimeNs(data.ftCreationTime);
  status.time_2 = FileTimeNs(data.ftLastWriteTime);
  return true;
}

std::string PathSecurityAttributesText(const std::string& path) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  constexpr SECURITY_INFORMATION kWhat =
      OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
  std::wstring wide = Utf8ToWide(path);
  if (::GetNamedSecurityInfoW(wide.c_str(), SE_FILE_OBJECT, kWhat, nullptr, nullptr, nullptr, nullptr,
                              &descriptor) != ERROR_SUCCESS) {
    return std::string();
  }
  wchar_t* text = nullptr;
  ULONG length = 0;
  std::string sddl;
  if (::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, kWhat, &text,
                                                             &length)) {
    sddl = WideToUtf8(text);
    ::LocalFree(text);
  }
  ::LocalFree(descriptor);
  return sddl.empty() ? std::string() : "sddl=" + sddl;
}
