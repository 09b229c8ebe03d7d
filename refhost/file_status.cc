#include "refhost/file_status.h"

#include <acl/libacl.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/acl.h>
#include <sys/capability.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <vector>

#include "refhost/security_text.h"

namespace {

using security_text::CSecurityItems;

constexpr std::string_view kAccessAclName = "system.posix_acl_access";
constexpr std::string_view kDefaultAclName = "system.posix_acl_default";
constexpr std::string_view kCapabilityName = "security.capability";
constexpr std::string_view kSelinuxName = "security.selinux";

// Reads extended attributes through a descriptor when there is one, else by path (never following
// a symbolic link).
class CXattrReader {
 public:
  CXattrReader(const std::string& path, int fd) : path_(path), fd_(fd) {}

  // The attribute names, NUL-separated; empty when there are none or the file system has none.
  std::vector<char> Names() const {
    std::vector<char> names(1024);
    for (int attempt = 0; attempt < 4; ++attempt) {
      ssize_t length = fd_ >= 0 ? ::flistxattr(fd_, names.data(), names.size())
                                : ::llistxattr(path_.c_str(), names.data(), names.size());
      if (length >= 0) {
        names.resize(static_cast<size_t>(length));
        return names;
      }
      if (errno != ERANGE) break;
      ssize_t needed = fd_ >= 0 ? ::flistxattr(fd_, nullptr, 0) : ::llistxattr(path_.c_str(), nullptr, 0);
      if (needed < 0) break;
      names.resize(static_cast<size_t>(needed) + 64);
    }
    return {};
  }

  // The value of one attribute; false when it went away meanwhile or cannot be read.
  bool Value(const char* name, std::string& value) const {
    char small[256];
    ssize_t length = fd_ >= 0 ? ::fgetxattr(fd_, name, small, sizeof small)
                              : ::lgetxattr(path_.c_str(), name, small, sizeof small);
    if (length >= 0) {
      value.assign(small, static_cast<size_t>(length));
      return true;
    }
    for (int attempt = 0; attempt < 4 && errno == ERANGE; ++attempt) {
      ssize_t needed = fd_ >= 0 ? ::fgetxattr(fd_, name, nullptr, 0) : ::lgetxattr(path_.c_str(), name, nullptr, 0);
      if (needed < 0) return false;
      value.resize(static_cast<size_t>(needed));
      length = fd_ >= 0 ? ::fgetxattr(fd_, name, value.data(), value.size())
                        : ::lgetxattr(path_.c_str(), name, value.data(), value.size());
      if (length >= 0) {
        value.resize(static_cast<size_t>(length));
        return true;
      }
    }
    return false;
  }

 private:
  const std::string& path_;
  int fd_;
};

// An ACL as getfacl abbreviates it, numeric ids, comma-separated; empty when it is only what the
// mode bits say already. Frees the ACL.
std::string AclText(acl_t acl, bool is_default) {
  if (acl == nullptr) return std::string();
  std::string text;
  if (is_default ? acl_entries(acl) > 0 : acl_equiv_mode(acl, nullptr) != 0) {
    char* acl_text = acl_to_any_text(acl, nullptr, ',', TEXT_ABBREVIATE | TEXT_NUMERIC_IDS);
    if (acl_text != nullptr) {
      text = acl_text;
      acl_free(acl_text);
    }
  }
  acl_free(acl);
  return text;
}

// The capability text as getcap shows it, or empty when the value cannot be decoded.
std::string CapabilityText(int fd) {
  cap_t caps = ::cap_get_fd(fd);
  if (caps == nullptr) return std::string();
  std::string text;
  if (char* cap_text = ::cap_to_text(caps, nullptr)) {
    text = cap_text;
    ::cap_free(cap_text);
  }
  uid_t owner = ::cap_get_nsowner(caps);
  if (!text.empty() && owner != 0 && owner != static_cast<uid_t>(-1)) {
    text += " [rootid=" + std::to_string(owner) + "]";
  }
  ::cap_free(caps);
  return text;
}

void AddExtendedAttributes(const std::string& path, const struct stat& status, int fd, CSecurityItems& items) {
  CXattrReader reader(path, fd);
  std::vector<char> names = reader.Names();
  for (size_t start = 0; start < names.size();) {
    std::string_view name(names.data() + start);
    start += name.size() + 1;
    std::string value;
    if (name == kAccessAclName) {
      if (S_ISLNK(status.st_mode)) continue;
      std::string text = AclText(fd >= 0 ? ::acl_get_fd(fd) : ::acl_get_file(path.c_str(), ACL_TYPE_ACCESS), false);
      if (!text.empty()) items[security_text::kAccessAcl] = text;
    } else if (name == kDefaultAclName) {
      if (!S_ISDIR(status.st_mode)) continue;
      std::string text = AclText(::acl_get_file(path.c_str(), ACL_TYPE_DEFAULT), true);
      if (!text.empty()) items[security_text::kDefaultAcl] = text;
    } else if (name.rfind("security.", 0) != 0 && name.rfind("trusted.", 0) != 0 && name.rfind("user.", 0) != 0) {
      continue;  // system.* holds the ACLs above; other namespaces carry no security meaning
    } else if (!reader.Value(name.data(), value)) {
      continue;  // removed meanwhile
    } else if (name == kCapabilityName && fd >= 0) {
      std::string text = CapabilityText(fd);
      if (text.empty()) {  // undecodable: kept as bytes
        items[security_text::kXattrPrefix + std::string(name)] = security_text::XattrValueText(value);
      } else {
        items[security_text::kCapabilities] = text;
      }
    } else if (name == kSelinuxName) {
      if (!value.empty() && value.back() == '\0') value.pop_back();
      items[security_text::kSelinux] = value;
    } else {
      items[security_text::kXattrPrefix + std::string(name)] = security_text::XattrValueText(value);
    }
  }
}

void AddInodeFlags(int fd, CSecurityItems& items) {
  int flags = 0;  // the ioctl is declared with a long but reads and writes an int
  if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) return;  // not supported here
  std::string letters;
  for (const security_text::CInodeFlag& flag : security_text::InodeFlags()) {
    if (static_cast<unsigned long>(static_cast<unsigned int>(flags)) & flag.bit) letters += flag.letter;
  }
  if (!letters.empty()) items[security_text::kFlags] = letters;
}

}  // namespace

std::string ReadSecurityAttributes(const std::string& path, const struct stat& status, int fd) {
  CSecurityItems items;
  items[security_text::kUid] = std::to_string(status.st_uid);
  items[security_text::kGid] = std::to_string(status.st_gid);
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
  items[security_text::kMode] = mode;
  if (!S_ISDIR(status.st_mode)) items[security_text::kLinkCount] = std::to_string(status.st_nlink);
  items[security_text::kInode] = std::to_string(status.st_ino);
  if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) {
    items[security_text::kDevice] = std::to_string(major(status.st_rdev)) + "," + std::to_string(minor(status.st_rdev));
  }
  AddExtendedAttributes(path, status, fd, items);
  if (fd >= 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) AddInodeFlags(fd, items);
  return security_text::Text(items);
}

bool ReadPathStatus(const std::string& path, CPathStatus& status) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return false;
  status.attributes = static_cast<uint32_t>(info.st_mode);
  status.time_1 = StatTimeNs(info.st_ctim);
  status.time_2 = StatTimeNs(info.st_mtim);
  return true;
}

// lstat(2), then a regular file or directory is opened (never followed, never blocking) for the
// reads of ReadSecurityAttributes.
std::string PathSecurityAttributesText(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return std::string();
  int fd = -1;
  if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
    fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat opened {};
    // Something else took its place meanwhile: read it by path rather than through that.
    if (fd >= 0 && (::fstat(fd, &opened) != 0 || opened.st_ino != status.st_ino || opened.st_dev != status.st_dev)) {
      ::close(fd);
      fd = -1;
    }
  }
  std::string text = ReadSecurityAttributes(path, status, fd);
  if (fd >= 0) ::close(fd);
  return text;
}
